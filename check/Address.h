// Address: the text of a source address, as Postfix reads it and as inet_ntop(3) would write it.
#pragma once

#include <string>

namespace zorvo::check {

enum class Family { Ip4, Ip6 };

/// "IPv4" or "IPv6".
const char* familyName(Family family) noexcept;

/// How a text differs from what inet_ntop(3) writes; the first that applies.
enum class Spelling {
    Canonical,
    WithLineFeed,
    WithBlank,         ///< Blank, tab or carriage return, anywhere.
    InBrackets,        ///< "[2001:db8::1]"
    WithZone,          ///< "fe80::1%eth0"
    InCapitals,        ///< "2001:DB8::1"
    WithLeadingZeroes, ///< IPv4 only: "192.0.2.010", which inet_aton(3) takes as octal.
    Abbreviated,       ///< IPv4 only: "127.1", "0x7f000001".
    Another,           ///< IPv6 only: "2001:0db8::1", "2001:db8:0:0:0:0:0:1".
    OtherFamily,       ///< An address, but of the other family.
    NotAnAddress
};

/// What kind of address it is.
enum class Scope {
    Host, ///< One that a host can send from.
    Unspecified,
    Multicast,
    Broadcast, ///< 255.255.255.255
    Ip4Mapped  ///< ::ffff:192.0.2.1
};

struct Address {
    Spelling spelling = Spelling::NotAnAddress;
    Scope scope = Scope::Host;
    /// The address that Postfix makes of the text, as inet_ntop(3) writes it and without its zone; empty
    /// where there is none: not an address, of the other family, with a blank or a line feed.
    std::string canonical;

    /// Whether Postfix can bind to it in its family, if the host has it.
    bool bindable() const { return !canonical.empty() && scope == Scope::Host; }
};

/// Reads `text` as an address of `family`.
Address readAddress(Family family, const std::string& text);

} // namespace zorvo::check
