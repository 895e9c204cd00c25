// Postfix compared with a request, and its files with each other, with made-up facts.
#include "check/checkPostfix.h"

#include "check/routes.h"
#include "postfix/SenderTransport.h"
#include "unit/check/CheckTestTools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zorvo::check {

namespace {

using mail::postfix::ModuleInfo;
using mail::postfix::senderTransportTable;
using mail::postfix::ServiceView;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const maps = "sender_dependent_default_transport_maps";

/// A Postfix with one.example and two.example bound as `request` asks.
class CheckPostfixTest : public ::testing::Test {
protected:
    CheckPostfixTest()
    {
        request = {TransportType::DomainName,
                   {{"one.example", "192.0.2.1", ""}, {"two.example", "192.0.2.2", "2001:db8::2"}},
                   "",
                   ""};
        postfix.mainCf = {{maps, senderTransportTable},
                          {"smtp_bind_address", ""},
                          {"smtp_bind_address6", ""},
                          {"smtp_bind_address_enforce", "yes"}};
        postfix.records.emplace();
        for (const Binding& binding : request.bindings)
            bind(binding);
        postfix.running = true;
        postfix.started = timespec{1000, 0};
        postfix.files = {{"/etc/postfix/main.cf", timespec{1000, 0}},
                         {"/etc/postfix/master.cf", timespec{999, 999999999}}};
    }

    /// Puts service and record there, as Postfix and zorvo-smtp-bind see them.
    void bind(const Binding& binding)
    {
        const ModuleInfo service = plannedService(TransportType::DomainName, binding);
        (*postfix.records)["@" + binding.domain] = service.name + ":";
        postfix.services[service.name] = service;
        showAsItIs(service);
    }

    void showAsItIs(const ModuleInfo& service)
    {
        ServiceView& view = postfix.views[service.name];
        view.line = formatServiceLine(service);
        for (const char* const parameter : {"smtp_bind_address", "smtp_bind_address6", "smtp_helo_name"})
            view.parameters[parameter] = optionOf(service, parameter);
    }

    Findings held() { return checkPostfix(request, postfix); }
    Findings heldAgainstItself() { return checkPostfix(postfix); }

    Request request;
    PostfixFacts postfix;
    const std::string one = "zorvo-one.example-192.0.2.1-";
    const std::string two = "zorvo-two.example-192.0.2.2-2001-db8--2";
    const std::string oneCommand =
        "smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= -o smtp_address_preference=ipv4 "
        "-o inet_protocols=ipv4 -o smtp_helo_name=one.example";
};

Finding about(Kind kind, const std::string& domain, std::vector<std::pair<std::string, std::string>> values)
{
    return {kind, domain, std::move(values)};
}

} // namespace

TEST_F(CheckPostfixTest, SoundPostfixHasNoFindings)
{
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_THAT(heldAgainstItself(), IsEmpty());
}

TEST_F(CheckPostfixTest, PostfixThatDoesNotRunIsNamed)
{
    postfix.running = false;
    EXPECT_THAT(held(), ElementsAre(about(Kind::PostfixNotRunning, "", {})));
    EXPECT_THAT(heldAgainstItself(), ElementsAre(about(Kind::PostfixNotRunning, "", {})));
}

TEST_F(CheckPostfixTest, PostfixInAnUnknownStateHasNoFindings)
{
    postfix.running.reset();
    postfix.started.reset();
    EXPECT_THAT(held(), IsEmpty());
}

TEST_F(CheckPostfixTest, FileChangedAfterTheStartIsNamed)
{
    postfix.files[1].changed = timespec{1000, 1};
    EXPECT_THAT(held(),
                ElementsAre(about(Kind::PostfixOlderThanFile, "", {{"file", "/etc/postfix/master.cf"}})));
    EXPECT_THAT(heldAgainstItself(),
                ElementsAre(about(Kind::PostfixOlderThanFile, "", {{"file", "/etc/postfix/master.cf"}})));
}

