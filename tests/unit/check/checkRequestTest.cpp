// Every flaw that a request can have, and what is not a flaw.
#include "check/checkRequest.h"

#include "unit/check/CheckTestTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zorvo::check {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Findings ofDomainIp(std::vector<Binding> bindings)
{
    return checkRequest({TransportType::DomainIp, std::move(bindings), "", ""});
}

Findings ofDomainName(std::vector<Binding> bindings)
{
    return checkRequest({TransportType::DomainName, std::move(bindings), "", ""});
}

Findings ofExplicitIp(const std::string& ip4, const std::string& ip6)
{
    return checkRequest({TransportType::ExplicitIp, {}, ip4, ip6});
}

/// The findings about an address that a domain is to send from.
Findings ofIp4(const std::string& text)
{
    return ofDomainIp({{"one.example", text, ""}});
}

Findings ofIp6(const std::string& text)
{
    return ofDomainIp({{"one.example", "", text}});
}

Finding aboutIp4(Kind kind, const std::string& text)
{
    return {kind, "one.example", {{"IPv4", text}}};
}

Finding aboutIp6(Kind kind, const std::string& text)
{
    return {kind, "one.example", {{"IPv6", text}}};
}

/// The same finding, with the address as which Postfix reads the text.
Finding readAs(Finding finding, const std::string& canonical)
{
    finding.values.emplace_back("read as", canonical);
    return finding;
}

Finding notHostName(const std::string& domain, const std::string& reason)
{
    return {Kind::DomainNotHostName, domain, {{"because of", reason}}};
}

} // namespace

TEST(CheckRequestTest, SoundRequestHasNoFindings)
{
    const std::vector<Binding> bindings = {{"one.example", "192.0.2.1", ""},
                                           {"Two.Example", "", "2001:db8::2"},
                                           {"xn--bcher-kva.example", "192.0.2.3", "2001:db8::3"},
                                           {"one.example", "192.0.2.1", ""}};
    EXPECT_THAT(ofDomainIp(bindings), IsEmpty());
    EXPECT_THAT(ofDomainName(bindings), IsEmpty());
    EXPECT_THAT(ofExplicitIp("192.0.2.1", "2001:db8::1"), IsEmpty());
    EXPECT_THAT(ofDomainIp({}), IsEmpty());
}

TEST(CheckRequestTest, ElementWithoutDomainStopsTheRun)
{
    EXPECT_THAT(ofDomainIp({{"", "192.0.2.1", ""}}),
                ElementsAre(Finding{Kind::DomainEmpty, "", {{"IPv4", "192.0.2.1"}, {"IPv6", ""}}}));
}

TEST(CheckRequestTest, ElementWithoutAddressStopsTheRun)
{
    EXPECT_THAT(ofDomainIp({{"one.example", "", ""}}),
                ElementsAre(Finding{Kind::DomainWithoutAddress, "one.example", {}}));
}

TEST(CheckRequestTest, DomainGivenTwiceWithOtherAddressesIsNamedWithTheLast)
{
    EXPECT_THAT(ofDomainIp({{"one.example", "192.0.2.1", ""},
                            {"two.example", "192.0.2.2", ""},
                            {"One.Example", "192.0.2.3", ""},
                            {"one.example", "192.0.2.3", ""}}),
                ElementsAre(Finding{
                    Kind::DomainGivenTwice, "one.example", {{"last IPv4", "192.0.2.3"}, {"last IPv6", ""}}}));
}

TEST(CheckRequestTest, NonAsciiDomainIsReported)
{
    EXPECT_THAT(ofDomainIp({{"b\xc3\xbc"
                             "cher.example",
                             "192.0.2.1", ""}}),
                ElementsAre(Finding{Kind::DomainNotAscii,
                                    "b\xc3\xbc"
                                    "cher.example",
                                    {}}));
}

TEST(CheckRequestTest, BlankInDomainEndsTheNameInTheTable)
{
    EXPECT_THAT(ofDomainIp({{"one example", "192.0.2.1", ""}}),
                ElementsAre(Finding{Kind::DomainWithBlank, "one example", {}}));
}

