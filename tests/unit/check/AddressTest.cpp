// How Postfix reads the text of an address, and how the text is spelled.
#include "check/Address.h"

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>

namespace zorvo::check {

namespace {

void expectAddress(Family family, const std::string& text, Spelling spelling, Scope scope,
                   const std::string& canonical)
{
    const Address address = readAddress(family, text);
    EXPECT_EQ(address.spelling, spelling) << text;
    EXPECT_EQ(address.scope, scope) << text;
    EXPECT_EQ(address.canonical, canonical) << text;
}

} // namespace

TEST(ReadAddressTest, AddressesAsTheSystemWritesThemAreCanonical)
{
    expectAddress(Family::Ip4, "192.0.2.1", Spelling::Canonical, Scope::Host, "192.0.2.1");
    expectAddress(Family::Ip6, "2001:db8::1", Spelling::Canonical, Scope::Host, "2001:db8::1");
}

TEST(ReadAddressTest, LineFeedAndBlankLeaveNoAddress)
{
    expectAddress(Family::Ip4, "192.0.2.1\n", Spelling::WithLineFeed, Scope::Host, "");
    expectAddress(Family::Ip4, " 192.0.2.1\n", Spelling::WithLineFeed, Scope::Host, "");
    expectAddress(Family::Ip4, "192.0.2.1 ", Spelling::WithBlank, Scope::Host, "");
    expectAddress(Family::Ip6, "\t2001:db8::1", Spelling::WithBlank, Scope::Host, "");
    expectAddress(Family::Ip6, "2001:db8::1\r", Spelling::WithBlank, Scope::Host, "");
}

TEST(ReadAddressTest, BracketsAreTakenOff)
{
    expectAddress(Family::Ip6, "[2001:db8::1]", Spelling::InBrackets, Scope::Host, "2001:db8::1");
    expectAddress(Family::Ip4, "[192.0.2.1]", Spelling::InBrackets, Scope::Host, "192.0.2.1");
    expectAddress(Family::Ip6, "[192.0.2.1]", Spelling::OtherFamily, Scope::Host, "");
    expectAddress(Family::Ip6, "[]", Spelling::NotAnAddress, Scope::Host, "");
}

TEST(ReadAddressTest, ZoneIsTakenOff)
{
    expectAddress(Family::Ip6, "fe80::1%eth0", Spelling::WithZone, Scope::Host, "fe80::1");
    expectAddress(Family::Ip6, "nothing%eth0", Spelling::NotAnAddress, Scope::Host, "");
    expectAddress(Family::Ip4, "192.0.2.1%eth0", Spelling::NotAnAddress, Scope::Host, "");
}

TEST(ReadAddressTest, Ip6InOtherSpellingsIsReadAll)
{
    expectAddress(Family::Ip6, "2001:DB8::1", Spelling::InCapitals, Scope::Host, "2001:db8::1");
    expectAddress(Family::Ip6, "2001:0db8::1", Spelling::Another, Scope::Host, "2001:db8::1");
    expectAddress(Family::Ip6, "2001:db8:0:0:0:0:0:1", Spelling::Another, Scope::Host, "2001:db8::1");
}

TEST(ReadAddressTest, Ip4IsReadAsInetAtonDoes)
{
    expectAddress(Family::Ip4, "192.0.2.010", Spelling::WithLeadingZeroes, Scope::Host, "192.0.2.8");
    expectAddress(Family::Ip4, "0300.0.2.1", Spelling::WithLeadingZeroes, Scope::Host, "192.0.2.1");
    expectAddress(Family::Ip4, "127.1", Spelling::Abbreviated, Scope::Host, "127.0.0.1");
    expectAddress(Family::Ip4, "0x7f.0.0.1", Spelling::Abbreviated, Scope::Host, "127.0.0.1");
    expectAddress(Family::Ip4, "192.0.2.08", Spelling::NotAnAddress, Scope::Host, "");
}

TEST(ReadAddressTest, AddressOfTheOtherFamilyIsRecognised)
{
    expectAddress(Family::Ip4, "2001:db8::1", Spelling::OtherFamily, Scope::Host, "");
    expectAddress(Family::Ip6, "192.0.2.1", Spelling::OtherFamily, Scope::Host, "");
}

TEST(ReadAddressTest, AnythingElseIsNotAnAddress)
{
    expectAddress(Family::Ip4, "", Spelling::NotAnAddress, Scope::Host, "");
    expectAddress(Family::Ip4, "mail.example", Spelling::NotAnAddress, Scope::Host, "");
    expectAddress(Family::Ip4, "192.0.2.1,192.0.2.2", Spelling::NotAnAddress, Scope::Host, "");
    expectAddress(Family::Ip6, "IPv6:2001:db8::1", Spelling::NotAnAddress, Scope::Host, "");
}

TEST(ReadAddressTest, AddressesThatNoHostSendsFromAreRecognised)
{
    expectAddress(Family::Ip4, "0.0.0.0", Spelling::Canonical, Scope::Unspecified, "0.0.0.0");
    expectAddress(Family::Ip6, "::", Spelling::Canonical, Scope::Unspecified, "::");
    expectAddress(Family::Ip4, "224.0.0.1", Spelling::Canonical, Scope::Multicast, "224.0.0.1");
    expectAddress(Family::Ip4, "239.255.255.255", Spelling::Canonical, Scope::Multicast, "239.255.255.255");
    expectAddress(Family::Ip4, "240.0.0.1", Spelling::Canonical, Scope::Host, "240.0.0.1");
    expectAddress(Family::Ip6, "ff02::1", Spelling::Canonical, Scope::Multicast, "ff02::1");
    expectAddress(Family::Ip4, "255.255.255.255", Spelling::Canonical, Scope::Broadcast, "255.255.255.255");
    expectAddress(Family::Ip6, "::ffff:192.0.2.1", Spelling::Canonical, Scope::Ip4Mapped, "::ffff:192.0.2.1");
}

TEST(ReadAddressTest, OnlyAddressesOfAHostCanBeBound)
{
    EXPECT_TRUE(readAddress(Family::Ip4, "192.0.2.1").bindable());
    EXPECT_TRUE(readAddress(Family::Ip6, "2001:DB8::1").bindable());
    EXPECT_FALSE(readAddress(Family::Ip4, "0.0.0.0").bindable());
    EXPECT_FALSE(readAddress(Family::Ip4, "2001:db8::1").bindable());
}

} // namespace zorvo::check