TEST_F(CheckPostfixTest, TableThatMainCfDoesNotNameIsNamed)
{
    postfix.mainCf[maps] = "hash:/etc/postfix/other";
    const Finding expected = about(Kind::TableNotInMainCf, "",
                                   {{"table", senderTransportTable}, {maps, "hash:/etc/postfix/other"}});
    EXPECT_THAT(held(), ElementsAre(expected));
    EXPECT_THAT(heldAgainstItself(), ElementsAre(expected));
}

TEST_F(CheckPostfixTest, TableIsFoundInWhateverPositionAndThroughProxymap)
{
    postfix.mainCf[maps] = std::string("hash:/etc/postfix/other,\n ") + senderTransportTable;
    EXPECT_THAT(held(), IsEmpty());
    postfix.mainCf[maps] = std::string("proxy:") + senderTransportTable;
    EXPECT_THAT(held(), IsEmpty());
}

TEST_F(CheckPostfixTest, TableThatIsNotThereStopsAllMailOnlyWhereItIsNamed)
{
    postfix.records.reset();
    const Finding expected = about(Kind::TableUnavailable, "", {{"table", senderTransportTable}});
    EXPECT_THAT(held(), ElementsAre(expected));
    request = {TransportType::ExplicitIp, {}, "192.0.2.1", ""};
    postfix.services.clear();
    postfix.mainCf["smtp_bind_address"] = "192.0.2.1";
    EXPECT_THAT(held(), ElementsAre(expected));
    postfix.mainCf[maps] = "";
    EXPECT_THAT(held(), IsEmpty());
}

TEST_F(CheckPostfixTest, EarlierTableThatCatchesADomainIsNamed)
{
    postfix.earlierTables = {{"hash:/etc/postfix/other", true, {{"@two.example", "smtp:"}}}};
    const Finding expected = about(Kind::EarlierTableCatchesDomain, "two.example",
                                   {{"table", "hash:/etc/postfix/other"}, {"result", "smtp:"}});
    EXPECT_THAT(held(), ElementsAre(expected));
    EXPECT_THAT(heldAgainstItself(), ElementsAre(expected));
}

TEST_F(CheckPostfixTest, EarlierTableThatCannotBeReadIsNotKnown)
{
    postfix.earlierTables = {{"ldap:/etc/postfix/other", false, {}}};
    EXPECT_THAT(held(),
                ElementsAre(about(Kind::EarlierTableNotKnown, "", {{"table", "ldap:/etc/postfix/other"}})));
}

TEST_F(CheckPostfixTest, ServerWidePairBesideDomainsIsNamed)
{
    postfix.mainCf["smtp_bind_address"] = "192.0.2.7";
    postfix.mainCf["smtp_bind_address6"] = "2001:db8::7";
    const auto expected =
        ElementsAre(about(Kind::BindAddressBesideDomains, "", {{"smtp_bind_address", "192.0.2.7"}}),
                    about(Kind::BindAddressBesideDomains, "", {{"smtp_bind_address6", "2001:db8::7"}}));
    EXPECT_THAT(held(), expected);
    EXPECT_THAT(heldAgainstItself(), expected);
}

TEST_F(CheckPostfixTest, MissingRecordIsNamed)
{
    postfix.records->erase("@one.example");
    EXPECT_THAT(held(), ElementsAre(about(Kind::RecordMissing, "one.example", {{"service", one}})));
}

TEST_F(CheckPostfixTest, RecordOfAnotherServiceIsNamed)
{
    (*postfix.records)["@one.example"] = two + ":";
    EXPECT_THAT(held(), ElementsAre(about(Kind::RecordDiffers, "one.example",
                                          {{"in the table", two + ":"}, {"asked for", one + ":"}})));
}

TEST_F(CheckPostfixTest, RecordThatTheRequestDoesNotNameIsLeftOver)
{
    (*postfix.records)["@three.example"] = one + ":";
    EXPECT_THAT(held(), ElementsAre(about(Kind::RecordLeftOver, "",
                                          {{"record", "@three.example"}, {"in the table", one + ":"}})));
}