TEST(CheckRequestTest, BlankInDomainOfDomainNameBreaksTheServiceAsWell)
{
    EXPECT_THAT(
        ofDomainName({{"one example", "192.0.2.1", ""}}),
        ElementsAre(
            Finding{Kind::DomainWithBlank, "one example", {}},
            Finding{Kind::ServiceNotReadable, "one example", {{"service", "zorvo-one example-192.0.2.1-"}}}));
}

TEST(CheckRequestTest, LineFeedInDomainIsNamedOnce)
{
    const std::string domain = "one.example\nevil";
    EXPECT_THAT(ofDomainName({{domain, "192.0.2.1", ""}}),
                ElementsAre(Finding{Kind::DomainWithLineFeed, domain, {}}));
}

TEST(CheckRequestTest, DomainThatIsNotAHostNameIsReported)
{
    const std::string label(63, 'a');
    const std::string longest = label + "." + label + "." + label + "." + std::string(61, 'a');
    EXPECT_THAT(ofDomainIp({{longest, "192.0.2.1", ""}}), IsEmpty());
    const std::vector<std::pair<std::string, std::string>> flaws = {
        {longest + "a", "more than 253 characters"},
        {label + "a.example", "a label of more than 63 characters"},
        {".example", "an empty label"},
        {"one..example", "an empty label"},
        {"one.example.", "an empty label"},
        {"-one.example", "a hyphen at the end of a label"},
        {"one-.example", "a hyphen at the end of a label"},
        {"my_one.example", "the character '_'"},
        {"one@example", "the character '@'"},
        {"one\x1b.example", "the character '\x1b'"}};
    for (const auto& [domain, reason] : flaws)
        EXPECT_THAT(ofDomainIp({{domain, "192.0.2.1", ""}}), ElementsAre(notHostName(domain, reason)));
}

TEST(CheckRequestTest, NameThatTheNextRunCannotReadIsNamed)
{
    EXPECT_THAT(
        ofDomainName({{"one/two", "192.0.2.1", ""}}),
        ElementsAre(notHostName("one/two", "the character '/'"),
                    Finding{Kind::ServiceNotReadable, "one/two", {{"service", "zorvo-one/two-192.0.2.1-"}}}));
    EXPECT_THAT(
        ofIp4("192.0.2.1,192.0.2.2"),
        ElementsAre(
            aboutIp4(Kind::AddressNotAnAddress, "192.0.2.1,192.0.2.2"),
            Finding{Kind::ServiceNotReadable, "one.example", {{"service", "zorvo-192.0.2.1,192.0.2.2-"}}}));
}

TEST(CheckRequestTest, ServiceNameOfMoreThan99BytesStopsPostfix)
{
    // "zorvo-", the domain, "-", "192.0.2.1" and "-" are 99 bytes.
    const std::string domain = std::string(60, 'a') + "." + std::string(21, 'b');
    EXPECT_THAT(ofDomainName({{domain, "192.0.2.1", ""}}), IsEmpty());
    EXPECT_THAT(ofDomainName({{domain + "c", "192.0.2.1", ""}}),
                ElementsAre(Finding{Kind::ServiceNameTooLong,
                                    domain + "c",
                                    {{"service", "zorvo-" + domain + "c-192.0.2.1-"}, {"bytes", "100"}}}));
    EXPECT_THAT(ofDomainIp({{domain + "c", "192.0.2.1", ""}}), IsEmpty());
}

