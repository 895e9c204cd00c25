// plan: what a request leads to, from the code that zorvo-smtp-bind itself runs.
#pragma once

#include "check/Facts.h"
#include "postfix/ModuleInfo.h"

#include <string>
#include <vector>

namespace zorvo::check {

/// The service that binds `binding`, with its domain in lower case, for one of the two domain types.
mail::postfix::ModuleInfo plannedService(TransportType type, const Binding& binding);

/// The value of `parameter` among the "-o" arguments of `service`; the last one counts. Empty without one.
std::string optionOf(const mail::postfix::ModuleInfo& service, const std::string& parameter);

/// How mail will leave after a run: one route a domain, in the order of the request, where the last element
/// of a domain counts; for explicit-ip one for the whole server. Elements that stop a run are left out.
std::vector<Route> plannedRoutes(const Request& request);

} // namespace zorvo::check
