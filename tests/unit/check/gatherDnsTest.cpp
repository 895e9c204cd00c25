// Lookups against a real name server: right, missing, mismatched and unanswered records.
#include "check/gatherDns.h"

#include "unit/check/NameServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace zorvo::check {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

/// A process whose resolv.conf and hosts files are its own.
class GatherDnsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!support::canMount())
            GTEST_SKIP() << "no mounts here";
        configure("nameserver 127.0.0.53\nsearch search.example\n", "127.0.0.1 localhost\n");
    }

    void configure(const std::string& resolvConf, const std::string& hosts)
    {
        files_.push_back(std::make_unique<ResolverFiles>(resolvConf, hosts));
    }

    static DnsFacts gather(const std::vector<Route>& routes) { return gatherDns(routes, nullptr); }

private:
    std::vector<std::unique_ptr<ResolverFiles>> files_;
};

/// "found: one two", "not there", "not known".
std::string textOf(const DnsAnswer& answer)
{
    if (answer.state == DnsAnswer::State::NotThere)
        return "not there";
    if (answer.state == DnsAnswer::State::NotKnown)
        return "not known";
    std::string text = answer.fromHostsFile ? "found in /etc/hosts:" : "found:";
    for (const std::string& value : answer.values)
        text += " " + value;
    return text;
}

std::map<std::string, std::string> namesOf(const DnsFacts& facts)
{
    std::map<std::string, std::string> texts;
    for (const auto& [address, answer] : facts.names)
        texts[address] = textOf(answer);
    return texts;
}

std::map<std::string, std::string> addressesOf(const DnsFacts& facts)
{
    std::map<std::string, std::string> texts;
    for (const auto& [question, answer] : facts.addresses)
        texts[familyName(question.first) + (" " + question.second)] = textOf(answer);
    return texts;
}

SpfResult spfOf(const DnsFacts& facts, const std::string& domain, const std::string& address)
{
    return facts.spf.at({domain, address}).result;
}

const std::vector<std::string> zones = {"local=/example/", "local=/2.0.192.in-addr.arpa/",
                                        "local=/ip6.arpa/"};

std::vector<std::string> zonesWith(const std::vector<std::string>& settings)
{
    std::vector<std::string> all = zones;
    all.insert(all.end(), settings.begin(), settings.end());
    return all;
}

const std::string reverse6 = "2.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa";

} // namespace

TEST_F(GatherDnsTest, RightRecordsAreFoundInBothFamilies)
{
    const NameServer server(zonesWith(
        {"ptr-record=2.2.0.192.in-addr.arpa,Out.One.example", "ptr-record=" + reverse6 + ",out6.one.example",
         "host-record=out.one.example,192.0.2.2", "host-record=out6.one.example,2001:db8::2",
         "host-record=one.example,192.0.2.2,2001:db8::2",
         "txt-record=one.example,v=spf1 a ip6:2001:db8::/32 -all"}));
    const DnsFacts facts = gather({{"one.example", "s", "192.0.2.2", "2001:DB8::2", "One.Example"}});
    EXPECT_THAT(namesOf(facts), UnorderedElementsAre(Pair("192.0.2.2", "found: out.one.example"),
                                                     Pair("2001:db8::2", "found: out6.one.example")));
    EXPECT_THAT(addressesOf(facts), UnorderedElementsAre(Pair("IPv4 out.one.example", "found: 192.0.2.2"),
                                                         Pair("IPv6 out6.one.example", "found: 2001:db8::2"),
                                                         Pair("IPv4 one.example", "found: 192.0.2.2"),
                                                         Pair("IPv6 one.example", "found: 2001:db8::2")));
    EXPECT_EQ(SpfResult::Pass, spfOf(facts, "one.example", "192.0.2.2"));
    EXPECT_EQ(SpfResult::Pass, spfOf(facts, "one.example", "2001:db8::2"));
}

