// gatherDns: what the DNS has about the addresses, the HELO names and the domains of all routes.
#pragma once

#include "check/Facts.h"
#include "check/Resolver.h"

#include <string>
#include <vector>

namespace zorvo::check {

/// Asks all questions in parallel, each once; see Resolver for how long that takes. `ownHelo` is the HELO
/// name of routes without one. Addresses that no mail can leave from are passed over, and so are HELO names
/// that are written as an address ("[192.0.2.1]"). The SPF record of a route for the whole server is not
/// known, because its domains are not.
///
/// Reads what strangers wrote: call giveUpPrivileges() before. Throws std::runtime_error if the DNS cannot be
/// used at all; silent servers make answers that are not known.
DnsFacts gatherDns(const std::vector<Route>& routes, const std::string& ownHelo, Resolver::Progress progress);

} // namespace zorvo::check
