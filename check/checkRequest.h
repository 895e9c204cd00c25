// checkRequest: whether a request is fit to be run, judging by the request alone.
#pragma once

#include "check/Facts.h"
#include "check/Finding.h"

namespace zorvo::check {

/// The findings in the order of the request.
Findings checkRequest(const Request& request);

} // namespace zorvo::check
