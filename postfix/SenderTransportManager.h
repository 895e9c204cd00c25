// SenderTransportManager: binds one mail domain to one sender-dependent transport: the service in master.cf
// and the record that leads the domain's senders to it.
#pragma once

#include "postfix/ModuleManager.h"
#include "postfix/SenderTransport.h"

#include <boost/scoped_ptr.hpp>

#include <string>
#include <type_traits>
#include <utility>

namespace zorvo::mail::postfix {

/// The operations, whatever the kind of transport. Failures are exceptions.
class BaseSenderTransportManager {
public:
    virtual ~BaseSenderTransportManager() = default;

    /// Adds the service to master.cf (in place where it is there already) and the record to the table, both
    /// at once on disk. Throws SystemError with the current errno, before any change, "Empty domain name
    /// specified" or "You should specify at least one non-empty ip adress"; otherwise what ModuleManager and
    /// DatabaseHelper throw.
    virtual void addDomainToSenderTransport() = 0;

    /// Removes the domain's record; the service stays.
    virtual void removeDomainFromSenderTransport() = 0;

    /// Removes every service of this transport from master.cf; records stay. Throws SystemError when there is
    /// nothing to know them by: no address for the IP kind, no domain for the domain kind.
    virtual void removeSenderTransport() = 0;
};

/// The steps that do not depend on the kind of transport.
namespace sender_transport_steps {

/// Throws the refusals of addDomainToSenderTransport().
void requireDomainAndAddress(const std::string& domain, const std::string& ip4, const std::string& ip6);

/// Puts the service into master.cf and the record "@domain" of its name into the table.
void bindDomain(const std::string& domain, const ModuleInfo& service);

/// Takes the record "@domain" out of the table.
void unbindDomain(const std::string& domain);

} // namespace sender_transport_steps

/// Whether T tells its own services from others.
template <class T, class = void>
inline constexpr bool hasOwnsService = false;
template <class T>
inline constexpr bool hasOwnsService<
    T, std::void_t<decltype(static_cast<bool>(std::declval<const T&>().ownsService(std::string())))>> = true;

/// T is a kind of transport, as SenderTransport.h describes it.
template <class T>
class SenderTransportManager : public BaseSenderTransportManager {
    static_assert(std::is_base_of_v<BaseSenderTransport, T>,
                  "a kind of sender transport must derive from BaseSenderTransport (SenderTransport.h)");
    static_assert(hasOwnsService<T>,
                  "a kind of sender transport must have 'bool ownsService(const std::string&) const', "
                  "which tells its services from others (SenderTransport.h)");
    static_assert(std::is_constructible_v<T, const std::string&, const std::string&, const std::string&>,
                  "a kind of sender transport must have a public constructor that takes the strings domain, "
                  "ip4 and ip6 (SenderTransport.h)");

public:
    SenderTransportManager(const std::string& domain, const std::string& ip4, const std::string& ip6)
        : domain_(domain), ip4_(ip4), ip6_(ip6)
    {
    }

    /// The domain as it will be used; callers lower-case it first.
    std::string& domain() noexcept { return domain_; }

    void addDomainToSenderTransport() override
    {
        sender_transport_steps::requireDomainAndAddress(domain_, ip4_, ip6_);
        sender_transport_steps::bindDomain(domain_, _transport());
    }

    void removeDomainFromSenderTransport() override { sender_transport_steps::unbindDomain(domain_); }

    void removeSenderTransport() override;

private:
    const T& _transport(); ///< Made on first need.

    std::string domain_;
    std::string ip4_;
    std::string ip6_;
    boost::scoped_ptr<T> transport_;
};

template <class T>
void SenderTransportManager<T>::removeSenderTransport()
{
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    const T& own = _transport();
    for (const ModuleInfo& service : modules.enabledContent().modules()) {
        if (own.ownsService(service.name))
            modules.removeModule(service.name, ModuleType::Unix);
    }
    modules.storeModules(false);
}

template <class T>
const T& SenderTransportManager<T>::_transport()
{
    if (!transport_)
        transport_.reset(new T(domain_, ip4_, ip6_));
    return *transport_;
}

} // namespace zorvo::mail::postfix
