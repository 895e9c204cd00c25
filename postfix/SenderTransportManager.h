// SenderTransportManager: binds one mail domain to one sender-dependent transport: the service in master.cf
// and the record that leads the domain's senders to it.
#pragma once

#include "postfix/SenderTransport.h"

#include <boost/scoped_ptr.hpp>

#include <string>

namespace zorvo::mail::postfix {

/// The operations, whatever the kind of transport. Failures are exceptions.
class BaseSenderTransportManager {
public:
    virtual ~BaseSenderTransportManager() = default;

    /// Adds the service to master.cf (in place where it is there already) and the record to the table, both
    /// at once on disk. Throws SystemError with the current errno, before any change, "Empty domain name
    /// specified" or "You should specify at least one non-empty ip adress"; else what ModuleManager and
    /// DatabaseHelper throw.
    virtual void addDomainToSenderTransport() = 0;

    /// Removes the domain's record; the service stays.
    virtual void removeDomainFromSenderTransport() = 0;

    /// Removes every service of this transport from master.cf; records stay. Throws SystemError when there is
    /// nothing to know them by: no address for the IP kind, no domain for the domain kind.
    virtual void removeSenderTransport() = 0;
};

/// T is IpSenderTransport or DomainSenderTransport.
template <class T>
class SenderTransportManager : public BaseSenderTransportManager {
public:
    SenderTransportManager(const std::string& domain, const std::string& ip4, const std::string& ip6);

    /// The domain as it will be used; callers lower-case it first.
    std::string& domain() noexcept { return domain_; }

    void addDomainToSenderTransport() override;
    void removeDomainFromSenderTransport() override;
    void removeSenderTransport() override;

private:
    const T& transport(); ///< Made on first need.

    std::string domain_;
    std::string ip4_;
    std::string ip6_;
    boost::scoped_ptr<T> transport_;
};

extern template class SenderTransportManager<IpSenderTransport>;
extern template class SenderTransportManager<DomainSenderTransport>;

} // namespace zorvo::mail::postfix
