#include "check/gather.h"

#include "check/Address.h"
#include "check/checkPostfix.h"
#include "check/routes.h"
#include "common/SystemError.h"
#include "postfix/ModuleManager.h"
#include "postfix/PostconfReader.h"
#include "postfix/PostfixError.h"
#include "postfix/SenderTransport.h"
#include "postfix/ServiceManager.h"
#include "postfix/TableReader.h"
#include "process/FdOwner.h"
#include "process/iterateProcesses.h"
#include "process/startTime.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace zorvo::check {

namespace {

using mail::postfix::ModuleManager;
using mail::postfix::ModuleType;
using mail::postfix::PostconfReader;
using mail::postfix::TableReader;

/// As inet_ntop(3) writes it; empty for other families.
std::string textOf(const sockaddr* address)
{
    if (address == nullptr)
        return "";
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        sockaddr_in ip4 = {};
        std::memcpy(&ip4, address, sizeof(ip4));
        (void)::inet_ntop(AF_INET, &ip4.sin_addr, text, sizeof(text));
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 ip6 = {};
        std::memcpy(&ip6, address, sizeof(ip6));
        (void)::inet_ntop(AF_INET6, &ip6.sin6_addr, text, sizeof(text));
    }
    return text;
}

std::vector<InterfaceAddress> interfaceAddresses()
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        throw SystemError("getifaddrs", errno);
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        InterfaceAddress own{entry->ifa_name, textOf(entry->ifa_addr), ""};
        if (own.address.empty())
            continue;
        if ((entry->ifa_flags & IFF_BROADCAST) != 0)
            own.broadcast = textOf(entry->ifa_ifu.ifu_broadaddr);
        addresses.push_back(std::move(own));
    }
    return addresses;
}

/// errno of a bind(2) to a numeric address and any port; 0 if it succeeded. The address is read as Postfix
/// reads it, without brackets by getaddrinfo(3).
int bindError(Family family, std::string text)
{
    if (text.front() == '[')
        text = text.substr(1, text.size() - 2);
    addrinfo hints = {};
    hints.ai_family = family == Family::Ip4 ? AF_INET : AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    if (::getaddrinfo(text.c_str(), nullptr, &hints, &list) != 0)
        return EADDRNOTAVAIL; // a zone that the host does not have
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, ::freeaddrinfo);
    const process::FdOwner socket(::socket(list->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() == -1) {
        if (errno == EAFNOSUPPORT) // a kernel without IPv6
            return errno;
        throw SystemError("socket", errno);
    }
    return ::bind(socket.get(), list->ai_addr, list->ai_addrlen) == 0 ? 0 : errno;
}

FileTime fileTime(const std::string& path)
{
    struct stat file = {};
    if (::stat(path.c_str(), &file) != 0)
        return {path, std::nullopt};
    return {path, file.st_mtim};
}

/// Nothing where there is no table.
std::optional<std::unordered_map<std::string, std::string>> readGeneratedTable()
{
    const std::string table = mail::postfix::senderTransportTable;
    try {
        return TableReader::readAll(table);
    } catch (const mail::postfix::PostfixConfigurationError&) {
        // "hash:" tables are in files of this name.
        const std::string file = table.substr(table.find(':') + 1) + ".db";
        if (::access(file.c_str(), F_OK) != 0 && errno == ENOENT)
            return std::nullopt;
        throw;
    }
}

/// The queue manager of a master.
struct QueueManager {
    int masterPid;
    int pid = -1;
};

int findQueueManager(process_info* info, void* context)
{
    auto* const wanted = static_cast<QueueManager*>(context);
    if (info->parent_pid != wanted->masterPid || std::strcmp(info->command, "qmgr") != 0)
        return 1;
    wanted->pid = info->pid;
    return 0;
}

/// The queue manager lives from a start or a reload of Postfix to the next one, so its start is when the
/// files were last read.
void gatherProcesses(PostfixFacts& facts)
{
    QueueManager wanted{mail::postfix::ServiceManager::getMasterPid()};
    if (wanted.masterPid != -1)
        (void)iterateProcesses(PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND, findQueueManager, &wanted);
    if (wanted.pid != -1) {
        facts.running = true;
        facts.started = process::startTime(wanted.pid);
    } else if (::geteuid() == 0) { // others may not read master's process id
        facts.running = false;
    }
}

void gatherServices(PostfixFacts& facts)
{
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    for (mail::postfix::ModuleInfo& service : modules.enabledContent().modules()) {
        if (service.type == ModuleType::Unix)
            facts.services.emplace(service.name, service);
    }
    facts.views = PostconfReader::readServices(mail::postfix::generatedPrefix);
}

void gatherEarlierTables(PostfixFacts& facts, const std::vector<Route>& routes)
{
    std::vector<std::string> keys;
    for (const Route& route : routes) {
        if (!route.domain.empty())
            keys.push_back(mail::postfix::recordKey(route.domain));
    }
    const std::string maps = parameterOf(facts, "sender_dependent_default_transport_maps");
    for (const std::string& name : tablesBefore(maps)) {
        EarlierTable table;
        table.name = name;
        try {
            table.results = TableReader::lookUp(name, keys);
            table.known = true;
        } catch (const mail::postfix::PostfixDatabaseError&) {
            table.known = false;
        }
        facts.earlierTables.push_back(std::move(table));
    }
}

} // namespace

HostFacts gatherHost(const std::vector<Route>& routes)
{
    HostFacts facts;
    facts.interfaceAddresses = interfaceAddresses();
    const auto tryOnce = [&facts](Family family, const std::string& text) {
        if (readAddress(family, text).bindable() && facts.bindErrors.count(text) == 0)
            facts.bindErrors[text] = bindError(family, text);
    };
    for (const Route& route : routes) {
        tryOnce(Family::Ip4, route.ip4);
        tryOnce(Family::Ip6, route.ip6);
    }
    return facts;
}

PostfixFacts gatherPostfix(const Request* request)
{
    PostfixFacts facts;
    facts.mainCf = PostconfReader::readParameters(
        {"config_directory", "inet_interfaces", "inet_protocols", "sender_dependent_default_transport_maps",
         mail::postfix::bindAddressParameter, mail::postfix::bindAddress6Parameter,
         "smtp_bind_address_enforce", "smtp_helo_name"});
    facts.records = readGeneratedTable();
    gatherServices(facts);
    const std::vector<Route> routes = request != nullptr ? plannedRoutes(*request) : presentRoutes(facts);
    for (const Route& route : routes) {
        if (ModuleManager::getInstance().hasModule(route.service, ModuleType::Unix, false))
            facts.disabledServices.insert(route.service);
    }
    gatherEarlierTables(facts, routes);
    const std::string directory = parameterOf(facts, "config_directory");
    facts.files = {fileTime(directory + "/main.cf"), fileTime(directory + "/master.cf")};
    gatherProcesses(facts);
    return facts;
}

} // namespace zorvo::check