TEST_F(GatherDnsTest, MissingRecordsAreNotThere)
{
    const NameServer server(zonesWith({"host-record=mx.example,2001:db8::9"}));
    const DnsFacts facts = gather(
        {{"one.example", "s", "192.0.2.2", "", "mx.example"}, {"", "", "192.0.2.3", "", "gone.example"}});
    EXPECT_THAT(namesOf(facts),
                UnorderedElementsAre(Pair("192.0.2.2", "not there"), Pair("192.0.2.3", "not there")));
    EXPECT_THAT(addressesOf(facts), UnorderedElementsAre(Pair("IPv4 mx.example", "not there"),
                                                         Pair("IPv4 gone.example", "not there")));
    EXPECT_EQ(SpfResult::None, spfOf(facts, "one.example", "192.0.2.2"));
}

TEST_F(GatherDnsTest, MismatchedRecordsAreFoundAsTheyAre)
{
    const NameServer server(zonesWith(
        {"ptr-record=2.2.0.192.in-addr.arpa,elsewhere.example", "host-record=elsewhere.example,192.0.2.77",
         "host-record=mx.example,192.0.2.78", "txt-record=one.example,v=spf1 include:more.example ~all",
         "txt-record=more.example,v=spf1 mx -all", "mx-host=more.example,mail.more.example",
         "address=/mail.more.example/192.0.2.3"}));
    const DnsFacts facts = gather({{"one.example", "s", "192.0.2.2", "", "mx.example"},
                                   {"one.example", "s", "192.0.2.3", "", "mx.example"}});
    EXPECT_THAT(namesOf(facts), UnorderedElementsAre(Pair("192.0.2.2", "found: elsewhere.example"),
                                                     Pair("192.0.2.3", "not there")));
    EXPECT_THAT(addressesOf(facts), UnorderedElementsAre(Pair("IPv4 elsewhere.example", "found: 192.0.2.77"),
                                                         Pair("IPv4 mx.example", "found: 192.0.2.78")));
    EXPECT_EQ(SpfResult::Softfail, spfOf(facts, "one.example", "192.0.2.2"));
    EXPECT_EQ(SpfResult::Pass, spfOf(facts, "one.example", "192.0.2.3"));
}

TEST_F(GatherDnsTest, UnansweredQuestionsAreNotKnownWhileOthersAreFound)
{
    const SilentServer silent("127.0.0.54", 5300);
    const NameServer server(zonesWith(
        {"server=/silent.example/127.0.0.54#5300", "server=/3.2.0.192.in-addr.arpa/127.0.0.54#5300",
         "address=/mx.example/192.0.2.2", "txt-record=one.example,v=spf1 include:silent.example -all",
         "txt-record=two.example,v=spf1 ip4:192.0.2.3 -all"}));
    const DnsFacts facts = gather({{"one.example", "s", "192.0.2.2", "", "helo.silent.example"},
                                   {"two.example", "s", "192.0.2.3", "", "mx.example"}});
    EXPECT_THAT(namesOf(facts),
                UnorderedElementsAre(Pair("192.0.2.2", "not there"), Pair("192.0.2.3", "not known")));
    EXPECT_THAT(addressesOf(facts), UnorderedElementsAre(Pair("IPv4 helo.silent.example", "not known"),
                                                         Pair("IPv4 mx.example", "found: 192.0.2.2")));
    EXPECT_EQ(SpfResult::Temperror, spfOf(facts, "one.example", "192.0.2.2"));
    EXPECT_EQ(SpfResult::Pass, spfOf(facts, "two.example", "192.0.2.3"));
}

// dnsmasq refuses questions for which it has neither records nor another server.
TEST_F(GatherDnsTest, RefusedQuestionsAndAbsentServersAreNotKnown)
{
    const std::vector<Route> routes = {{"one.test", "s", "198.51.100.1", "", "helo.test"}};
    const auto expectNothingKnown = [](const DnsFacts& facts) {
        EXPECT_THAT(namesOf(facts), ElementsAre(Pair("198.51.100.1", "not known")));
        EXPECT_THAT(addressesOf(facts), ElementsAre(Pair("IPv4 helo.test", "not known")));
        EXPECT_EQ(SpfResult::Temperror, spfOf(facts, "one.test", "198.51.100.1"));
    };
    {
        const NameServer server(zones);
        expectNothingKnown(gather(routes));
    }
    expectNothingKnown(gather(routes));
}

