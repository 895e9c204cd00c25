// checkPostfix: whether Postfix sends the mail of each domain the way that is asked for, or that its own
// files tell.
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

/// Holds Postfix against `request`.
Findings checkPostfix(const Request& request, const PostfixFacts& postfix);

/// Holds Postfix's files against each other.
Findings checkPostfix(const PostfixFacts& postfix);

} // namespace zorvo::check
