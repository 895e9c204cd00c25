// routes: how mail of each domain leaves, as a request will have it and as Postfix has it now. What a request
// leads to comes from the code that zorvo-smtp-bind itself runs.
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

/// How mail leaves now: one route a record of the table, in the order of the names, after one for the whole
/// server where main.cf names an address for it. The HELO name is that of the service, if it has one.
std::vector<Route> presentRoutes(const PostfixFacts& postfix);

/// The value of a parameter of main.cf; empty for one that Postfix does not know.
std::string parameterOf(const PostfixFacts& postfix, const std::string& name);

/// The service that a record's value names: what stands before its first colon.
std::string serviceOfRecord(const std::string& value);

} // namespace zorvo::check
