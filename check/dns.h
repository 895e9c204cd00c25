// dns: names and records as the DNS writes them. No I/O.
#pragma once

#include "check/Address.h"

#include <arpa/nameser.h>

#include <string>
#include <vector>

namespace zorvo::check {

/// `name` as it is compared: in lower case, without a dot at the end.
std::string foldedName(const std::string& name);

/// The name whose PTR records name `address`, which is one of `family`: "1.2.0.192.in-addr.arpa".
std::string reverseName(Family family, const std::string& address);

/// The values of the records of `type` in the answer section of a DNS message: addresses as inet_ntop(3)
/// writes them, folded names of PTR and MX records, the text of TXT records with its pieces joined. Empty
/// for a message that cannot be read; what can be read before that is returned.
std::vector<std::string> recordsOf(ns_type type, const unsigned char* message, int size);

} // namespace zorvo::check
