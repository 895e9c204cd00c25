// SenderTransport: every name that this program generates in Postfix's configuration, and the kinds of
// services that it generates in master.cf: smtp(8) clients that send from chosen addresses.
//
// A kind of service is a class that
//   - derives from BaseSenderTransport, whose constructor forms the service and gives it a name that every
//     run recognises and removes;
//   - can be made from (domain, ip4, ip6): the domain in lower case where the caller made it so, and at least
//     one address where a service is bound;
//   - has `bool ownsService(const std::string& serviceName) const`, which says by the name whether a service
//     is this transport's. Only removeSenderTransport() asks; a run removes by generatedPrefix.
// SenderTransportManager works with any such class, and app/do_main.cpp offers it to the user.
// Nothing is validated: addresses and names go into the service as they are.
#pragma once

#include "postfix/ModuleInfo.h"

#include <string>

namespace zorvo::mail::postfix {

/// Prefix by which generated services are known.
inline constexpr const char* generatedPrefix = "zorvo-";

/// The lookup table that binds senders to generated services.
inline constexpr const char* senderTransportTable = "hash:/var/spool/postfix/zorvo/sdd_transport_maps";

/// The parameters of smtp(8) that hold its source addresses.
inline constexpr const char* bindAddressParameter = "smtp_bind_address";
inline constexpr const char* bindAddress6Parameter = "smtp_bind_address6";

/// The parameters that every run removes from main.cf, in this order.
inline constexpr const char* removedParameters[] = {
    bindAddressParameter,
    bindAddress6Parameter,
};

/// Key and value of the record in senderTransportTable that gives the mail of `domain` to a service.
std::string recordKey(const std::string& domain);
std::string recordValue(const std::string& serviceName);

/// `text` with every ":" turned into "-", as in the name of a generated service.
std::string serviceNamePart(const std::string& text);

/// What all kinds share: the service's values and its addresses, each of which may be empty.
class BaseSenderTransport : public ModuleInfo {
public:
    std::string ip4;
    std::string ip6;

protected:
    /// The service's name is nameOf(ownName). `ownName` holds all that distinguishes two services of a kind,
    /// the addresses included.
    BaseSenderTransport(const std::string& ownName, const std::string& ip4Address,
                        const std::string& ip6Address);

    /// generatedPrefix and `ownName`, through serviceNamePart(). Of the beginning of a name it gives the
    /// beginning.
    static std::string nameOf(const std::string& ownName);

    /// Adds "-o setting" to the command, after what the constructor put there.
    void addOption(const std::string& setting);
};

/// A service named after its address pair, shared by every domain that sends from it.
class IpSenderTransport : public BaseSenderTransport {
public:
    /// `domain` is ignored.
    IpSenderTransport(const std::string& domain, const std::string& ip4Address,
                      const std::string& ip6Address);

    /// Whether the service `serviceName` sends from this transport's IPv4 address or, without one, from its
    /// IPv6 address. Throws SystemError with the current errno when both are empty.
    bool sameTransport(const std::string& serviceName) const;

    /// The same as sameTransport.
    bool ownsService(const std::string& serviceName) const { return sameTransport(serviceName); }
};

/// A service of one domain, which it also announces as HELO name.
class DomainSenderTransport : public BaseSenderTransport {
public:
    DomainSenderTransport(const std::string& domainName, const std::string& ip4Address,
                          const std::string& ip6Address);

    /// Whether the name `serviceName` begins as those of this domain do; the addresses do not count, and a
    /// longer domain that begins with this one counts as well. Throws SystemError with the current errno
    /// when the domain is empty.
    bool ownsService(const std::string& serviceName) const;

    std::string domain; ///< In lower case.

private:
    std::string namePrefix_; ///< Made of the domain as it was passed.
};

} // namespace zorvo::mail::postfix