TEST_F(CheckPostfixTest, MissingServiceIsNamed)
{
    postfix.services.erase(one);
    postfix.views.erase(one);
    EXPECT_THAT(held(), ElementsAre(about(Kind::ServiceMissing, "one.example", {{"service", one}})));
    EXPECT_THAT(heldAgainstItself(),
                ElementsAre(about(Kind::ServiceMissing, "one.example", {{"service", one}})));
}

TEST_F(CheckPostfixTest, DisabledServiceIsNamed)
{
    postfix.services.erase(one);
    postfix.disabledServices.insert(one);
    EXPECT_THAT(held(), ElementsAre(about(Kind::ServiceDisabled, "one.example", {{"service", one}})));
}

TEST_F(CheckPostfixTest, ServiceInBothFilesIsAWarning)
{
    postfix.disabledServices.insert(one);
    EXPECT_THAT(held(), ElementsAre(about(Kind::ServiceInBothFiles, "one.example", {{"service", one}})));
}

TEST_F(CheckPostfixTest, ServiceEditedByHandIsNamedWithBothCommands)
{
    ModuleInfo& service = postfix.services[one];
    service.command = {"smtp", "-o", "smtp_bind_address=203.0.113.5"};
    postfix.views.clear();
    showAsItIs(service);
    showAsItIs(postfix.services[two]);
    EXPECT_THAT(held(), ElementsAre(about(Kind::ServiceDiffers, "one.example",
                                          {{"service", one},
                                           {"in master.cf", "smtp -o smtp_bind_address=203.0.113.5"},
                                           {"asked for", oneCommand}})));
    EXPECT_THAT(heldAgainstItself(),
                ElementsAre(about(Kind::ServiceDiffers, "one.example",
                                  {{"service", one},
                                   {"in master.cf", "smtp -o smtp_bind_address=203.0.113.5"},
                                   {"asked for", "no service of this name"}})));
}

TEST_F(CheckPostfixTest, ServiceThatPostfixSeesDifferentlyIsNamed)
{
    postfix.views[one].parameters["smtp_bind_address"] = "203.0.113.5";
    EXPECT_THAT(held(), ElementsAre(about(
                            Kind::ServiceSeenDifferently, "one.example",
                            {{"service", one}, {"Postfix", oneCommand}, {"zorvo-smtp-bind", oneCommand}})));
    postfix.views[one].line = one + " unix - - n - - smtp -v";
    EXPECT_THAT(held(), ElementsAre(about(
                            Kind::ServiceSeenDifferently, "one.example",
                            {{"service", one}, {"Postfix", "smtp -v"}, {"zorvo-smtp-bind", oneCommand}})));
    postfix.views.erase(one);
    EXPECT_THAT(held(),
                ElementsAre(about(Kind::ServiceSeenDifferently, "one.example",
                                  {{"service", one}, {"Postfix", ""}, {"zorvo-smtp-bind", oneCommand}})));
}

TEST_F(CheckPostfixTest, GeneratedServiceThatNoRecordNamesIsLeftOver)
{
    const ModuleInfo service = plannedService(TransportType::DomainName, {"three.example", "192.0.2.3", ""});
    postfix.services[service.name] = service;
    postfix.services["relay"] = ModuleInfo();
    const auto expected =
        ElementsAre(about(Kind::ServiceLeftOver, "", {{"service", "zorvo-three.example-192.0.2.3-"}}));
    EXPECT_THAT(held(), expected);
    EXPECT_THAT(heldAgainstItself(), expected);
}

TEST_F(CheckPostfixTest, ServiceThatAWrongRecordNamesIsNotLeftOver)
{
    const ModuleInfo service = plannedService(TransportType::DomainName, {"three.example", "192.0.2.3", ""});
    postfix.services[service.name] = service;
    (*postfix.records)["@one.example"] = service.name + ":";
    EXPECT_THAT(held(), ElementsAre(about(Kind::RecordDiffers, "one.example",
                                          {{"in the table", service.name + ":"}, {"asked for", one + ":"}})));
}

