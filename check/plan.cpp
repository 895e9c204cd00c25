#include "check/plan.h"

#include "postfix/SenderTransport.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <unordered_map>

namespace zorvo::check {

using mail::postfix::DomainSenderTransport;
using mail::postfix::IpSenderTransport;
using mail::postfix::ModuleInfo;

ModuleInfo plannedService(TransportType type, const Binding& binding)
{
    const std::string domain = boost::algorithm::to_lower_copy(binding.domain);
    if (type == TransportType::DomainName)
        return DomainSenderTransport(domain, binding.ip4, binding.ip6);
    return IpSenderTransport(domain, binding.ip4, binding.ip6);
}

std::string optionOf(const ModuleInfo& service, const std::string& parameter)
{
    std::string value;
    const std::string setting = parameter + "=";
    bool isOption = false;
    for (const std::string& word : service.command) {
        if (isOption && boost::algorithm::starts_with(word, setting))
            value = word.substr(setting.size());
        isOption = word == "-o";
    }
    return value;
}

std::vector<Route> plannedRoutes(const Request& request)
{
    if (request.type == TransportType::ExplicitIp)
        return {Route{"", "", request.ip4, request.ip6, ""}};
    std::vector<Route> routes;
    std::unordered_map<std::string, size_t> places;
    for (const Binding& binding : request.bindings) {
        if (binding.domain.empty() || (binding.ip4.empty() && binding.ip6.empty()))
            continue;
        const ModuleInfo service = plannedService(request.type, binding);
        Route route{boost::algorithm::to_lower_copy(binding.domain), service.name, binding.ip4, binding.ip6,
                    optionOf(service, "smtp_helo_name")};
        const auto place = places.emplace(route.domain, routes.size());
        if (place.second)
            routes.push_back(std::move(route));
        else
            routes[place.first->second] = std::move(route);
    }
    return routes;
}

} // namespace zorvo::check
