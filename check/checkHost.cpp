#include "check/checkHost.h"

#include "check/Address.h"
#include "check/routes.h"

#include <boost/algorithm/string/predicate.hpp>

#include <cstring>
#include <set>
#include <sstream>
#include <string>

namespace zorvo::check {

namespace {

/// Words between blanks and commas.
std::vector<std::string> wordsOf(std::string value)
{
    for (char& c : value) {
        if (c == ',')
            c = ' ';
    }
    std::istringstream stream(value);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool isLoopback(const std::string& address)
{
    return address == "::1" || boost::algorithm::starts_with(address, "127.");
}

/// Compares the routes with the host, one at a time.
class HostCheck {
public:
    HostCheck(const HostFacts& host, const PostfixFacts& postfix);

    Findings findingsOf(const Route& route) const;

private:
    /// The addresses of one family that inet_interfaces names.
    using Named = std::vector<std::string>;

    const Named& _named(Family family) const { return family == Family::Ip4 ? named4_ : named6_; }
    void _checkAddress(Findings& findings, const std::string& domain, Family family,
                       const std::string& text) const;
    void _checkFamily(Findings& findings, const Route& route, Family family, const std::string& text) const;
    void _checkInterfaces(Findings& findings, const Route& route) const;

    const HostFacts& host_;
    std::set<std::string> addresses_;
    std::set<std::string> broadcasts_;
    std::set<std::string> protocols_;
    std::string inetInterfaces_;
    Named named4_;
    Named named6_;
    bool enforced_;
};

HostCheck::HostCheck(const HostFacts& host, const PostfixFacts& postfix)
    : host_(host),
      inetInterfaces_(parameterOf(postfix, "inet_interfaces")),
      enforced_(parameterOf(postfix, "smtp_bind_address_enforce") == "yes")
{
    for (const InterfaceAddress& own : host.interfaceAddresses) {
        addresses_.insert(own.address);
        broadcasts_.insert(own.broadcast);
    }
    for (const std::string& protocol : wordsOf(parameterOf(postfix, "inet_protocols")))
        protocols_.insert(protocol);
    for (const std::string& name : wordsOf(inetInterfaces_)) {
        const Address ip4 = readAddress(Family::Ip4, name);
        const Address ip6 = readAddress(Family::Ip6, name);
        if (!ip4.canonical.empty())
            named4_.push_back(ip4.canonical);
        else if (!ip6.canonical.empty())
            named6_.push_back(ip6.canonical);
    }
}

void HostCheck::_checkAddress(Findings& findings, const std::string& domain, Family family,
                              const std::string& text) const
{
    const Address address = readAddress(family, text);
    if (!address.bindable())
        return;
    Finding finding{Kind::AddressBroadcast, domain, {{familyName(family), text}}};
    if (broadcasts_.count(address.canonical) != 0 && addresses_.count(address.canonical) == 0) {
        findings.push_back(finding);
        return;
    }
    const auto result = host_.bindErrors.find(text);
    if (result == host_.bindErrors.end())
        return;
    if (result->second != 0) {
        finding.kind = enforced_ ? Kind::AddressNotOnHostEnforced : Kind::AddressNotOnHost;
        finding.values.emplace_back("bind", std::strerror(result->second));
        findings.push_back(finding);
    } else if (addresses_.count(address.canonical) == 0 && !isLoopback(address.canonical)) {
        finding.kind = Kind::AddressNotOnInterface;
        findings.push_back(finding);
    }
}

/// A service with one address brings its own inet_protocols, so main.cf matters to the others only.
void HostCheck::_checkFamily(Findings& findings, const Route& route, Family family,
                             const std::string& text) const
{
    const bool bringsProtocol = !route.domain.empty() && route.ip4.empty() != route.ip6.empty();
    const bool isEnabled =
        protocols_.count("all") != 0 || protocols_.count(family == Family::Ip4 ? "ipv4" : "ipv6") != 0;
    if (!text.empty() && !bringsProtocol && !isEnabled)
        findings.push_back({Kind::FamilyDisabled, route.domain, {{familyName(family), text}}});
}

void HostCheck::_checkInterfaces(Findings& findings, const Route& route) const
{
    if (route.ip4.empty() == route.ip6.empty())
        return;
    const Family other = route.ip4.empty() ? Family::Ip4 : Family::Ip6;
    const Named& named = _named(other);
    if (!route.domain.empty() && !named.empty())
        findings.push_back(
            {Kind::InetInterfacesStopService, route.domain, {{"inet_interfaces", inetInterfaces_}}});
    else if (route.domain.empty() && named.size() == 1 && !isLoopback(named.front()))
        findings.push_back({Kind::InetInterfacesChooseAddress, "", {{familyName(other), named.front()}}});
}

Findings HostCheck::findingsOf(const Route& route) const
{
    Findings findings;
    _checkAddress(findings, route.domain, Family::Ip4, route.ip4);
    _checkAddress(findings, route.domain, Family::Ip6, route.ip6);
    _checkFamily(findings, route, Family::Ip4, route.ip4);
    _checkFamily(findings, route, Family::Ip6, route.ip6);
    _checkInterfaces(findings, route);
    return findings;
}

} // namespace

Findings checkHost(const std::vector<Route>& routes, const HostFacts& host, const PostfixFacts& postfix)
{
    const HostCheck check(host, postfix);
    Findings findings;
    for (const Route& route : routes) {
        for (Finding& finding : check.findingsOf(route))
            findings.push_back(std::move(finding));
    }
    return findings;
}

} // namespace zorvo::check
