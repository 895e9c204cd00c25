#include "check/checkRequest.h"

#include "check/Address.h"
#include "check/routes.h"
#include "postfix/MasterCfParser.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <iterator>
#include <optional>
#include <unordered_map>
#include <utility>

namespace zorvo::check {

namespace {

using mail::postfix::MasterCfContent;
using mail::postfix::MasterCfParser;
using mail::postfix::ModuleInfo;

/// "private/NAME" and its NUL have to fit into sun_path of unix(7), 108 bytes.
constexpr size_t longestServiceName = 99;

constexpr size_t longestLabel = 63; // RFC 1035, 2.3.4
constexpr size_t longestName = 253;

/// The flaw of an address that a service is named after. Nothing for the canonical spelling.
std::optional<Kind> flawOfSpelling(Spelling spelling)
{
    switch (spelling) {
    case Spelling::Canonical:
        break;
    case Spelling::WithLineFeed:
        return Kind::AddressWithLineFeed;
    case Spelling::WithBlank:
        return Kind::AddressWithBlank;
    case Spelling::InBrackets:
        return Kind::AddressInBrackets;
    case Spelling::WithZone:
        return Kind::AddressWithZone;
    case Spelling::InCapitals:
        return Kind::AddressInCapitals;
    case Spelling::WithLeadingZeroes:
        return Kind::AddressWithLeadingZeroes;
    case Spelling::Abbreviated:
        return Kind::AddressAbbreviated;
    case Spelling::Another:
        return Kind::AddressNotCanonical;
    case Spelling::OtherFamily:
        return Kind::AddressOfOtherFamily;
    case Spelling::NotAnAddress:
        return Kind::AddressNotAnAddress;
    }
    return std::nullopt;
}

/// The flaw of an address in main.cf. No service is named after it, so Postfix alone has to understand it.
std::optional<Kind> flawOfParameter(Spelling spelling)
{
    switch (spelling) {
    case Spelling::WithLineFeed:
        return Kind::ParameterWithLineFeed;
    case Spelling::WithBlank:
        return Kind::AddressNotAnAddress;
    case Spelling::InBrackets:
    case Spelling::InCapitals:
        return Kind::AddressNotCanonical;
    case Spelling::WithZone: // the only way to write a link-local address
        return std::nullopt;
    default:
        return flawOfSpelling(spelling);
    }
}

std::optional<Kind> flawOfScope(Scope scope)
{
    switch (scope) {
    case Scope::Host:
        break;
    case Scope::Unspecified:
        return Kind::AddressUnspecified;
    case Scope::Multicast:
        return Kind::AddressMulticast;
    case Scope::Broadcast:
        return Kind::AddressBroadcast;
    case Scope::Ip4Mapped:
        return Kind::AddressIp4Mapped;
    }
    return std::nullopt;
}

/// Adds what is wrong with `text`, if it is not empty.
template <class FlawOf>
void checkAddress(Findings& findings, const std::string& domain, Family family, const std::string& text,
                  FlawOf flawOf)
{
    if (text.empty())
        return;
    const Address address = readAddress(family, text);
    const auto add = [&](std::optional<Kind> kind) {
        if (!kind)
            return;
        Finding finding{*kind, domain, {{familyName(family), text}}};
        if (!address.canonical.empty() && address.canonical != text)
            finding.values.emplace_back("read as", address.canonical);
        findings.push_back(std::move(finding));
    };
    add(flawOf(address.spelling));
    add(flawOfScope(address.scope));
}

/// Why `name` is not a host name; empty if it is one.
std::string flawOfHostName(const std::string& name)
{
    if (name.size() > longestName)
        return "more than 253 characters";
    size_t begin = 0;
    for (;;) {
        const size_t end = std::min(name.find('.', begin), name.size());
        const std::string label = name.substr(begin, end - begin);
        if (label.empty())
            return "an empty label";
        if (label.size() > longestLabel)
            return "a label of more than 63 characters";
        if (label.front() == '-' || label.back() == '-')
            return "a hyphen at the end of a label";
        const auto isAllowed = [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        };
        const auto odd = std::find_if_not(label.begin(), label.end(), isAllowed);
        if (odd != label.end())
            return std::string("the character '") + *odd + "'";
        if (end == name.size())
            return "";
        begin = end + 1;
    }
}

/// Adds what is wrong with the name itself, only the most serious flaw.
void checkDomain(Findings& findings, const std::string& domain)
{
    const auto isBeyondAscii = [](char c) { return static_cast<unsigned char>(c) > 127; };
    if (domain.find('\n') != std::string::npos) {
        findings.push_back({Kind::DomainWithLineFeed, domain, {}});
    } else if (domain.find_first_of(" \t\r") != std::string::npos) {
        findings.push_back({Kind::DomainWithBlank, domain, {}});
    } else if (std::any_of(domain.begin(), domain.end(), isBeyondAscii)) {
        findings.push_back({Kind::DomainNotAscii, domain, {}});
    } else {
        const std::string flaw = flawOfHostName(domain);
        if (!flaw.empty())
            findings.push_back({Kind::DomainNotHostName, domain, {{"because of", flaw}}});
    }
}

/// Whether the next run reads the line of `service` as just this service.
bool isReadable(const ModuleInfo& service)
{
    const std::string line = formatServiceLine(service);
    MasterCfContent content;
    const MasterCfParser grammar(content);
    if (!parser::classic::parse(line.data(), line.data() + line.size(), grammar).full)
        return false;
    if (content.rawLines().size() != 1 || !content.hasModule(service.name, service.type))
        return false;
    return content.getModule(service.name, service.type).first.command == service.command;
}

/// Adds what is wrong with the service. `named`: the cause has been reported already.
void checkService(Findings& findings, const std::string& domain, const ModuleInfo& service, bool named)
{
    if (service.name.size() > longestServiceName)
        findings.push_back({Kind::ServiceNameTooLong,
                            domain,
                            {{"service", service.name}, {"bytes", std::to_string(service.name.size())}}});
    if (!named && !isReadable(service))
        findings.push_back({Kind::ServiceNotReadable, domain, {{"service", service.name}}});
}

/// What is wrong with one element by itself.
Findings checkBinding(TransportType type, const Binding& binding)
{
    const auto& [domain, ip4, ip6] = binding;
    if (domain.empty())
        return {{Kind::DomainEmpty, "", {{"IPv4", ip4}, {"IPv6", ip6}}}};
    Findings findings;
    checkDomain(findings, domain);
    if (ip4.empty() && ip6.empty()) {
        findings.push_back({Kind::DomainWithoutAddress, domain, {}});
        return findings;
    }
    checkAddress(findings, domain, Family::Ip4, ip4, flawOfSpelling);
    checkAddress(findings, domain, Family::Ip6, ip6, flawOfSpelling);
    const bool isSevere = std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return infoOf(finding.kind).gravity == Gravity::Severe;
    });
    checkService(findings, domain, plannedService(type, binding), isSevere);
    return findings;
}

