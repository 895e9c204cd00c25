// IpSenderTransport and DomainSenderTransport: the two kinds of generated services, smtp(8) clients in
// master.cf that send from chosen addresses. All names begin with "zorvo-". Nothing is validated.
#pragma once

#include "postfix/ModuleInfo.h"

#include <string>

namespace zorvo::mail::postfix {

/// Prefix by which generated services are known.
extern const char* const generatedPrefix;

/// The lookup table that binds senders to generated services.
extern const char* const senderTransportTable;

/// `text` with every ":" turned into "-", as in the name of a generated service.
std::string serviceNamePart(const std::string& text);

/// What both kinds share: the service's values and its addresses, each of which may be empty.
class BaseSenderTransport : public ModuleInfo {
public:
    std::string ip4;
    std::string ip6;

protected:
    /// `serviceName` goes through serviceNamePart().
    BaseSenderTransport(const std::string& serviceName, const std::string& ip4Address,
                        const std::string& ip6Address);

    /// Adds "-o setting" to the command.
    void addOption(std::string setting);
};

/// A service named after its address pair, shared by every domain that sends from it.
class IpSenderTransport : public BaseSenderTransport {
public:
    /// `domain` is ignored; it gives both kinds one shape.
    IpSenderTransport(const std::string& domain, const std::string& ip4Address,
                      const std::string& ip6Address);

    /// Whether the service `serviceName` sends from this transport's IPv4 address or, without one, from its
    /// IPv6 address. Throws SystemError with the current errno when both are empty.
    bool sameTransport(const std::string& serviceName) const;
};

/// A service of one domain, which it also announces as HELO name.
class DomainSenderTransport : public BaseSenderTransport {
public:
    DomainSenderTransport(const std::string& domainName, const std::string& ip4Address,
                          const std::string& ip6Address);

    std::string domain; ///< In lower case.
};

} // namespace zorvo::mail::postfix
