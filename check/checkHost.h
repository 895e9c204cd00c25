// checkHost: whether the host, and Postfix's use of its interfaces, let mail leave from the addresses.
#pragma once

#include "check/Facts.h"
#include "check/Finding.h"

#include <vector>

namespace zorvo::check {

/// The findings in the order of the routes. Addresses that checkRequest() finds fault with as addresses are
/// passed over, and so are those that no bind(2) was tried for.
Findings checkHost(const std::vector<Route>& routes, const HostFacts& host, const PostfixFacts& postfix);

} // namespace zorvo::check
