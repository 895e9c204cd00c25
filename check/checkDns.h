// checkDns: whether receivers can believe the addresses and HELO names that mail leaves with.
#pragma once

#include "check/Facts.h"
#include "check/Finding.h"

#include <vector>

namespace zorvo::check {

/// The findings in the order of the routes. What was not asked for is passed over. What is not known is a
/// warning, and nothing is concluded from it.
Findings checkDns(const std::vector<Route>& routes, const DnsFacts& dns);

} // namespace zorvo::check
