#include "postfix/clean_transports.h"

#include "postfix/DatabaseHelper.h"
#include "postfix/MainCfManager.h"
#include "postfix/ModuleManager.h"
#include "postfix/SenderTransport.h"

#include <boost/algorithm/string/predicate.hpp>

using namespace zorvo::mail::postfix;

void clean_transports()
{
    MainCfManager& mainCf = MainCfManager::getInstance();
    for (const char* const parameter : removedParameters)
        mainCf.removeKey(parameter);

    const RecordList none;
    DatabaseHelper::replaceRecords(senderTransportTable, none.begin(), none.end());

    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    for (const ModuleInfo& service : modules.enabledContent().modules()) {
        if (service.type == ModuleType::Unix && boost::algorithm::starts_with(service.name, generatedPrefix))
            modules.removeModule(service.name, ModuleType::Unix);
    }
    modules.storeModules(false);
}
