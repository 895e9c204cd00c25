#include "app/do_main.h"

#include "app/request.h"
#include "common/MKLock.h"
#include "common/writeText.h"
#include "postfix/MainCfManager.h"
#include "postfix/SenderTransport.h"
#include "postfix/SenderTransportManager.h"
#include "postfix/ServiceManager.h"
#include "postfix/clean_transports.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/program_options.hpp>

#include <cerrno>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace po = boost::program_options;
using namespace zorvo::mail::postfix;

namespace {

const char* const explicitIp = "explicit-ip";
const char* const domainIp = "domain-ip";
const char* const domainName = "domain-name";

/// The name of the lock that a run holds from its first change to its end. No file is changed under a lock of
/// this name.
const char* const runLockName = "/var/spool/postfix/zorvo";

/// The server-wide pair of addresses.
struct ExplicitAddresses {
    std::string ip4;
    std::string ip6;
};

po::options_description describeOptions()
{
    po::options_description description("Options");
    po::options_description_easy_init add = description.add_options();
    add("transport-type,t", po::value<std::string>(),
        "Type of transport. Should be explicit-ip, domain-ip, domain-name");
    add("ip4-addr,4", po::value<std::string>(), "IP v4 address");
    add("ip6-addr,6", po::value<std::string>(), "IP v6 address");
    add("help,h", "Show usage message");
    add("verbose,v", "Verbose output");
    return description;
}

void printHelp(const po::options_description& description)
{
    std::ostringstream text;
    text << description << '\n';
    zorvo::writeText(std::clog, {text.str()});
}

po::variables_map parseCommandLine(int argc, char* argv[], const po::options_description& description)
{
    po::variables_map options;
    po::store(po::parse_command_line(argc, argv, description), options);
    po::notify(options);
    return options;
}

std::string optionalValue(const po::variables_map& options, const char* name)
{
    return options.count(name) != 0 ? options[name].as<std::string>() : std::string();
}

ExplicitAddresses readAddresses(const po::variables_map& options)
{
    ExplicitAddresses addresses{optionalValue(options, "ip4-addr"), optionalValue(options, "ip6-addr")};
    if (addresses.ip4.empty() && addresses.ip6.empty())
        throw std::runtime_error("either ipv4 and ip6 empty");
    return addresses;
}

/// Waits, without limit, until no other run is in progress; others wait while the result lives. Takes the
/// lock of main.cf for a moment before: if no lock can be taken, the failure of the first change's lock is
/// the one to report.
zorvo::MKLock lockRuns(const std::string& mainCfPath)
{
    {
        const zorvo::MKLock firstChange(mainCfPath, zorvo::HashedName, zorvo::Blocking);
    }
    return zorvo::MKLock(runLockName, zorvo::HashedName, zorvo::Blocking);
}

void bindServer(const ExplicitAddresses& addresses)
{
    MainCfManager& mainCf = MainCfManager::getInstance();
    if (!addresses.ip4.empty())
        mainCf.replaceStringValue(bindAddressParameter, addresses.ip4);
    if (!addresses.ip6.empty())
        mainCf.replaceStringValue(bindAddress6Parameter, addresses.ip6);
}

template <class Transport>
void bindDomains(const std::vector<Binding>& bindings)
{
    for (const Binding& binding : bindings) {
        errno = 0; // a refused domain's message appends it
        SenderTransportManager<Transport> manager(binding.domain, binding.ip4, binding.ip6);
        boost::algorithm::to_lower(manager.domain());
        manager.addDomainToSenderTransport();
    }
}

} // namespace

int do_main(int argc, char* argv[])
{
    const po::options_description description = describeOptions();
    const po::variables_map options = parseCommandLine(argc, argv, description);
    if (options.count("help") != 0) {
        printHelp(description);
        return 1;
    }

    // All input is read and checked before anything is changed.
    const std::string type = options["transport-type"].as<std::string>();
    ExplicitAddresses addresses;
    std::vector<Binding> bindings;
    if (type == explicitIp)
        addresses = readAddresses(options);
    else
        bindings = readRequest();

    // Postfix is asked where its configuration is before this run waits for another one.
    const std::string& mainCfPath = MainCfManager::getInstance().mainCfPath();
    const zorvo::MKLock otherRunsWait = lockRuns(mainCfPath);

    clean_transports();

    // Any other type only removes everything that was generated.
    if (type == explicitIp)
        bindServer(addresses);
    else if (type == domainIp)
        bindDomains<IpSenderTransport>(bindings);
    else if (type == domainName)
        bindDomains<DomainSenderTransport>(bindings);

    ServiceManager::restartServer();
    return 0;
}
