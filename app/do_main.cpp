// do_main: see the header. The run flow, readable from top to bottom at the end of this file.
#include "app/do_main.h"

#include "app/transport_info.h"
#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/sj.h"
#include "postfix/MainCfManager.h"
#include "postfix/SenderTransportManager.h"
#include "postfix/ServiceManager.h"
#include "postfix/clean_transports.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/interprocess/anonymous_shared_memory.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/program_options.hpp>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace po = boost::program_options;
using namespace zorvo::mail::postfix;

namespace {

const char* const explicitIp = "explicit-ip";
const char* const domainIp = "domain-ip";
const char* const domainName = "domain-name";

/// The domains of a request with their source addresses, each of which may be empty. They are kept in one
/// text with a NUL behind each string, and in shared memory: fork(2) copies the page table of private memory,
/// once for every tool run, however many domains are held there.
class TransportRequests {
public:
    TransportRequests() = default;

    explicit TransportRequests(const transport_info& info)
    {
        std::string text;
        for (size_t i = 0; i < info.count; ++i) {
            const transport_info_entry& entry = info.entries[i];
            for (const char* const field : {entry.domain, entry.ip4_addr, entry.ip6_addr})
                text.append(field, std::strlen(field) + 1);
        }
        size_ = text.size();
        memory_ = boost::interprocess::anonymous_shared_memory(size_ + 1);
        std::copy(text.begin(), text.end(), static_cast<char*>(memory_.get_address()));
    }

    /// Calls `action(domain, ip4, ip6)` for each domain, in the order of the request.
    template <class Action>
    void forEach(const Action& action) const
    {
        const auto* position = static_cast<const char*>(memory_.get_address());
        const char* const end = position + size_;
        const auto next = [&position] {
            std::string field = position;
            position += field.size() + 1;
            return field;
        };
        while (position != end) {
            const std::string domain = next();
            const std::string ip4 = next();
            const std::string ip6 = next();
            action(domain, ip4, ip6);
        }
    }

private:
    size_t size_ = 0;
    boost::interprocess::mapped_region memory_;
};

/// The server-wide pair of addresses.
struct ExplicitAddresses {
    std::string ip4;
    std::string ip6;
};

po::options_description describeOptions()
{
    po::options_description description("Options");
    description.add_options()("transport-type,t", po::value<std::string>(),
                              "Type of transport. Should be explicit-ip, domain-ip, domain-name")(
        "ip4-addr,4", po::value<std::string>(),
        "IP v4 address")("ip6-addr,6", po::value<std::string>(),
                         "IP v6 address")("help,h", "Show usage message")("verbose,v", "Verbose output");
    return description;
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

std::string readStandardInput()
{
    std::string text;
    std::vector<char> chunk(65536);
    for (;;) {
        const ssize_t size =
            zorvo::retryOnEintr([&] { return ::read(STDIN_FILENO, chunk.data(), chunk.size()); });
        if (size == -1)
            throw zorvo::SystemError("stdin read", errno);
        if (size == 0)
            return text;
        text.append(chunk.data(), static_cast<size_t>(size));
    }
}

TransportRequests parseRequests(std::string& text)
{
    // The parser's messages append errno, which must be one of this reading and not a leftover of start-up.
    errno = 0;
    const std::unique_ptr<sj_parser, void (*)(sj_parser*)> parser(sj_create_parser(text.data(), nullptr),
                                                                  sj_free_parser);
    if (!parser)
        throw std::bad_alloc();
    const auto release = [&parser](transport_info* info) { free_transport_info_object(parser.get(), info); };
    const std::unique_ptr<transport_info, decltype(release)> info(create_transport_info_object(parser.get()),
                                                                  release);
    if (!info)
        throw std::runtime_error("can not create transport_info object");
    if (parse_transport_info_object(parser.get(), info.get()) != 0)
        throw std::runtime_error(std::string("can not parse data from stdin : ") +
                                 sj_parser_strerror(parser.get()));
    return TransportRequests(*info);
}

TransportRequests readRequests()
{
    std::string text = readStandardInput();
    TransportRequests requests = parseRequests(text);
    text = std::string();
    (void)::malloc_trim(0); // what reading took is not to be copied by every fork(2)
    return requests;
}

void bindServer(const ExplicitAddresses& addresses)
{
    MainCfManager& mainCf = MainCfManager::getInstance();
    if (!addresses.ip4.empty())
        mainCf.replaceStringValue("smtp_bind_address", addresses.ip4);
    if (!addresses.ip6.empty())
        mainCf.replaceStringValue("smtp_bind_address6", addresses.ip6);
}

template <class Transport>
void bindDomains(const TransportRequests& requests)
{
    requests.forEach([](const std::string& domain, const std::string& ip4, const std::string& ip6) {
        errno = 0; // a refused domain's message appends it
        SenderTransportManager<Transport> manager(domain, ip4, ip6);
        boost::algorithm::to_lower(manager.domain());
        manager.addDomainToSenderTransport();
    });
}

} // namespace

int do_main(int argc, char* argv[])
{
    const po::options_description description = describeOptions();
    const po::variables_map options = parseCommandLine(argc, argv, description);
    if (options.count("help") != 0) {
        std::clog << description << std::endl;
        return 1;
    }

    // All input is read and judged before anything is changed.
    const std::string type = options["transport-type"].as<std::string>();
    ExplicitAddresses addresses;
    TransportRequests requests;
    if (type == explicitIp)
        addresses = readAddresses(options);
    else
        requests = readRequests();

    clean_transports();

    // Any other type leaves it at that: everything generated is removed.
    if (type == explicitIp)
        bindServer(addresses);
    else if (type == domainIp)
        bindDomains<IpSenderTransport>(requests);
    else if (type == domainName)
        bindDomains<DomainSenderTransport>(requests);

    ServiceManager::restartServer();
    return 0;
}
