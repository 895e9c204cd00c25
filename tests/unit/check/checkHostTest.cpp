// What the host and inet_interfaces do to bound addresses, with made-up facts.
#include "check/checkHost.h"

#include "unit/check/CheckTestTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace zorvo::check {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A host with 192.0.2.1/24 and 2001:db8::1, where nothing else can be bound, and a Postfix with its
/// defaults.
class CheckHostTest : public ::testing::Test {
protected:
    CheckHostTest()
    {
        host.interfaceAddresses = {
            {"lo", "127.0.0.1", ""}, {"eth0", "192.0.2.1", "192.0.2.255"}, {"eth0", "2001:db8::1", ""}};
        host.bindErrors = {{"192.0.2.1", 0},
                           {"2001:db8::1", 0},
                           {"192.0.2.255", 0},
                           {"127.0.0.9", 0},
                           {"203.0.113.5", EADDRNOTAVAIL},
                           {"2001:db8::5", EADDRNOTAVAIL}};
        postfix.mainCf = {
            {"inet_protocols", "all"}, {"inet_interfaces", "all"}, {"smtp_bind_address_enforce", "no"}};
    }

    Findings ofDomain(const std::string& ip4, const std::string& ip6)
    {
        return checkHost({{"one.example", "zorvo-x", ip4, ip6, ""}}, host, postfix);
    }
    Findings ofServer(const std::string& ip4, const std::string& ip6)
    {
        return checkHost({{"", "", ip4, ip6, ""}}, host, postfix);
    }

    HostFacts host;
    PostfixFacts postfix;
};

Finding about(Kind kind, std::vector<std::pair<std::string, std::string>> values)
{
    return {kind, "one.example", std::move(values)};
}

Finding aboutServer(Kind kind, std::vector<std::pair<std::string, std::string>> values)
{
    return {kind, "", std::move(values)};
}

} // namespace

TEST_F(CheckHostTest, AddressesOfTheHostHaveNoFindings)
{
    EXPECT_THAT(ofDomain("192.0.2.1", "2001:db8::1"), IsEmpty());
    EXPECT_THAT(ofDomain("192.0.2.1", ""), IsEmpty());
    EXPECT_THAT(ofServer("", "2001:db8::1"), IsEmpty());
    EXPECT_THAT(ofDomain("127.0.0.9", ""), IsEmpty());
}

TEST_F(CheckHostTest, AddressThatCannotBeBoundIsNotOnTheHost)
{
    EXPECT_THAT(ofDomain("203.0.113.5", "2001:db8::5"),
                ElementsAre(about(Kind::AddressNotOnHost,
                                  {{"IPv4", "203.0.113.5"}, {"bind", "Cannot assign requested address"}}),
                            about(Kind::AddressNotOnHost,
                                  {{"IPv6", "2001:db8::5"}, {"bind", "Cannot assign requested address"}})));
}

TEST_F(CheckHostTest, AddressInAnotherSpellingIsTheSameAddress)
{
    host.bindErrors["2001:DB8::1"] = 0;
    host.bindErrors["2001:DB8::5"] = EADDRNOTAVAIL;
    EXPECT_THAT(ofDomain("", "2001:DB8::1"), IsEmpty());
    EXPECT_THAT(ofDomain("", "2001:DB8::5"),
                ElementsAre(about(Kind::AddressNotOnHost,
                                  {{"IPv6", "2001:DB8::5"}, {"bind", "Cannot assign requested address"}})));
}

TEST_F(CheckHostTest, EnforcedBindingKeepsMailInTheQueue)
{
    postfix.mainCf["smtp_bind_address_enforce"] = "yes";
    EXPECT_THAT(ofDomain("203.0.113.5", ""),
                ElementsAre(about(Kind::AddressNotOnHostEnforced,
                                  {{"IPv4", "203.0.113.5"}, {"bind", "Cannot assign requested address"}})));
}

TEST_F(CheckHostTest, AddressThatCanBeBoundWithoutAnInterfaceIsAWarning)
{
    host.bindErrors["203.0.113.5"] = 0;
    EXPECT_THAT(ofDomain("203.0.113.5", ""),
                ElementsAre(about(Kind::AddressNotOnInterface, {{"IPv4", "203.0.113.5"}})));
}

