// SenderTransportManager: see the header.
#include "postfix/SenderTransportManager.h"

#include "common/SystemError.h"
#include "postfix/BatchDatabaseHelper.h"
#include "postfix/DatabaseHelper.h"
#include "postfix/ModuleManager.h"

#include <boost/algorithm/string/predicate.hpp>

namespace zorvo::mail::postfix {

namespace {

/// Whether the service `name` belongs to a transport.
bool ownsService(const IpSenderTransport& transport, const std::string&, const std::string& name)
{
    return transport.sameTransport(name);
}

bool ownsService(const DomainSenderTransport&, const std::string& domain, const std::string& name)
{
    if (domain.empty())
        throw SystemError("Failed to check transport match if domain name not specified", 0);
    return boost::algorithm::starts_with(name, serviceNamePart(generatedPrefix + domain));
}

} // namespace

template <class T>
SenderTransportManager<T>::SenderTransportManager(const std::string& domain, const std::string& ip4,
                                                  const std::string& ip6)
    : domain_(domain), ip4_(ip4), ip6_(ip6)
{
}

template <class T>
const T& SenderTransportManager<T>::transport()
{
    if (!transport_)
        transport_.reset(new T(domain_, ip4_, ip6_));
    return *transport_;
}

template <class T>
void SenderTransportManager<T>::addDomainToSenderTransport()
{
    if (domain_.empty())
        throw SystemError("Empty domain name specified", 0);
    if (ip4_.empty() && ip6_.empty())
        throw SystemError("You should specify at least one non-empty ip adress", 0);

    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    modules.addModule(transport(), true);
    modules.storeModules(false);

    const RecordList records(1, Record("@" + domain_, transport().name + ":"));
    BatchDatabaseHelper batch(true, true);
    batch.addChanges(senderTransportTable, records.begin(), records.end());
}

template <class T>
void SenderTransportManager<T>::removeDomainFromSenderTransport()
{
    DatabaseHelper::removeRecord(senderTransportTable, "@" + domain_);
}

template <class T>
void SenderTransportManager<T>::removeSenderTransport()
{
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    const T& own = transport();
    for (const ModuleInfo& service : modules.enabledContent().modules()) {
        if (ownsService(own, domain_, service.name))
            modules.removeModule(service.name, ModuleType::Unix);
    }
    modules.storeModules(false);
}

template class SenderTransportManager<IpSenderTransport>;
template class SenderTransportManager<DomainSenderTransport>;

} // namespace zorvo::mail::postfix
