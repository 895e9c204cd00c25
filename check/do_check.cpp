#include "check/do_check.h"

#include "app/request.h"
#include "check/ProgressLine.h"
#include "check/checkDns.h"
#include "check/checkHost.h"
#include "check/checkPostfix.h"
#include "check/checkRequest.h"
#include "check/gather.h"
#include "check/gatherDns.h"
#include "check/privileges.h"
#include "check/report.h"
#include "check/routes.h"

#include <boost/program_options.hpp>

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace po = boost::program_options;

namespace zorvo::check {

namespace {

po::options_description describeOptions()
{
    po::options_description description("Options");
    auto add = description.add_options();
    add("transport-type,t", po::value<std::string>(),
        "Hold the host against a request of this type: explicit-ip, domain-ip or domain-name");
    add("ip4-addr,4", po::value<std::string>()->default_value("", ""), "IPv4 address, for explicit-ip");
    add("ip6-addr,6", po::value<std::string>()->default_value("", ""), "IPv6 address, for explicit-ip");
    add("request-only", "Look at the request alone");
    add("dns", "Look as well whether the DNS lets receivers believe the addresses and names");
    add("json", "Print a JSON document");
    add("help,h", "Show this text");
    return description;
}

po::variables_map parseCommandLine(int argc, char* argv[], const po::options_description& description)
{
    po::variables_map options;
    const po::positional_options_description noWords;
    po::store(po::command_line_parser(argc, argv).options(description).positional(noWords).run(), options);
    po::notify(options);
    return options;
}

TransportType typeOf(const std::string& name)
{
    if (name == "explicit-ip")
        return TransportType::ExplicitIp;
    if (name == "domain-ip")
        return TransportType::DomainIp;
    if (name == "domain-name")
        return TransportType::DomainName;
    throw std::runtime_error("unknown transport type: " + escaped(name));
}

/// The request that the options and standard input make; nothing without a type.
std::optional<Request> requestOf(const po::variables_map& options)
{
    if (options.count("transport-type") == 0) {
        if (options.count("request-only") != 0)
            throw std::runtime_error("--request-only needs --transport-type");
        return std::nullopt;
    }
    Request request;
    request.type = typeOf(options["transport-type"].as<std::string>());
    if (request.type != TransportType::ExplicitIp) {
        request.bindings = readRequest();
        return request;
    }
    request.ip4 = options["ip4-addr"].as<std::string>();
    request.ip6 = options["ip6-addr"].as<std::string>();
    if (request.ip4.empty() && request.ip6.empty())
        throw std::runtime_error("either ipv4 and ip6 empty");
    return request;
}

/// What is bound, as if it had been requested, so that its addresses and names are checked in the same way.
Findings checkAddresses(const std::vector<Route>& routes)
{
    Findings findings;
    Request domains;
    for (const Route& route : routes) {
        if (route.domain.empty())
            findings = checkRequest({TransportType::ExplicitIp, {}, route.ip4, route.ip6});
        else if (!route.ip4.empty() || !route.ip6.empty())
            domains.bindings.push_back({route.domain, route.ip4, route.ip6});
    }
    Findings ofDomains = checkRequest(domains);
    std::move(ofDomains.begin(), ofDomains.end(), std::back_inserter(findings));
    return findings;
}

/// The report on the host, compared with `request` if there is one.
Report reportOnHost(const std::optional<Request>& request)
{
    const PostfixFacts postfix = gatherPostfix(request ? &*request : nullptr);
    Report report;
    report.routes = request ? plannedRoutes(*request) : presentRoutes(postfix);
    const HostFacts host = gatherHost(report.routes);

    report.findings = request ? checkRequest(*request) : checkAddresses(report.routes);
    for (Findings more : {checkHost(report.routes, host, postfix),
                          request ? checkPostfix(*request, postfix) : checkPostfix(postfix)})
        std::move(more.begin(), more.end(), std::back_inserter(report.findings));

    const std::string ownName = parameterOf(postfix, "smtp_helo_name");
    for (Route& route : report.routes) {
        if (route.helo.empty())
            route.helo = ownName;
    }
    return report;
}

/// Adds what receivers find in the DNS. From here on the process reads data from strangers, and is not root
/// any more.
void addDns(Report& report)
{
    giveUpPrivileges();
    ProgressLine line(std::cerr);
    Resolver::Progress progress;
    if (::isatty(STDERR_FILENO) == 1)
        progress = [&line](size_t answered, size_t asked, auto elapsed) {
            line.show(answered, asked, elapsed);
        };
    Findings more = checkDns(report.routes, gatherDns(report.routes, progress));
    std::move(more.begin(), more.end(), std::back_inserter(report.findings));
}

void requireWritten()
{
    if (!std::cout.flush())
        throw std::runtime_error("cannot write to standard output");
}

/// Whether standard output is a terminal that shows colours, and the user wants them (no-color.org).
bool wantsColour()
{
    const char* const terminal = std::getenv("TERM");
    const char* const noColour = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
           std::string_view(terminal) != "dumb" && (noColour == nullptr || *noColour == '\0');
}

} // namespace

} // namespace zorvo::check

int do_check(int argc, char* argv[])
{
    using namespace zorvo::check;
    const po::options_description description = describeOptions();
    const po::variables_map options = parseCommandLine(argc, argv, description);
    if (options.count("help") != 0) {
        std::cout << description;
        requireWritten();
        return 0;
    }
    const std::optional<Request> request = requestOf(options);
    Report report = options.count("request-only") != 0
                        ? Report{plannedRoutes(*request), checkRequest(*request)}
                        : reportOnHost(request);
    if (options.count("dns") != 0)
        addDns(report);
    if (options.count("json") != 0)
        writeJson(std::cout, report);
    else
        writeTable(std::cout, report, wantsColour());
    requireWritten();
    return exitStatus(report.findings);
}