TEST_F(CheckHostTest, BroadcastAddressOfAnInterfaceIsNamedAlthoughItCanBeBound)
{
    EXPECT_THAT(ofDomain("192.0.2.255", ""),
                ElementsAre(about(Kind::AddressBroadcast, {{"IPv4", "192.0.2.255"}})));
}

TEST_F(CheckHostTest, AddressesThatAreFaultyOrUntriedArePassedOver)
{
    EXPECT_THAT(ofDomain("0.0.0.0", "ff02::1"), IsEmpty());
    EXPECT_THAT(ofDomain("nonsense", "192.0.2.1"), IsEmpty());
    EXPECT_THAT(ofDomain("198.51.100.1", ""), IsEmpty());
}

TEST_F(CheckHostTest, DisabledFamilyMattersToPairsAndToTheServer)
{
    postfix.mainCf["inet_protocols"] = "ipv4";
    EXPECT_THAT(ofDomain("192.0.2.1", "2001:db8::1"),
                ElementsAre(about(Kind::FamilyDisabled, {{"IPv6", "2001:db8::1"}})));
    EXPECT_THAT(ofServer("", "2001:db8::1"),
                ElementsAre(aboutServer(Kind::FamilyDisabled, {{"IPv6", "2001:db8::1"}})));
    postfix.mainCf["inet_protocols"] = "ipv6";
    EXPECT_THAT(ofDomain("192.0.2.1", "2001:db8::1"),
                ElementsAre(about(Kind::FamilyDisabled, {{"IPv4", "192.0.2.1"}})));
    postfix.mainCf["inet_protocols"] = "ipv6, ipv4";
    EXPECT_THAT(ofDomain("192.0.2.1", "2001:db8::1"), IsEmpty());
}

TEST_F(CheckHostTest, ServiceOfOneFamilyBringsItsProtocol)
{
    postfix.mainCf["inet_protocols"] = "ipv4";
    EXPECT_THAT(ofDomain("", "2001:db8::1"), IsEmpty());
}

TEST_F(CheckHostTest, InterfacesOfTheOtherFamilyStopAServiceOfOneFamily)
{
    postfix.mainCf["inet_interfaces"] = "192.0.2.1, [::1]";
    EXPECT_THAT(ofDomain("192.0.2.1", ""), ElementsAre(about(Kind::InetInterfacesStopService,
                                                             {{"inet_interfaces", "192.0.2.1, [::1]"}})));
    EXPECT_THAT(ofDomain("", "2001:db8::1"), ElementsAre(about(Kind::InetInterfacesStopService,
                                                               {{"inet_interfaces", "192.0.2.1, [::1]"}})));
    EXPECT_THAT(ofDomain("192.0.2.1", "2001:db8::1"), IsEmpty());
}

TEST_F(CheckHostTest, InterfacesOfTheSameFamilyDoNotMatter)
{
    postfix.mainCf["inet_interfaces"] = "192.0.2.1";
    EXPECT_THAT(ofDomain("192.0.2.1", ""), IsEmpty());
    postfix.mainCf["inet_interfaces"] = "loopback-only";
    EXPECT_THAT(ofDomain("", "2001:db8::1"), IsEmpty());
}

TEST_F(CheckHostTest, SingleInterfaceChoosesTheAddressThatTheServerIsNotGiven)
{
    postfix.mainCf["inet_interfaces"] = "192.0.2.1 [2001:db8::1]";
    EXPECT_THAT(ofServer("192.0.2.1", ""),
                ElementsAre(aboutServer(Kind::InetInterfacesChooseAddress, {{"IPv6", "2001:db8::1"}})));
    EXPECT_THAT(ofServer("192.0.2.1", "2001:db8::1"), IsEmpty());
    postfix.mainCf["inet_interfaces"] = "192.0.2.1 [::1]";
    EXPECT_THAT(ofServer("192.0.2.1", ""), IsEmpty());
    postfix.mainCf["inet_interfaces"] = "192.0.2.1 192.0.2.2";
    EXPECT_THAT(ofServer("", "2001:db8::1"), IsEmpty());
}

} // namespace zorvo::check
