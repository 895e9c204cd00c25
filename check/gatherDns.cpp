#include "check/gatherDns.h"

#include "check/SpfEvaluator.h"
#include "check/dns.h"

#include <algorithm>
#include <utility>

namespace zorvo::check {

namespace {

/// The names of an address that are followed; RFC 7208, 5.5 stops there as well.
constexpr size_t mostNames = 10;

/// One address that mail leaves from, and the names that go with it.
struct Sender {
    std::string domain;
    std::string helo;
    Family family;
    std::string address;
};

std::vector<Sender> sendersOf(const std::vector<Route>& routes)
{
    std::vector<Sender> senders;
    for (const Route& route : routes) {
        for (const auto& [family, text] : {std::pair(Family::Ip4, route.ip4), {Family::Ip6, route.ip6}}) {
            const Address address = readAddress(family, text);
            if (address.bindable())
                senders.push_back({route.domain, foldedName(route.helo), family, address.canonical});
        }
    }
    return senders;
}

/// Puts together what is known so far.
class Gatherer {
public:
    explicit Gatherer(Resolver& resolver)
        : resolver_(resolver),
          spf_([&resolver](ns_type type, const std::string& name) { return resolver.find(type, name); })
    {
    }

    /// True once all about `sender` is among the facts; what is missing has been noted for the resolver.
    bool gather(const Sender& sender);

    DnsFacts facts;

private:
    bool _gatherAddresses(Family family, const std::string& name);
    bool _gatherNames(const Sender& sender);
    bool _gatherSpf(const Sender& sender);

    Resolver& resolver_;
    SpfEvaluator spf_;
};

bool Gatherer::_gatherAddresses(Family family, const std::string& name)
{
    if (name.empty() || name.front() == '[')
        return true;
    const DnsAnswer* const answer = resolver_.find(family == Family::Ip4 ? ns_t_a : ns_t_aaaa, name);
    if (answer != nullptr)
        facts.addresses[{family, name}] = *answer;
    return answer != nullptr;
}

bool Gatherer::_gatherNames(const Sender& sender)
{
    const DnsAnswer* const found = resolver_.find(ns_t_ptr, reverseName(sender.family, sender.address));
    if (found == nullptr)
        return false;
    DnsAnswer& names = facts.names[sender.address] = *found;
    names.values.resize(std::min(names.values.size(), mostNames));
    bool isComplete = true;
    for (const std::string& name : names.values)
        isComplete = _gatherAddresses(sender.family, name) && isComplete;
    return isComplete;
}

bool Gatherer::_gatherSpf(const Sender& sender)
{
    if (sender.domain.empty())
        return true;
    const std::optional<SpfVerdict> verdict =
        spf_.evaluate(sender.domain, sender.helo, sender.family, sender.address);
    if (verdict)
        facts.spf[{sender.domain, sender.address}] = *verdict;
    return verdict.has_value();
}

bool Gatherer::gather(const Sender& sender)
{
    const bool hasHelo = _gatherAddresses(sender.family, sender.helo);
    const bool hasNames = _gatherNames(sender);
    const bool hasSpf = _gatherSpf(sender);
    return hasHelo && hasNames && hasSpf;
}

} // namespace

DnsFacts gatherDns(const std::vector<Route>& routes, Resolver::Progress progress)
{
    Resolver resolver(std::move(progress));
    Gatherer gatherer(resolver);
    std::vector<Sender> pending = sendersOf(routes);
    do {
        const auto isDone = [&gatherer](const Sender& sender) { return gatherer.gather(sender); };
        pending.erase(std::remove_if(pending.begin(), pending.end(), isDone), pending.end());
    } while (resolver.resolve());
    return std::move(gatherer.facts);
}

} // namespace zorvo::check
