#include "check/dns.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <resolv.h>

#include <boost/algorithm/string/case_conv.hpp>

namespace zorvo::check {

namespace {

template <int Family, size_t Bytes>
std::string addressIn(const ns_rr& record)
{
    if (ns_rr_rdlen(record) != Bytes)
        return "";
    char text[INET6_ADDRSTRLEN];
    return ::inet_ntop(Family, ns_rr_rdata(record), text, sizeof(text));
}

/// The name that begins `offset` bytes into the record; empty if there is none.
std::string nameIn(const ns_msg& message, const ns_rr& record, size_t offset)
{
    char name[NS_MAXDNAME];
    if (ns_rr_rdlen(record) <= offset ||
        ::ns_name_uncompress(ns_msg_base(message), ns_msg_end(message), ns_rr_rdata(record) + offset, name,
                             sizeof(name)) == -1)
        return "";
    return foldedName(name);
}

/// Each piece has its length before it.
std::string textIn(const ns_rr& record)
{
    std::string text;
    const unsigned char* at = ns_rr_rdata(record);
    const unsigned char* const end = at + ns_rr_rdlen(record);
    while (at != end && *at < end - at) {
        text.append(at + 1, at + 1 + *at);
        at += 1 + *at;
    }
    return text;
}

std::string valueIn(const ns_msg& message, const ns_rr& record)
{
    switch (ns_rr_type(record)) {
    case ns_t_a:
        return addressIn<AF_INET, sizeof(in_addr)>(record);
    case ns_t_aaaa:
        return addressIn<AF_INET6, sizeof(in6_addr)>(record);
    case ns_t_ptr:
        return nameIn(message, record, 0);
    case ns_t_mx:
        return nameIn(message, record, sizeof(uint16_t)); // after the preference
    case ns_t_txt:
        return textIn(record);
    default:
        return "";
    }
}

} // namespace

std::string foldedName(const std::string& name)
{
    std::string folded = boost::algorithm::to_lower_copy(name);
    if (!folded.empty() && folded.back() == '.')
        folded.pop_back();
    return folded;
}

std::string reverseName(Family family, const std::string& address)
{
    in6_addr bytes = {}; // large enough for both
    ::inet_pton(family == Family::Ip4 ? AF_INET : AF_INET6, address.c_str(), &bytes);
    std::string name;
    if (family == Family::Ip4) {
        for (int i = 3; i >= 0; --i)
            name += std::to_string(bytes.s6_addr[i]) + '.';
        return name + "in-addr.arpa";
    }
    for (int i = 15; i >= 0; --i) {
        const char* const digits = "0123456789abcdef";
        name += {digits[bytes.s6_addr[i] & 15], '.', digits[bytes.s6_addr[i] >> 4], '.'};
    }
    return name + "ip6.arpa";
}

std::vector<std::string> recordsOf(ns_type type, const unsigned char* message, int size)
{
    std::vector<std::string> values;
    ns_msg parsed;
    if (::ns_initparse(message, size, &parsed) != 0)
        return values;
    for (int i = 0; i < ns_msg_count(parsed, ns_s_an); ++i) {
        ns_rr record;
        if (::ns_parserr(&parsed, ns_s_an, i, &record) != 0)
            break;
        if (ns_rr_type(record) != type || ns_rr_class(record) != ns_c_in)
            continue;
        std::string value = valueIn(parsed, record);
        if (!value.empty())
            values.push_back(std::move(value));
    }
    return values;
}

} // namespace zorvo::check
