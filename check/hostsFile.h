// hostsFile: /etc/hosts as answers to questions that the DNS would get otherwise.
#pragma once

#include "check/Facts.h"

#include <arpa/nameser.h>

#include <istream>
#include <map>
#include <string>
#include <utility>

namespace zorvo::check {

/// A type of record, and a folded name.
using DnsQuestion = std::pair<ns_type, std::string>;

/// The answers of a file in the format of hosts(5): addresses of names, and names of addresses. Lines that
/// are not in the format are skipped.
std::map<DnsQuestion, DnsAnswer> readHostsFile(std::istream& file);

} // namespace zorvo::check