TEST(CheckRequestTest, EachUnusualSpellingOfAnAddressHasItsFinding)
{
    EXPECT_THAT(ofIp4("192.0.2.1\n"), ElementsAre(aboutIp4(Kind::AddressWithLineFeed, "192.0.2.1\n")));
    EXPECT_THAT(ofIp4("192.0.2.1 "), ElementsAre(aboutIp4(Kind::AddressWithBlank, "192.0.2.1 ")));
    EXPECT_THAT(ofIp6("[2001:db8::1]"),
                ElementsAre(readAs(aboutIp6(Kind::AddressInBrackets, "[2001:db8::1]"), "2001:db8::1")));
    EXPECT_THAT(ofIp6("fe80::1%eth0"),
                ElementsAre(readAs(aboutIp6(Kind::AddressWithZone, "fe80::1%eth0"), "fe80::1")));
    EXPECT_THAT(ofIp6("2001:DB8::1"),
                ElementsAre(readAs(aboutIp6(Kind::AddressInCapitals, "2001:DB8::1"), "2001:db8::1")));
    EXPECT_THAT(ofIp4("192.0.2.010"),
                ElementsAre(readAs(aboutIp4(Kind::AddressWithLeadingZeroes, "192.0.2.010"), "192.0.2.8")));
    EXPECT_THAT(ofIp4("127.1"),
                ElementsAre(readAs(aboutIp4(Kind::AddressAbbreviated, "127.1"), "127.0.0.1")));
    EXPECT_THAT(ofIp6("2001:0db8::1"),
                ElementsAre(readAs(aboutIp6(Kind::AddressNotCanonical, "2001:0db8::1"), "2001:db8::1")));
    EXPECT_THAT(ofIp4("2001:db8::1"), ElementsAre(aboutIp4(Kind::AddressOfOtherFamily, "2001:db8::1")));
    EXPECT_THAT(ofIp6("192.0.2.1"), ElementsAre(aboutIp6(Kind::AddressOfOtherFamily, "192.0.2.1")));
    EXPECT_THAT(ofIp4("one.example"), ElementsAre(aboutIp4(Kind::AddressNotAnAddress, "one.example")));
}

TEST(CheckRequestTest, AddressesThatNoMailCanLeaveFromAreReported)
{
    EXPECT_THAT(ofIp4("0.0.0.0"), ElementsAre(aboutIp4(Kind::AddressUnspecified, "0.0.0.0")));
    EXPECT_THAT(ofIp6("::"), ElementsAre(aboutIp6(Kind::AddressUnspecified, "::")));
    EXPECT_THAT(ofIp4("224.0.0.1"), ElementsAre(aboutIp4(Kind::AddressMulticast, "224.0.0.1")));
    EXPECT_THAT(ofIp6("ff02::1"), ElementsAre(aboutIp6(Kind::AddressMulticast, "ff02::1")));
    EXPECT_THAT(ofIp4("255.255.255.255"), ElementsAre(aboutIp4(Kind::AddressBroadcast, "255.255.255.255")));
    EXPECT_THAT(ofIp6("::ffff:192.0.2.1"), ElementsAre(aboutIp6(Kind::AddressIp4Mapped, "::ffff:192.0.2.1")));
}

TEST(CheckRequestTest, BothAddressesOfADomainAreChecked)
{
    EXPECT_THAT(
        ofDomainIp({{"one.example", "0.0.0.0", "::"}}),
        ElementsAre(aboutIp4(Kind::AddressUnspecified, "0.0.0.0"), aboutIp6(Kind::AddressUnspecified, "::")));
}

TEST(CheckRequestTest, ExplicitAddressIsReportedAsPostfixReadsItInMainCf)
{
    const auto about = [](Kind kind, const std::string& family, const std::string& text) {
        return Finding{kind, "", {{family, text}}};
    };
    EXPECT_THAT(ofExplicitIp(" 192.0.2.1 ", ""), IsEmpty());
    EXPECT_THAT(ofExplicitIp("", "fe80::1%eth0"), IsEmpty());
    EXPECT_THAT(ofExplicitIp("192.0.2.1\n", ""),
                ElementsAre(about(Kind::ParameterWithLineFeed, "IPv4", "192.0.2.1\n")));
    EXPECT_THAT(ofExplicitIp("192.0.2.1 192.0.2.2", ""),
                ElementsAre(about(Kind::AddressNotAnAddress, "IPv4", "192.0.2.1 192.0.2.2")));
    EXPECT_THAT(ofExplicitIp("[192.0.2.1]", "2001:DB8::1"),
                ElementsAre(readAs(about(Kind::AddressNotCanonical, "IPv4", "[192.0.2.1]"), "192.0.2.1"),
                            readAs(about(Kind::AddressNotCanonical, "IPv6", "2001:DB8::1"), "2001:db8::1")));
    EXPECT_THAT(ofExplicitIp("2001:db8::1", ""),
                ElementsAre(about(Kind::AddressOfOtherFamily, "IPv4", "2001:db8::1")));
    EXPECT_THAT(ofExplicitIp("0.0.0.0", ""), ElementsAre(about(Kind::AddressUnspecified, "IPv4", "0.0.0.0")));
}

} // namespace zorvo::check