TEST_F(CheckPostfixTest, BindingThatIsNotEnforcedIsAWarning)
{
    postfix.mainCf["smtp_bind_address_enforce"] = "no";
    EXPECT_THAT(held(), ElementsAre(about(Kind::EnforceOff, "", {})));
    EXPECT_THAT(heldAgainstItself(), ElementsAre(about(Kind::EnforceOff, "", {})));
    postfix.mainCf.erase("smtp_bind_address_enforce");
    EXPECT_THAT(held(), IsEmpty());
}

TEST_F(CheckPostfixTest, NothingBoundHasNoFindings)
{
    postfix.records->clear();
    postfix.services.clear();
    postfix.mainCf[maps] = "";
    postfix.mainCf["smtp_bind_address_enforce"] = "no";
    EXPECT_THAT(heldAgainstItself(), IsEmpty());
    request.bindings.clear();
    EXPECT_THAT(held(), IsEmpty());
}

class CheckServerPairTest : public CheckPostfixTest {
protected:
    CheckServerPairTest()
    {
        request = {TransportType::ExplicitIp, {}, "192.0.2.1", "2001:db8::1"};
        postfix.records->clear();
        postfix.services.clear();
        postfix.mainCf["smtp_bind_address"] = "192.0.2.1";
        postfix.mainCf["smtp_bind_address6"] = "2001:DB8::1";
    }
};

TEST_F(CheckServerPairTest, PairAsAskedForHasNoFindings)
{
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_THAT(heldAgainstItself(), IsEmpty());
}

TEST_F(CheckServerPairTest, AddressThatMainCfDoesNotSetIsMissing)
{
    postfix.mainCf["smtp_bind_address"] = "";
    EXPECT_THAT(held(), ElementsAre(about(Kind::BindAddressMissing, "", {{"asked for", "192.0.2.1"}})));
}

TEST_F(CheckServerPairTest, AnotherAddressInMainCfIsNamed)
{
    postfix.mainCf["smtp_bind_address6"] = "2001:db8::7";
    EXPECT_THAT(held(),
                ElementsAre(about(Kind::BindAddressDiffers, "",
                                  {{"smtp_bind_address6", "2001:db8::7"}, {"asked for", "2001:db8::1"}})));
    request.ip6 = "";
    EXPECT_THAT(held(), ElementsAre(about(Kind::BindAddressDiffers, "",
                                          {{"smtp_bind_address6", "2001:db8::7"}, {"asked for", "none"}})));
}

TEST_F(CheckServerPairTest, RecordsAreLeftOver)
{
    (*postfix.records)["@one.example"] = "smtp:";
    EXPECT_THAT(held(), ElementsAre(about(Kind::RecordLeftOver, "",
                                          {{"record", "@one.example"}, {"in the table", "smtp:"}})));
}

TEST(TablesOfTest, BlanksAndCommasSeparateOutsideBraces)
{
    EXPECT_THAT(tablesOf("hash:/a, hash:/b\n\thash:/c"), ElementsAre("hash:/a", "hash:/b", "hash:/c"));
    EXPECT_THAT(tablesOf("inline:{ a=b, c=d },hash:/b"), ElementsAre("inline:{ a=b, c=d }", "hash:/b"));
    EXPECT_THAT(tablesOf(" "), IsEmpty());
}

TEST(TablesBeforeTest, StopsAtTheGeneratedTable)
{
    const std::string table = senderTransportTable;
    EXPECT_THAT(tablesBefore("hash:/a " + table + " hash:/b"), ElementsAre("hash:/a"));
    EXPECT_THAT(tablesBefore(table), IsEmpty());
    EXPECT_THAT(tablesBefore("hash:/a hash:/b"), ElementsAre("hash:/a", "hash:/b"));
}

} // namespace zorvo::check
