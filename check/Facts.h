// Facts: what was gathered for the checks, as plain data. No I/O and no judgement.
#pragma once

#include "app/request.h"
#include "check/Address.h"
#include "postfix/ModuleInfo.h"
#include "postfix/PostconfReader.h"

#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zorvo::check {

enum class TransportType { ExplicitIp, DomainIp, DomainName };

/// What zorvo-smtp-bind was, or is to be, asked for.
struct Request {
    TransportType type = TransportType::DomainIp;
    std::vector<Binding> bindings; ///< Of the two domain types.
    std::string ip4;               ///< Of explicit-ip, as ip6.
    std::string ip6;
};

/// One row of the report: a domain, or the whole server, and how its mail leaves.
struct Route {
    std::string domain; ///< In lower case; empty: the whole server.
    std::string service;
    std::string ip4;
    std::string ip6;
    std::string helo; ///< Empty: Postfix's own.
};

/// One address of an interface, as getifaddrs(3) gives it.
struct InterfaceAddress {
    std::string interface;
    std::string address;   ///< As inet_ntop(3) writes it.
    std::string broadcast; ///< In the same form; empty without one.
};

struct HostFacts {
    std::vector<InterfaceAddress> interfaceAddresses;
    /// By address as it is written in a route: errno of a bind(2) to it, 0 if that succeeded.
    std::unordered_map<std::string, int> bindErrors;
};

/// A table that is searched before the generated one.
struct EarlierTable {
    std::string name;
    bool known = false;                                   ///< Whether it could be asked.
    std::unordered_map<std::string, std::string> results; ///< By the key asked for, "@" and the domain.
};

/// When a file was changed last.
struct FileTime {
    std::string path;
    std::optional<timespec> changed; ///< Nothing: it is not there, or cannot be looked at.
};

struct PostfixFacts {
    std::map<std::string, std::string> mainCf; ///< Values by name; without those that Postfix does not know.
    std::vector<EarlierTable> earlierTables;
    std::optional<std::unordered_map<std::string, std::string>> records; ///< Nothing: no table to read.
    std::map<std::string, mail::postfix::ModuleInfo> services; ///< Unix services of master.cf by name.
    std::unordered_map<std::string, mail::postfix::ServiceView> views; ///< Generated services by name.
    std::set<std::string> disabledServices;
    std::optional<bool> running;     ///< Nothing: not known, for lack of rights.
    std::optional<timespec> started; ///< When Postfix read its files last; nothing: not known.
    std::vector<FileTime> files;
};

/// What the DNS, or /etc/hosts before it, answered to one question.
struct DnsAnswer {
    enum class State {
        Found,
        NotThere, ///< The name does not exist, or has no record of this type.
        NotKnown  ///< No server, no answer in time, or a server that did not know.
    };
    State state = State::NotKnown;
    std::vector<std::string> values;     ///< The records; written by strangers.
    bool fromHostsFile = false;          ///< Found in /etc/hosts, which receivers do not read.
    std::chrono::milliseconds waited{0}; ///< How long it took.
};

enum class SpfResult { Pass, Fail, Softfail, Neutral, None, Temperror, Permerror };

/// What receivers make of a domain's mail from one address (RFC 7208, 2.6).
struct SpfVerdict {
    SpfResult result = SpfResult::Temperror;
    std::string reason; ///< Of Permerror; with text that strangers wrote.
};

/// Addresses are written as inet_ntop(3) does, names in lower case.
struct DnsFacts {
    std::map<std::string, DnsAnswer> names;                        ///< Of an address, by PTR records.
    std::map<std::pair<Family, std::string>, DnsAnswer> addresses; ///< Of a name, in one family.
    std::map<std::pair<std::string, std::string>, SpfVerdict> spf; ///< By domain and address.
};

} // namespace zorvo::check
