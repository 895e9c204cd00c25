#include "check/routes.h"

#include "postfix/SenderTransport.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <unordered_map>

namespace zorvo::check {

namespace {

/// Without blanks at its ends, as postconf(1) takes a value.
std::string trimmed(const std::string& value)
{
    return boost::algorithm::trim_copy_if(value, boost::algorithm::is_any_of(" \t\r"));
}

} // namespace

using mail::postfix::bindAddress6Parameter;
using mail::postfix::bindAddressParameter;
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
        return {Route{"", "", trimmed(request.ip4), trimmed(request.ip6), ""}};
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

std::string parameterOf(const PostfixFacts& postfix, const std::string& name)
{
    const auto place = postfix.mainCf.find(name);
    return place == postfix.mainCf.end() ? std::string() : place->second;
}

std::string serviceOfRecord(const std::string& value)
{
    return value.substr(0, value.find(':'));
}

std::vector<Route> presentRoutes(const PostfixFacts& postfix)
{
    std::vector<Route> routes;
    Route server{"", "", parameterOf(postfix, bindAddressParameter),
                 parameterOf(postfix, bindAddress6Parameter), ""};
    if (!server.ip4.empty() || !server.ip6.empty())
        routes.push_back(std::move(server));
    if (!postfix.records)
        return routes;
    const std::map<std::string, std::string> byName(postfix.records->begin(), postfix.records->end());
    for (const auto& [key, value] : byName) {
        Route route{boost::algorithm::starts_with(key, "@") ? key.substr(1) : key, serviceOfRecord(value), "",
                    "", ""};
        const auto service = postfix.services.find(route.service);
        if (service != postfix.services.end()) {
            route.ip4 = optionOf(service->second, bindAddressParameter);
            route.ip6 = optionOf(service->second, bindAddress6Parameter);
            route.helo = optionOf(service->second, "smtp_helo_name");
        }
        routes.push_back(std::move(route));
    }
    return routes;
}

} // namespace zorvo::check
