// checkPostfix: whether Postfix sends the mail of each domain as a request asks, or as its own files say.
#pragma once

#include "check/Facts.h"
#include "check/Finding.h"

#include <string>
#include <vector>

namespace zorvo::check {

/// The names in a list of tables, such as sender_dependent_default_transport_maps.
std::vector<std::string> tablesOf(const std::string& value);

/// The tables that are searched before the generated one; all of them where it is not among them.
std::vector<std::string> tablesBefore(const std::string& value);

/// Compares Postfix with `request`.
Findings checkPostfix(const Request& request, const PostfixFacts& postfix);

/// Compares Postfix's files with each other.
Findings checkPostfix(const PostfixFacts& postfix);

} // namespace zorvo::check
