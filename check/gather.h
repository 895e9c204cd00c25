// gather: collects the facts about the host and Postfix. Changes nothing.
#pragma once

#include "check/Facts.h"

#include <vector>

namespace zorvo::check {

/// The interfaces, and a real bind(2) of each address of the routes that could be bound. Throws SystemError
/// "getifaddrs" or "socket".
HostFacts gatherHost(const std::vector<Route>& routes);

/// Postfix's files, tables and processes. With a request, earlier tables are asked for its domains, otherwise
/// for those that are bound now. One run of each tool, and one more for each earlier table.
///
/// Throws PostfixConfigurationError where Postfix's tools refuse to read its files, or the generated table is
/// there and cannot be read, or master.cf is not one that zorvo-smtp-bind reads; and what a launch throws.
PostfixFacts gatherPostfix(const Request* request);

} // namespace zorvo::check
