// What receivers conclude from the DNS, with made-up facts.
#include "check/checkDns.h"

#include "unit/check/CheckTestTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zorvo::check {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using State = DnsAnswer::State;

DnsAnswer found(std::vector<std::string> values)
{
    return {State::Found, std::move(values), false, {}};
}

DnsAnswer foundInHostsFile(std::vector<std::string> values)
{
    return {State::Found, std::move(values), true, {}};
}

DnsAnswer notThere()
{
    return {State::NotThere, {}, false, {}};
}

/// A domain with one address in each family, and a DNS where all is right.
class CheckDnsTest : public ::testing::Test {
protected:
    CheckDnsTest()
    {
        dns.names["192.0.2.1"] = found({"mx.example"});
        dns.names["2001:db8::1"] = found({"mx.example"});
        dns.addresses[{Family::Ip4, "mx.example"}] = found({"192.0.2.9", "192.0.2.1"});
        dns.addresses[{Family::Ip6, "mx.example"}] = found({"2001:db8::1"});
        dns.spf[{"one.example", "192.0.2.1"}] = {SpfResult::Pass, ""};
        dns.spf[{"one.example", "2001:db8::1"}] = {SpfResult::Pass, ""};
    }

    Findings findings() const
    {
        return checkDns({{"one.example", "s", "192.0.2.1", "2001:DB8::1", "mx.example"}}, dns);
    }

    void setSpf(SpfResult result, const std::string& reason = "")
    {
        dns.spf[{"one.example", "192.0.2.1"}] = {result, reason};
    }

    DnsFacts dns;
};

Finding about(Kind kind, std::vector<std::pair<std::string, std::string>> values)
{
    values.insert(values.begin(), {"IPv4", "192.0.2.1"});
    return {kind, "one.example", std::move(values)};
}

} // namespace

TEST_F(CheckDnsTest, RightRecordsHaveNoFindings)
{
    EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CheckDnsTest, QuestionsThatWereNotAskedHaveNoFindings)
{
    EXPECT_THAT(checkDns({{"one.example", "s", "192.0.2.1", "not one", "helo.example"}}, DnsFacts()),
                IsEmpty());
}

TEST_F(CheckDnsTest, AddressWithoutPtrIsReported)
{
    dns.names["192.0.2.1"] = notThere();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::PtrMissing, {})));
}

TEST_F(CheckDnsTest, AddressesOfBothFamiliesAreCheckedEach)
{
    dns.names["192.0.2.1"] = notThere();
    dns.names["2001:db8::1"] = notThere();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::PtrMissing, {}),
                                        Finding{Kind::PtrMissing, "one.example", {{"IPv6", "2001:db8::1"}}}));
}

TEST_F(CheckDnsTest, PtrThatDoesNotLeadBackIsReported)
{
    dns.names["192.0.2.1"] = found({"a.example", "b.example"});
    dns.addresses[{Family::Ip4, "a.example"}] = found({"192.0.2.8"});
    dns.addresses[{Family::Ip4, "b.example"}] = notThere();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::PtrNotLeadingBack, {{"names", "a.example, b.example"}})));
}

TEST_F(CheckDnsTest, OneNameThatLeadsBackIsEnough)
{
    dns.names["192.0.2.1"] = found({"a.example", "mx.example"});
    dns.addresses[{Family::Ip4, "a.example"}] = DnsAnswer();
    EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(CheckDnsTest, UnknownPtrIsReported)
{
    dns.names["192.0.2.1"] = DnsAnswer();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::PtrNotKnown, {})));
    dns.names["192.0.2.1"] = found({"a.example", "b.example"});
    dns.addresses[{Family::Ip4, "a.example"}] = DnsAnswer();
    dns.addresses[{Family::Ip4, "b.example"}] = notThere();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::PtrNotKnown, {{"names", "a.example, b.example"}})));
}

TEST_F(CheckDnsTest, HeloWithoutAddressIsReported)
{
    dns.names["192.0.2.1"] = foundInHostsFile({"b.example"});
    dns.addresses[{Family::Ip4, "b.example"}] = found({"192.0.2.1"});
    dns.addresses[{Family::Ip4, "mx.example"}] = notThere();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::HeloWithoutAddress, {{"HELO name", "mx.example"}})));
}

TEST_F(CheckDnsTest, HeloThatLeadsElsewhereIsReported)
{
    dns.addresses[{Family::Ip4, "one.example"}] = found({"192.0.2.7", "192.0.2.8"});
    EXPECT_THAT(checkDns({{"one.example", "s", "192.0.2.1", "", "One.Example"}}, dns),
                ElementsAre(about(Kind::HeloLeadsElsewhere,
                                  {{"HELO name", "one.example"}, {"leads to", "192.0.2.7, 192.0.2.8"}})));
}

TEST_F(CheckDnsTest, HostsFileIsNamedWhereItLeadsElsewhere)
{
    dns.addresses[{Family::Ip4, "one.example"}] = foundInHostsFile({"127.0.1.1"});
    EXPECT_THAT(checkDns({{"one.example", "s", "192.0.2.1", "", "one.example"}}, dns),
                ElementsAre(about(Kind::HeloLeadsElsewhere, {{"HELO name", "one.example"},
                                                             {"leads to", "127.0.1.1"},
                                                             {"according to", "/etc/hosts"}})));
}

TEST_F(CheckDnsTest, UnknownHeloIsReported)
{
    dns.names.clear();
    dns.addresses[{Family::Ip4, "mx.example"}] = DnsAnswer();
    EXPECT_THAT(findings(), ElementsAre(about(Kind::HeloNotKnown, {{"HELO name", "mx.example"}})));
}

TEST_F(CheckDnsTest, SpfThatDoesNotPassIsReported)
{
    setSpf(SpfResult::Fail);
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfFail, {})));
    setSpf(SpfResult::Softfail);
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfSoftfail, {})));
    setSpf(SpfResult::Neutral);
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfNeutral, {})));
    setSpf(SpfResult::Permerror, "Syntax error");
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfUnusable, {{"because of", "Syntax error"}})));
}

TEST_F(CheckDnsTest, MissingOrUnknownSpfIsReported)
{
    setSpf(SpfResult::None);
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfMissing, {})));
    setSpf(SpfResult::Temperror);
    EXPECT_THAT(findings(), ElementsAre(about(Kind::SpfNotKnown, {})));
}

TEST_F(CheckDnsTest, WholeServerHasNoDomainToAskFor)
{
    dns.names["192.0.2.1"] = notThere();
    EXPECT_THAT(checkDns({{"", "", "192.0.2.1", "", "mx.example"}}, dns),
                ElementsAre(Finding{Kind::PtrMissing, "", {{"IPv4", "192.0.2.1"}}}));
}

TEST(CheckDnsGravityTest, UnknownAnswersAreOnlyWarnings)
{
    for (const Kind kind :
         {Kind::PtrNotKnown, Kind::HeloNotKnown, Kind::SpfNotKnown, Kind::SpfMissing, Kind::SpfNeutral})
        EXPECT_EQ(Gravity::Warning, infoOf(kind).gravity) << infoOf(kind).identifier;
    for (const Kind kind : {Kind::PtrMissing, Kind::PtrNotLeadingBack, Kind::HeloWithoutAddress,
                            Kind::HeloLeadsElsewhere, Kind::SpfFail, Kind::SpfSoftfail, Kind::SpfUnusable})
        EXPECT_EQ(Gravity::Problem, infoOf(kind).gravity) << infoOf(kind).identifier;
}

} // namespace zorvo::check
