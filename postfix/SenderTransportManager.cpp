#include "postfix/SenderTransportManager.h"

#include "common/SystemError.h"
#include "postfix/BatchDatabaseHelper.h"

namespace zorvo::mail::postfix::sender_transport_steps {

void requireDomainAndAddress(const std::string& domain, const std::string& ip4, const std::string& ip6)
{
    if (domain.empty())
        throw SystemError("Empty domain name specified", 0);
    if (ip4.empty() && ip6.empty())
        throw SystemError("You should specify at least one non-empty ip adress", 0);
}

void bindDomain(const std::string& domain, const ModuleInfo& service)
{
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    modules.addModule(service, true);
    modules.storeModules(false);

    const RecordList records{{recordKey(domain), recordValue(service.name)}};
    BatchDatabaseHelper batch(true, true);
    batch.addChanges(senderTransportTable, records.begin(), records.end());
}

void unbindDomain(const std::string& domain)
{
    DatabaseHelper::removeRecord(senderTransportTable, recordKey(domain));
}

} // namespace zorvo::mail::postfix::sender_transport_steps
