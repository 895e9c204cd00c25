#include "postfix/SenderTransport.h"

#include "common/SystemError.h"

#include <boost/algorithm/string.hpp>

namespace zorvo::mail::postfix {

std::string recordKey(const std::string& domain)
{
    return "@" + domain;
}

std::string recordValue(const std::string& serviceName)
{
    return serviceName + ":";
}

std::string serviceNamePart(const std::string& text)
{
    return boost::algorithm::replace_all_copy(text, ":", "-");
}

namespace {

const char* addressPreference(const std::string& ip4, const std::string& ip6)
{
    if (!ip4.empty())
        return "ipv4";
    return ip6.empty() ? "any" : "ipv6";
}

} // namespace

BaseSenderTransport::BaseSenderTransport(const std::string& ownName, const std::string& ip4Address,
                                         const std::string& ip6Address)
    : ip4(ip4Address), ip6(ip6Address)
{
    name = nameOf(ownName);
    type = ModuleType::Unix;
    command.emplace_back("smtp");
    addOption(std::string(bindAddressParameter) + "=" + ip4);
    addOption(std::string(bindAddress6Parameter) + "=" + ip6);
    addOption(std::string("smtp_address_preference=") + addressPreference(ip4, ip6));
    if (ip4.empty() != ip6.empty())
        addOption(ip6.empty() ? "inet_protocols=ipv4" : "inet_protocols=ipv6");
}

std::string BaseSenderTransport::nameOf(const std::string& ownName)
{
    return serviceNamePart(generatedPrefix + ownName);
}

void BaseSenderTransport::addOption(const std::string& setting)
{
    command.emplace_back("-o");
    command.push_back(setting);
}

IpSenderTransport::IpSenderTransport(const std::string&, const std::string& ip4Address,
                                     const std::string& ip6Address)
    : BaseSenderTransport(ip4Address + "-" + ip6Address, ip4Address, ip6Address)
{
}

bool IpSenderTransport::sameTransport(const std::string& serviceName) const
{
    if (!ip4.empty())
        return boost::algorithm::starts_with(serviceName, nameOf(ip4 + "-"));
    if (!ip6.empty())
        return boost::algorithm::ends_with(serviceName, serviceNamePart("-" + ip6));
    throw SystemError("failed to check transport match if domain name not specified", 0);
}

DomainSenderTransport::DomainSenderTransport(const std::string& domainName, const std::string& ip4Address,
                                             const std::string& ip6Address)
    : BaseSenderTransport(domainName + "-" + ip4Address + "-" + ip6Address, ip4Address, ip6Address),
      domain(boost::algorithm::to_lower_copy(domainName)),
      namePrefix_(nameOf(domainName))
{
    addOption("smtp_helo_name=" + domain);
}

bool DomainSenderTransport::ownsService(const std::string& serviceName) const
{
    if (domain.empty())
        throw SystemError("Failed to check transport match if domain name not specified", 0);
    return boost::algorithm::starts_with(serviceName, namePrefix_);
}

} // namespace zorvo::mail::postfix
