#include "check/Address.h"

#include <arpa/inet.h>

#include <netinet/in.h>

#include <algorithm>
#include <cctype>

namespace zorvo::check {

namespace {

bool isIp4(const std::string& text)
{
    in_addr bytes = {};
    return ::inet_pton(AF_INET, text.c_str(), &bytes) == 1;
}

bool isIp6(const std::string& text)
{
    in6_addr bytes = {};
    return ::inet_pton(AF_INET6, text.c_str(), &bytes) == 1;
}

/// Whether a part between dots begins with a zero that is not its only digit. "0x7f" does not count.
bool hasLeadingZero(const std::string& text)
{
    for (std::string::size_type at = 0; at + 1 < text.size(); ++at) {
        const bool partBegins = at == 0 || text[at - 1] == '.';
        if (partBegins && text[at] == '0' && std::isdigit(static_cast<unsigned char>(text[at + 1])) != 0)
            return true;
    }
    return false;
}

/// Postfix takes addresses as getaddrinfo(3) does, which for IPv4 means inet_aton(3).
Address readIp4(const std::string& text)
{
    in_addr bytes = {};
    Address address;
    if (::inet_aton(text.c_str(), &bytes) == 0)
        return address;
    char canonical[INET_ADDRSTRLEN];
    address.canonical = ::inet_ntop(AF_INET, &bytes, canonical, sizeof(canonical));
    if (address.canonical == text)
        address.spelling = Spelling::Canonical;
    else
        address.spelling = hasLeadingZero(text) ? Spelling::WithLeadingZeroes : Spelling::Abbreviated;
    const in_addr_t number = ntohl(bytes.s_addr);
    if (number == INADDR_ANY)
        address.scope = Scope::Unspecified;
    else if (number == INADDR_BROADCAST)
        address.scope = Scope::Broadcast;
    else if (IN_MULTICAST(number))
        address.scope = Scope::Multicast;
    return address;
}

Address readIp6(const std::string& text)
{
    in6_addr bytes = {};
    Address address;
    if (::inet_pton(AF_INET6, text.c_str(), &bytes) != 1)
        return address;
    char canonical[INET6_ADDRSTRLEN];
    address.canonical = ::inet_ntop(AF_INET6, &bytes, canonical, sizeof(canonical));
    if (address.canonical == text)
        address.spelling = Spelling::Canonical;
    else if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return std::isupper(c) != 0; }))
        address.spelling = Spelling::InCapitals;
    else
        address.spelling = Spelling::Another;
    if (IN6_IS_ADDR_UNSPECIFIED(&bytes))
        address.scope = Scope::Unspecified;
    else if (IN6_IS_ADDR_MULTICAST(&bytes))
        address.scope = Scope::Multicast;
    else if (IN6_IS_ADDR_V4MAPPED(&bytes))
        address.scope = Scope::Ip4Mapped;
    return address;
}

Address readPlain(Family family, const std::string& text)
{
    Address address = family == Family::Ip4 ? readIp4(text) : readIp6(text);
    if (address.spelling == Spelling::NotAnAddress && (family == Family::Ip4 ? isIp6(text) : isIp4(text)))
        address.spelling = Spelling::OtherFamily;
    return address;
}

/// The address within `text`, which has `spelling` besides; NotAnAddress and OtherFamily stay what they are.
Address readWithin(Family family, const std::string& text, Spelling spelling)
{
    Address address = readAddress(family, text);
    if (!address.canonical.empty())
        address.spelling = spelling;
    return address;
}

} // namespace

const char* familyName(Family family) noexcept
{
    return family == Family::Ip4 ? "IPv4" : "IPv6";
}

Address readAddress(Family family, const std::string& text)
{
    Address address;
    if (text.find('\n') != std::string::npos) {
        address.spelling = Spelling::WithLineFeed;
        return address;
    }
    if (text.find_first_of(" \t\r") != std::string::npos) {
        address.spelling = Spelling::WithBlank;
        return address;
    }
    if (text.size() > 2 && text.front() == '[' && text.back() == ']')
        return readWithin(family, text.substr(1, text.size() - 2), Spelling::InBrackets);
    const std::string::size_type zone = text.find('%');
    if (family == Family::Ip6 && zone != std::string::npos)
        return readWithin(family, text.substr(0, zone), Spelling::WithZone);
    return readPlain(family, text);
}

} // namespace zorvo::check