/// Adds the domains that several elements give different addresses, at the last of these elements.
void checkRepetition(Findings& findings, const std::vector<Binding>& bindings)
{
    struct Seen {
        size_t last;
        bool differs;
    };
    std::unordered_map<std::string, Seen> seen;
    for (size_t i = 0; i < bindings.size(); ++i) {
        const auto place = seen.emplace(boost::algorithm::to_lower_copy(bindings[i].domain), Seen{i, false});
        Seen& known = place.first->second;
        const Binding& before = bindings[known.last];
        known.differs = known.differs || before.ip4 != bindings[i].ip4 || before.ip6 != bindings[i].ip6;
        known.last = i;
    }
    for (size_t i = 0; i < bindings.size(); ++i) {
        const std::string domain = boost::algorithm::to_lower_copy(bindings[i].domain);
        const Seen& known = seen.at(domain);
        if (!domain.empty() && known.differs && known.last == i)
            findings.push_back({Kind::DomainGivenTwice,
                                domain,
                                {{"last IPv4", bindings[i].ip4}, {"last IPv6", bindings[i].ip6}}});
    }
}

} // namespace

Findings checkRequest(const Request& request)
{
    Findings findings;
    if (request.type == TransportType::ExplicitIp) {
        // postconf(1) cuts blanks off at both ends of a value; line feeds it refuses.
        const auto check = [&findings](Family family, const std::string& text) {
            const auto isBlank = boost::algorithm::is_any_of(" \t\r");
            checkAddress(findings, "", family, boost::algorithm::trim_copy_if(text, isBlank),
                         flawOfParameter);
        };
        check(Family::Ip4, request.ip4);
        check(Family::Ip6, request.ip6);
        return findings;
    }
    for (const Binding& binding : request.bindings) {
        Findings own = checkBinding(request.type, binding);
        std::move(own.begin(), own.end(), std::back_inserter(findings));
    }
    checkRepetition(findings, request.bindings);
    return findings;
}

} // namespace zorvo::check
