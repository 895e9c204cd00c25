#include "check/checkPostfix.h"

#include "check/Address.h"
#include "check/routes.h"
#include "postfix/SenderTransport.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace zorvo::check {

namespace {

using mail::postfix::bindAddress6Parameter;
using mail::postfix::bindAddressParameter;
using mail::postfix::generatedPrefix;
using mail::postfix::ModuleInfo;
using mail::postfix::senderTransportTable;

/// Any type of access to the generated table: trivial-rewrite(8) may go through proxymap(8).
bool isGeneratedTable(const std::string& table)
{
    return table == senderTransportTable || table == std::string("proxy:") + senderTransportTable;
}

bool isLater(const timespec& a, const timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

std::string commandOf(const ModuleInfo& service)
{
    return boost::algorithm::join(service.command, " ");
}

/// The command in a line of postconf -M: what comes after seven columns.
std::string commandOf(const std::string& line)
{
    constexpr int columns = 7;
    size_t begin = 0;
    for (int column = 0; column < columns && begin != std::string::npos; ++column)
        begin = line.find(' ', begin == 0 ? 0 : begin + 1);
    return begin == std::string::npos ? std::string() : line.substr(begin + 1);
}

/// Compares Postfix with what is wanted.
class PostfixCheck {
public:
    explicit PostfixCheck(const PostfixFacts& postfix) : postfix_(postfix) {}

    void checkRunning();
    /// `isNeeded`: whether a domain is bound through the table.
    void checkTable(bool isNeeded);
    void checkEarlierTables(const std::vector<Route>& routes);
    void checkServerPair(const Route& server);
    void checkNoServerPair();
    void checkRecord(const Route& route);
    /// `wantedCommand` is what zorvo-smtp-bind would write; empty: no service of this name.
    void checkService(const Route& route, const std::string& wantedCommand);
    void checkLeftOverRecords(const std::vector<Route>& routes);
    void checkLeftOverServices(const std::vector<Route>& routes);
    void checkEnforce(const std::vector<Route>& routes);

    Findings takeFindings() { return std::move(findings_); }

private:
    void _add(Kind kind, const std::string& domain = "",
              std::vector<std::pair<std::string, std::string>> values = {})
    {
        findings_.push_back({kind, domain, std::move(values)});
    }
    void _checkServerAddress(const std::string& parameter, Family family, const std::string& wanted);
    void _checkView(const Route& route, const ModuleInfo& service);

    const PostfixFacts& postfix_;
    Findings findings_;
};

void PostfixCheck::checkRunning()
{
    if (postfix_.running == false)
        _add(Kind::PostfixNotRunning);
    if (!postfix_.started)
        return;
    for (const FileTime& file : postfix_.files) {
        if (file.changed && isLater(*file.changed, *postfix_.started))
            _add(Kind::PostfixOlderThanFile, "", {{"file", file.path}});
    }
}

void PostfixCheck::checkTable(bool isNeeded)
{
    const std::string maps = parameterOf(postfix_, "sender_dependent_default_transport_maps");
    const std::vector<std::string> tables = tablesOf(maps);
    const bool isNamed = std::any_of(tables.begin(), tables.end(), isGeneratedTable);
    if (isNeeded && !isNamed)
        _add(Kind::TableNotInMainCf, "",
             {{"table", senderTransportTable}, {"sender_dependent_default_transport_maps", maps}});
    if (isNamed && !postfix_.records)
        _add(Kind::TableUnavailable, "", {{"table", senderTransportTable}});
}

void PostfixCheck::checkEarlierTables(const std::vector<Route>& routes)
{
    for (const EarlierTable& table : postfix_.earlierTables) {
        if (!table.known) {
            _add(Kind::EarlierTableNotKnown, "", {{"table", table.name}});
            continue;
        }
        for (const Route& route : routes) {
            const auto result = table.results.find(mail::postfix::recordKey(route.domain));
            if (result != table.results.end())
                _add(Kind::EarlierTableCatchesDomain, route.domain,
                     {{"table", table.name}, {"result", result->second}});
        }
    }
}

void PostfixCheck::_checkServerAddress(const std::string& parameter, Family family, const std::string& wanted)
{
    const std::string present = parameterOf(postfix_, parameter);
    const Address wantedAddress = readAddress(family, wanted);
    const Address presentAddress = readAddress(family, present);
    const bool isSame = present == wanted || (!wantedAddress.canonical.empty() &&
                                              presentAddress.canonical == wantedAddress.canonical);
    if (isSame)
        return;
    if (present.empty())
        _add(Kind::BindAddressMissing, "", {{"asked for", wanted}});
    else
        _add(Kind::BindAddressDiffers, "",
             {{parameter, present}, {"asked for", wanted.empty() ? "none" : wanted}});
}

void PostfixCheck::checkServerPair(const Route& server)
{
    _checkServerAddress(bindAddressParameter, Family::Ip4, server.ip4);
    _checkServerAddress(bindAddress6Parameter, Family::Ip6, server.ip6);
}

void PostfixCheck::checkNoServerPair()
{
    for (const char* const parameter : {bindAddressParameter, bindAddress6Parameter}) {
        const std::string present = parameterOf(postfix_, parameter);
        if (!present.empty())
            _add(Kind::BindAddressBesideDomains, "", {{parameter, present}});
    }
}

void PostfixCheck::checkRecord(const Route& route)
{
    if (!postfix_.records)
        return;
    const std::string wanted = mail::postfix::recordValue(route.service);
    const auto record = postfix_.records->find(mail::postfix::recordKey(route.domain));
    if (record == postfix_.records->end())
        _add(Kind::RecordMissing, route.domain, {{"service", route.service}});
    else if (record->second != wanted)
        _add(Kind::RecordDiffers, route.domain, {{"in the table", record->second}, {"asked for", wanted}});
}

/// Compares the service as zorvo-smtp-bind reads it with what postconf(1) says of it.
void PostfixCheck::_checkView(const Route& route, const ModuleInfo& service)
{
    const auto view = postfix_.views.find(service.name);
    std::string seen;
    if (view != postfix_.views.end()) {
        seen = commandOf(view->second.line);
        const std::map<std::string, std::string>& parameters = view->second.parameters;
        const bool isSameValue =
            std::all_of(parameters.begin(), parameters.end(), [&](const auto& parameter) {
                return parameter.second == optionOf(service, parameter.first);
            });
        if (isSameValue && seen == commandOf(service))
            return;
    }
    _add(Kind::ServiceSeenDifferently, route.domain,
         {{"service", service.name}, {"Postfix", seen}, {"zorvo-smtp-bind", commandOf(service)}});
}

void PostfixCheck::checkService(const Route& route, const std::string& wantedCommand)
{
    const auto service = postfix_.services.find(route.service);
    const bool isDisabled = postfix_.disabledServices.count(route.service) != 0;
    if (service == postfix_.services.end()) {
        _add(isDisabled ? Kind::ServiceDisabled : Kind::ServiceMissing, route.domain,
             {{"service", route.service}});
        return;
    }
    if (isDisabled)
        _add(Kind::ServiceInBothFiles, route.domain, {{"service", route.service}});
    if (!boost::algorithm::starts_with(route.service, generatedPrefix))
        return;
    const std::string command = commandOf(service->second);
    if (command != wantedCommand)
        _add(Kind::ServiceDiffers, route.domain,
             {{"service", route.service},
              {"in master.cf", command},
              {"asked for", wantedCommand.empty() ? "no service of this name" : wantedCommand}});
    _checkView(route, service->second);
}

void PostfixCheck::checkLeftOverRecords(const std::vector<Route>& routes)
{
    if (!postfix_.records)
        return;
    std::unordered_set<std::string> wanted;
    for (const Route& route : routes)
        wanted.insert(mail::postfix::recordKey(route.domain));
    std::map<std::string, std::string> leftOver;
    for (const auto& [key, value] : *postfix_.records) {
        if (wanted.count(key) == 0)
            leftOver.emplace(key, value);
    }
    for (const auto& [key, value] : leftOver)
        _add(Kind::RecordLeftOver, "", {{"record", key}, {"in the table", value}});
}

void PostfixCheck::checkLeftOverServices(const std::vector<Route>& routes)
{
    std::unordered_set<std::string> used;
    for (const Route& route : routes)
        used.insert(route.service);
    if (postfix_.records) {
        for (const auto& record : *postfix_.records)
            used.insert(serviceOfRecord(record.second));
    }
    for (const auto& service : postfix_.services) {
        if (boost::algorithm::starts_with(service.first, generatedPrefix) && used.count(service.first) == 0)
            _add(Kind::ServiceLeftOver, "", {{"service", service.first}});
    }
}

void PostfixCheck::checkEnforce(const std::vector<Route>& routes)
{
    if (!routes.empty() && parameterOf(postfix_, "smtp_bind_address_enforce") == "no")
        _add(Kind::EnforceOff);
}

/// The command that zorvo-smtp-bind would write for the addresses and the HELO name of a present route;
/// empty if it would give the service another name.
std::string commandByName(const Route& route)
{
    const TransportType type = route.helo.empty() ? TransportType::DomainIp : TransportType::DomainName;
    const ModuleInfo service = plannedService(type, {route.helo, route.ip4, route.ip6});
    return service.name == route.service ? commandOf(service) : std::string();
}

} // namespace

std::vector<std::string> tablesOf(const std::string& value)
{
    std::vector<std::string> tables;
    std::string table;
    int depth = 0; // "inline:{ a=b, c=d }" holds separators
    const auto finish = [&] {
        if (!table.empty())
            tables.push_back(std::move(table));
        table.clear();
    };
    for (const char c : value) {
        const bool isSeparator = c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',';
        if (isSeparator && depth == 0) {
            finish();
            continue;
        }
        depth += c == '{' ? 1 : 0;
        depth -= c == '}' ? 1 : 0;
        table += c;
    }
    finish();
    return tables;
}

std::vector<std::string> tablesBefore(const std::string& value)
{
    std::vector<std::string> tables = tablesOf(value);
    tables.erase(std::find_if(tables.begin(), tables.end(), isGeneratedTable), tables.end());
    return tables;
}

Findings checkPostfix(const Request& request, const PostfixFacts& postfix)
{
    PostfixCheck check(postfix);
    const std::vector<Route> routes = plannedRoutes(request);
    check.checkRunning();
    if (request.type == TransportType::ExplicitIp) {
        check.checkTable(false);
        check.checkServerPair(routes.front());
        check.checkLeftOverRecords({});
        check.checkLeftOverServices({});
        check.checkEnforce(routes);
        return check.takeFindings();
    }
    check.checkTable(!routes.empty());
    check.checkEarlierTables(routes);
    check.checkNoServerPair();
    std::unordered_map<std::string, std::string> commands;
    for (const Binding& binding : request.bindings) {
        const ModuleInfo service = plannedService(request.type, binding);
        commands[service.name] = commandOf(service);
    }
    for (const Route& route : routes) {
        check.checkRecord(route);
        check.checkService(route, commands.at(route.service));
    }
    check.checkLeftOverRecords(routes);
    check.checkLeftOverServices(routes);
    check.checkEnforce(routes);
    return check.takeFindings();
}

Findings checkPostfix(const PostfixFacts& postfix)
{
    PostfixCheck check(postfix);
    const std::vector<Route> all = presentRoutes(postfix);
    std::vector<Route> routes;
    std::copy_if(all.begin(), all.end(), std::back_inserter(routes),
                 [](const Route& route) { return !route.domain.empty(); });
    check.checkRunning();
    check.checkTable(!routes.empty());
    if (!routes.empty()) {
        check.checkEarlierTables(routes);
        check.checkNoServerPair();
    }
    for (const Route& route : routes)
        check.checkService(route, commandByName(route));
    check.checkLeftOverServices(routes);
    check.checkEnforce(all);
    return check.takeFindings();
}

} // namespace zorvo::check
