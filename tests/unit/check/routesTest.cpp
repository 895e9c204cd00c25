// What a request leads to.
#include "check/routes.h"

#include <gtest/gtest.h>

namespace zorvo::check {

namespace {

std::string shown(const std::vector<Route>& routes)
{
    std::string text;
    for (const Route& route : routes)
        text +=
            route.domain + "|" + route.service + "|" + route.ip4 + "|" + route.ip6 + "|" + route.helo + "\n";
    return text;
}

Request requestOf(TransportType type, std::vector<Binding> bindings)
{
    return {type, std::move(bindings), "", ""};
}

} // namespace

TEST(PlannedRoutesTest, DomainIpNamesServicesAfterAddresses)
{
    EXPECT_EQ(shown(plannedRoutes(requestOf(TransportType::DomainIp, {{"One.Example", "192.0.2.1", ""},
                                                                      {"two.example", "", "2001:db8::2"}}))),
              "one.example|zorvo-192.0.2.1-|192.0.2.1||\n"
              "two.example|zorvo--2001-db8--2||2001:db8::2|\n");
}

TEST(PlannedRoutesTest, DomainNameNamesServicesAfterDomainsAndAnnouncesThem)
{
    EXPECT_EQ(shown(plannedRoutes(
                  requestOf(TransportType::DomainName, {{"One.Example", "192.0.2.1", "2001:db8::1"}}))),
              "one.example|zorvo-one.example-192.0.2.1-2001-db8--1|192.0.2.1|2001:db8::1|one.example\n");
}

TEST(PlannedRoutesTest, LastElementOfADomainCounts)
{
    EXPECT_EQ(shown(plannedRoutes(requestOf(TransportType::DomainIp, {{"one.example", "192.0.2.1", ""},
                                                                      {"two.example", "192.0.2.2", ""},
                                                                      {"ONE.example", "192.0.2.3", ""}}))),
              "one.example|zorvo-192.0.2.3-|192.0.2.3||\n"
              "two.example|zorvo-192.0.2.2-|192.0.2.2||\n");
}

TEST(PlannedRoutesTest, ElementsThatStopARunAreLeftOut)
{
    EXPECT_EQ(shown(plannedRoutes(
                  requestOf(TransportType::DomainIp, {{"", "192.0.2.1", ""}, {"two.example", "", ""}}))),
              "");
}

TEST(PlannedRoutesTest, ExplicitIpIsOneRouteForTheServer)
{
    EXPECT_EQ(shown(plannedRoutes({TransportType::ExplicitIp, {}, "192.0.2.1", "2001:db8::1"})),
              "||192.0.2.1|2001:db8::1|\n");
}

TEST(OptionOfTest, LastSettingOfTheParameterCounts)
{
    mail::postfix::ModuleInfo service;
    service.command = {"smtp",
                       "-o",
                       "smtp_bind_address=192.0.2.1",
                       "smtp_bind_address=192.0.2.2",
                       "-o",
                       "smtp_bind_address=192.0.2.3"};
    EXPECT_EQ(optionOf(service, "smtp_bind_address"), "192.0.2.3");
    EXPECT_EQ(optionOf(service, "smtp_bind_address6"), "");
}

TEST(PresentRoutesTest, RecordsAreShownInOrderWithWhatTheirServicesSend)
{
    PostfixFacts postfix;
    const auto service =
        plannedService(TransportType::DomainName, {"two.example", "192.0.2.2", "2001:db8::2"});
    postfix.services[service.name] = service;
    postfix.records = {
        {"@two.example", service.name + ":"}, {"@one.example", "zorvo-gone:"}, {"odd", "smtp"}};
    EXPECT_EQ(shown(presentRoutes(postfix)),
              "one.example|zorvo-gone|||\n"
              "two.example|zorvo-two.example-192.0.2.2-2001-db8--2|192.0.2.2|2001:db8::2|two.example\n"
              "odd|smtp|||\n");
}

TEST(PresentRoutesTest, ServerWidePairComesFirst)
{
    PostfixFacts postfix;
    postfix.mainCf = {{"smtp_bind_address", ""}, {"smtp_bind_address6", "2001:db8::1"}};
    EXPECT_EQ(shown(presentRoutes(postfix)), "|||2001:db8::1|\n");
    postfix.mainCf["smtp_bind_address6"] = "";
    EXPECT_EQ(shown(presentRoutes(postfix)), "");
}

} // namespace zorvo::check
