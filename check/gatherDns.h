// gatherDns: what the DNS has about the addresses, the HELO names and the domains of all routes.
#pragma once

#include "check/Facts.h"
#include "check/Resolver.h"

#include <vector>

namespace zorvo::check {

/// Asks all questions in parallel, each once; see Resolver for how long that takes. Addresses that no mail
/// can leave from are passed over, and so are HELO names that are empty or written as an address
/// ("[192.0.2.1]"). A route for the whole server has no domain to ask the SPF record of.
///
/// Reads data from strangers: call giveUpPrivileges() before. Throws std::runtime_error if the DNS cannot be
/// used at all; if servers are silent, answers are not known.
DnsFacts gatherDns(const std::vector<Route>& routes, Resolver::Progress progress);

} // namespace zorvo::check