TEST_F(GatherDnsTest, SilentServerIsGivenUpWithoutAskingTheRest)
{
    const SilentServer silent("127.0.0.53", 53);
    std::vector<Route> routes;
    for (int i = 0; i < 1000; ++i)
        routes.push_back({"d" + std::to_string(i) + ".example", "s", "192.0.2.2", "", "mx.example"});
    size_t answered = 0;
    size_t asked = 0;
    std::chrono::milliseconds elapsed{0};
    const DnsFacts facts = gatherDns(routes, [&](size_t n, size_t of, auto time) {
        answered = n;
        asked = of;
        elapsed = time;
    });
    EXPECT_THAT(silent.questions(), SizeIs(100));
    EXPECT_THAT(facts.spf, SizeIs(1000));
    for (const auto& [question, verdict] : facts.spf)
        EXPECT_EQ(SpfResult::Temperror, verdict.result) << question.first;
    EXPECT_EQ(1002U, answered);
    EXPECT_EQ(1002U, asked);
    EXPECT_GE(elapsed, std::chrono::seconds(5));
}

// What the first silent questions cost could be the fault of their zones alone.
TEST_F(GatherDnsTest, ServerThatFallsSilentIsGivenUpAfterASecondTry)
{
    const SilentServer silent("127.0.0.54", 5300);
    const NameServer server(
        zonesWith({"server=/silent.example/127.0.0.54#5300", "dns-forward-max=10000",
                   "host-record=mx.example,192.0.2.2", "txt-record=last.example,v=spf1 -all"}));
    std::vector<Route> routes;
    for (int i = 0; i < 500; ++i)
        routes.push_back({"d" + std::to_string(i) + ".silent.example", "s", "192.0.2.2", "", "mx.example"});
    routes.push_back({"last.example", "s", "192.0.2.2", "", "mx.example"});
    const DnsFacts facts = gather(routes);
    EXPECT_THAT(silent.questions(), SizeIs(200));
    EXPECT_EQ(SpfResult::Temperror, spfOf(facts, "last.example", "192.0.2.2"));
}

TEST_F(GatherDnsTest, FewSilentZonesDoNotStopTheOthers)
{
    const SilentServer silent("127.0.0.54", 5300);
    const NameServer server(
        zonesWith({"server=/silent.example/127.0.0.54#5300", "dns-forward-max=10000",
                   "host-record=mx.example,192.0.2.2", "txt-record=last.example,v=spf1 -all"}));
    std::vector<Route> routes;
    for (int i = 0; i < 100; ++i)
        routes.push_back({"d" + std::to_string(i) + ".silent.example", "s", "192.0.2.2", "", "mx.example"});
    routes.push_back({"last.example", "s", "192.0.2.2", "", "mx.example"});
    EXPECT_EQ(SpfResult::Fail, spfOf(gather(routes), "last.example", "192.0.2.2"));
}

TEST_F(GatherDnsTest, EachQuestionIsAskedOnceHoweverManyShareIt)
{
    const NameServer server(
        zonesWith({"ptr-record=2.2.0.192.in-addr.arpa,mx.example", "host-record=mx.example,192.0.2.2",
                   "txt-record=one.example,v=spf1 include:shared.example a:mx.example -all",
                   "txt-record=two.example,v=spf1 include:shared.example a:mx.example -all",
                   "txt-record=shared.example,v=spf1 ip4:192.0.2.99 -all"}));
    gather({{"one.example", "s", "192.0.2.2", "", "mx.example"},
            {"two.example", "t", "192.0.2.2", "", "mx.example"}});
    EXPECT_THAT(server.queries(),
                UnorderedElementsAre("query[PTR] 2.2.0.192.in-addr.arpa", "query[A] mx.example",
                                     "query[TXT] one.example", "query[TXT] two.example",
                                     "query[TXT] shared.example"));
}

