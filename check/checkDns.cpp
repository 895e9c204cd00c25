#include "check/checkDns.h"

#include "check/Address.h"
#include "check/dns.h"

#include <boost/algorithm/string/join.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

namespace zorvo::check {

namespace {

using State = DnsAnswer::State;

bool holds(const DnsAnswer& answer, const std::string& value)
{
    return std::find(answer.values.begin(), answer.values.end(), value) != answer.values.end();
}

/// Adds what an answer says, and where it comes from if the DNS was not asked.
void addAnswer(Finding& finding, const char* name, const DnsAnswer& answer)
{
    if (!answer.values.empty())
        finding.values.emplace_back(name, boost::algorithm::join(answer.values, ", "));
    if (answer.fromHostsFile)
        finding.values.emplace_back("according to", "/etc/hosts");
}

/// One address of a route.
class DnsCheck {
public:
    DnsCheck(Findings& findings, const DnsFacts& dns, const std::string& domain, Family family,
             const std::string& address)
        : findings_(findings), dns_(dns), domain_(domain), family_(family), address_(address)
    {
    }

    void checkNames() const;
    void checkHelo(const std::string& helo) const;
    void checkSpf() const;

private:
    const DnsAnswer* _addressesOf(const std::string& name) const;
    Finding _finding(Kind kind) const { return {kind, domain_, {{familyName(family_), address_}}}; }

    Findings& findings_;
    const DnsFacts& dns_;
    const std::string& domain_;
    Family family_;
    const std::string& address_;
};

const DnsAnswer* DnsCheck::_addressesOf(const std::string& name) const
{
    const auto place = dns_.addresses.find({family_, name});
    return place == dns_.addresses.end() ? nullptr : &place->second;
}

/// One name that leads back is enough.
void DnsCheck::checkNames() const
{
    const auto place = dns_.names.find(address_);
    if (place == dns_.names.end())
        return;
    const DnsAnswer& names = place->second;
    bool isKnown = names.state != State::NotKnown;
    for (const std::string& name : names.values) {
        const DnsAnswer* const addresses = _addressesOf(name);
        if (addresses != nullptr && holds(*addresses, address_))
            return;
        isKnown = isKnown && addresses != nullptr && addresses->state != State::NotKnown;
    }
    Finding finding = _finding(Kind::PtrNotKnown);
    if (isKnown)
        finding.kind = names.values.empty() ? Kind::PtrMissing : Kind::PtrNotLeadingBack;
    addAnswer(finding, "names", names);
    findings_.push_back(std::move(finding));
}

void DnsCheck::checkHelo(const std::string& helo) const
{
    const DnsAnswer* const addresses = _addressesOf(helo);
    if (addresses == nullptr || holds(*addresses, address_))
        return;
    Finding finding = _finding(Kind::HeloNotKnown);
    if (addresses->state == State::NotThere)
        finding.kind = Kind::HeloWithoutAddress;
    else if (addresses->state == State::Found)
        finding.kind = Kind::HeloLeadsElsewhere;
    finding.values.emplace_back("HELO name", helo);
    addAnswer(finding, "leads to", *addresses);
    findings_.push_back(std::move(finding));
}

std::optional<Kind> kindOf(SpfResult result)
{
    switch (result) {
    case SpfResult::Pass:
        break;
    case SpfResult::Fail:
        return Kind::SpfFail;
    case SpfResult::Softfail:
        return Kind::SpfSoftfail;
    case SpfResult::Neutral:
        return Kind::SpfNeutral;
    case SpfResult::None:
        return Kind::SpfMissing;
    case SpfResult::Temperror:
        return Kind::SpfNotKnown;
    case SpfResult::Permerror:
        return Kind::SpfUnusable;
    }
    return std::nullopt;
}

void DnsCheck::checkSpf() const
{
    const auto place = dns_.spf.find({domain_, address_});
    if (place == dns_.spf.end())
        return;
    const auto& [result, reason] = place->second;
    const std::optional<Kind> kind = kindOf(result);
    if (!kind)
        return;
    Finding finding = _finding(*kind);
    if (!reason.empty())
        finding.values.emplace_back("because of", reason);
    findings_.push_back(std::move(finding));
}

} // namespace

Findings checkDns(const std::vector<Route>& routes, const DnsFacts& dns)
{
    Findings findings;
    for (const Route& route : routes) {
        for (const auto& [family, text] : {std::pair(Family::Ip4, route.ip4), {Family::Ip6, route.ip6}}) {
            const std::string address = readAddress(family, text).canonical;
            if (address.empty())
                continue;
            const DnsCheck check(findings, dns, route.domain, family, address);
            check.checkNames();
            check.checkHelo(foldedName(route.helo));
            check.checkSpf();
        }
    }
    return findings;
}

} // namespace zorvo::check