TEST_F(GatherDnsTest, HostsFileComesBeforeTheServers)
{
    configure("nameserver 127.0.0.53\n", "192.0.2.2 mx.example # comment\n2001:DB8::2 mx.example mx\n");
    const NameServer server(zonesWith({"host-record=mx.example,192.0.2.99"}));
    const DnsFacts facts = gather({{"", "", "192.0.2.2", "2001:db8::2", "mx.example"}});
    EXPECT_THAT(namesOf(facts),
                UnorderedElementsAre(Pair("192.0.2.2", "found in /etc/hosts: mx.example"),
                                     Pair("2001:db8::2", "found in /etc/hosts: mx.example mx")));
    EXPECT_THAT(addressesOf(facts),
                UnorderedElementsAre(Pair("IPv4 mx.example", "found in /etc/hosts: 192.0.2.2"),
                                     Pair("IPv6 mx.example", "found in /etc/hosts: 2001:db8::2"),
                                     Pair("IPv6 mx", "found in /etc/hosts: 2001:db8::2")));
    EXPECT_THAT(server.queries(), IsEmpty());
}

TEST_F(GatherDnsTest, NamesAreNotCompletedFromTheSearchList)
{
    const NameServer server(zonesWith({"local=/short/", "address=/short.search.example/192.0.2.2"}));
    const DnsFacts facts = gather({{"", "", "192.0.2.2", "", "short"}});
    EXPECT_THAT(addressesOf(facts), ElementsAre(Pair("IPv4 short", "not there")));
}

TEST_F(GatherDnsTest, SecondServerAnswersWhereTheFirstIsSilent)
{
    configure("nameserver 127.0.0.52\nnameserver 127.0.0.53\n", "");
    const SilentServer silent("127.0.0.52", 53);
    const NameServer server(zonesWith({"host-record=mx.example,192.0.2.2"}));
    const DnsFacts facts = gather({{"", "", "192.0.2.2", "", "mx.example"}});
    EXPECT_THAT(addressesOf(facts), ElementsAre(Pair("IPv4 mx.example", "found: 192.0.2.2")));
}

TEST_F(GatherDnsTest, AnswerThatTakesMoreThanOneDatagramIsReadWhole)
{
    std::string record = "txt-record=one.example,v=spf1";
    for (int i = 1; i <= 35; ++i)
        record += std::string(i % 10 == 0 ? "," : "") + " ip4:198.51.100." + std::to_string(i);
    const NameServer server(zonesWith({record + ", ip4:192.0.2.2 -all"}));
    const DnsFacts facts = gather({{"one.example", "s", "192.0.2.2", "", "mx.example"}});
    EXPECT_EQ(SpfResult::Pass, spfOf(facts, "one.example", "192.0.2.2"));
}

TEST_F(GatherDnsTest, AddressesNotToSendFromAndHeloNamesThatAreAddressesAreNotAskedFor)
{
    const NameServer server(zones);
    const DnsFacts facts = gather(
        {{"one.example", "s", "not one", "ff02::1", "mx.example"}, {"", "", "192.0.2.2", "", "[192.0.2.2]"}});
    EXPECT_THAT(namesOf(facts), ElementsAre(Pair("192.0.2.2", "not there")));
    EXPECT_THAT(facts.addresses, IsEmpty());
    EXPECT_THAT(facts.spf, IsEmpty());
}

TEST_F(GatherDnsTest, NoMoreThanTenNamesOfAnAddressAreFollowed)
{
    std::vector<std::string> settings;
    for (int i = 0; i < 12; ++i)
        settings.push_back("ptr-record=2.2.0.192.in-addr.arpa,n" + std::to_string(i) + ".example");
    const NameServer server(zonesWith(settings));
    const DnsFacts facts = gather({{"", "", "192.0.2.2", "", "[x]"}});
    EXPECT_THAT(facts.names.at("192.0.2.2").values, SizeIs(10));
    EXPECT_THAT(facts.addresses, SizeIs(10));
}

} // namespace zorvo::check
