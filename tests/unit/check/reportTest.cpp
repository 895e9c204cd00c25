// The report for people and the one for programs, byte for byte.
#include "check/report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zorvo::check {

namespace {

std::string table(const Report& report, bool colour = false)
{
    std::ostringstream out;
    writeTable(out, report, colour);
    return out.str();
}

std::string json(const Report& report)
{
    std::ostringstream out;
    writeJson(out, report);
    return out.str();
}

const Route one = {"one.example", "zorvo-192.0.2.1-", "192.0.2.1", "", "mail.example"};
const Route two = {"two.example", "zorvo--2001-db8--2", "", "2001:db8::2", ""};

Finding notOnHost(const std::string& domain)
{
    return {Kind::AddressNotOnHost, domain, {{"IPv6", "2001:db8::2"}, {"bind", "Invalid argument"}}};
}

} // namespace

TEST(WriteTableTest, EachSoundRouteIsALine)
{
    EXPECT_EQ(table({{one, two}, {}}),
              "domain       service             IPv4       IPv6         HELO name     verdict\n"
              "one.example  zorvo-192.0.2.1-    192.0.2.1  -            mail.example  ok\n"
              "two.example  zorvo--2001-db8--2  -          2001:db8::2  -             ok\n"
              "\n"
              "nothing wrong\n");
}

TEST(WriteTableTest, WithoutRoutesTheTextSaysSo)
{
    EXPECT_EQ(table({}), "nothing is bound\n\nnothing wrong\n");
}

TEST(WriteTableTest, WholeServerHasALineOfItsOwn)
{
    EXPECT_EQ(table({{{"", "", "192.0.2.1", "", "mail.example"}}, {}}),
              "domain          service  IPv4       IPv6  HELO name     verdict\n"
              "(whole server)  -        192.0.2.1  -     mail.example  ok\n"
              "\n"
              "nothing wrong\n");
}

TEST(WriteTableTest, WarningsAboutTheServerAreNotItsVerdict)
{
    const Report report{{{"", "", "192.0.2.1", "", ""}}, {{Kind::EnforceOff, "", {}}}};
    EXPECT_EQ(table(report).find("domain          service  IPv4       IPv6  HELO name  verdict\n"
                                 "(whole server)  -        192.0.2.1  -     -          ok\n"),
              0U);
}

TEST(WriteTableTest, WarningAboutADomainIsItsVerdict)
{
    const Report report{{one}, {{Kind::AddressNotCanonical, "one.example", {}}}};
    EXPECT_NE(table(report).find("mail.example  address-not-canonical\n"), std::string::npos);
}

TEST(WriteTableTest, FindingsFollowTheGravestFirst)
{
    const Findings findings = {{Kind::EnforceOff, "", {}},
                               notOnHost("two.example"),
                               {Kind::DomainWithoutAddress, "three.example", {}},
                               {Kind::RecordMissing, "two.example", {{"service", "zorvo--2001-db8--2"}}}};
    EXPECT_EQ(
        table({{one, two}, findings}),
        "domain       service             IPv4       IPv6         HELO name     verdict\n"
        "one.example  zorvo-192.0.2.1-    192.0.2.1  -            mail.example  ok\n"
        "two.example  zorvo--2001-db8--2  -          2001:db8::2  -             address-not-on-host +1\n"
        "\n"
        "severe: domain-without-address\n"
        "    three.example\n"
        "  The run stops at this element: only the domains before it are bound, and Postfix is not "
        "restarted.\n"
        "  Give the domain an IPv4 address, an IPv6 address or both, or take it out of the request.\n"
        "\n"
        "problem: address-not-on-host\n"
        "    two.example: IPv6 2001:db8::2, bind \"Invalid argument\"\n"
        "  Postfix cannot bind to the address, logs a warning and sends from the host's default one.\n"
        "  Add the address to an interface, or bind to one that the host has.\n"
        "\n"
        "problem: record-missing\n"
        "    two.example: service zorvo--2001-db8--2\n"
        "  The table does not name the domain, so its mail leaves as if it were not bound.\n"
        "  Run zorvo-smtp-bind with the whole request.\n"
        "\n"
        "warning: enforce-off\n"
        "  If an address is taken off the host, Postfix logs a warning and sends from the default one.\n"
        "  Set \"smtp_bind_address_enforce = yes\" in main.cf if such mail should wait in the queue "
        "instead.\n"
        "\n"
        "1 severe, 2 problems, 1 warning\n");
}

TEST(WriteTableTest, SevereFindingOfTheServerIsTheVerdictOfEveryDomain)
{
    const Findings findings = {{Kind::PostfixNotRunning, "", {}}, {Kind::EnforceOff, "", {}}};
    EXPECT_EQ(
        table({{one}, findings}),
        "domain       service           IPv4       IPv6  HELO name     verdict\n"
        "one.example  zorvo-192.0.2.1-  192.0.2.1  -     mail.example  postfix-not-running\n"
        "\n"
        "severe: postfix-not-running\n"
        "  No mail leaves.\n"
        "  Start Postfix; if it does not come up, its log tells why.\n"
        "\n"
        "warning: enforce-off\n"
        "  If an address is taken off the host, Postfix logs a warning and sends from the default one.\n"
        "  Set \"smtp_bind_address_enforce = yes\" in main.cf if such mail should wait in the queue "
        "instead.\n"
        "\n"
        "1 severe, 1 warning\n");
}

TEST(WriteTableTest, TenEqualFindingsAreOneLineAndNineAreNot)
{
    Report report;
    for (int i = 0; i < 9; ++i)
        report.findings.push_back({Kind::RecordMissing, "d" + std::to_string(i) + ".example", {}});
    EXPECT_NE(table(report).find("    d8.example\n"), std::string::npos);
    report.findings.push_back({Kind::RecordMissing, "d9.example", {}});
    EXPECT_EQ(table(report),
              "nothing is bound\n"
              "\n"
              "problem: record-missing\n"
              "    10 times: d0.example, d1.example, d2.example and 7 more\n"
              "  The table does not name the domain, so its mail leaves as if it were not bound.\n"
              "  Run zorvo-smtp-bind with the whole request.\n"
              "\n"
              "10 problems\n");
}

TEST(WriteTableTest, SummaryOfFindingsWithoutADomainNamesTheirFirstValues)
{
    Report report;
    for (int i = 0; i < 12; ++i)
        report.findings.push_back({Kind::ServiceLeftOver, "", {{"service", "zorvo-" + std::to_string(i)}}});
    EXPECT_NE(table(report).find("    12 times: zorvo-0, zorvo-1, zorvo-2 and 9 more\n"), std::string::npos);
}

TEST(WriteTableTest, ColourMarksGravities)
{
    EXPECT_EQ(table({{two}, {notOnHost("two.example")}}, true),
              "domain       service             IPv4  IPv6         HELO name  verdict\n"
              "two.example  zorvo--2001-db8--2  -     2001:db8::2  -          "
              "\033[31maddress-not-on-host\033[0m\n"
              "\n"
              "\033[31mproblem\033[0m: address-not-on-host\n"
              "    two.example: IPv6 2001:db8::2, bind \"Invalid argument\"\n"
              "  Postfix cannot bind to the address, logs a warning and sends from the host's default one.\n"
              "  Add the address to an interface, or bind to one that the host has.\n"
              "\n"
              "1 problem\n");
}

TEST(WriteTableTest, DomainInAnyCaseFindsItsRow)
{
    EXPECT_NE(table({{two}, {{Kind::DomainNotHostName, "TWO.example", {}}}}).find(" domain-not-host-name\n"),
              std::string::npos);
}

TEST(WriteTableTest, ControlCharactersAreEscaped)
{
    const std::string evil = "a\033[2J\x9b\x7f\n\\b";
    const std::string text =
        table({{{evil, evil, evil, evil, evil}}, {{Kind::DomainNotHostName, evil, {{"because of", evil}}}}});
    EXPECT_EQ(text.find_first_of("\033\x9b\x7f"), std::string::npos);
    EXPECT_NE(text.find("\n    a\\x1b[2J\\x9b\\x7f\\n\\\\b: because of a\\x1b[2J\\x9b\\x7f\\n\\\\b\n"),
              std::string::npos);
}

TEST(WriteTableTest, ValuesWithBlanksShowTheirEnds)
{
    EXPECT_NE(table({{}, {{Kind::AddressWithBlank, "one.example", {{"IPv4", "192.0.2.1 "}, {"x", ""}}}}})
                  .find("    one.example: IPv4 \"192.0.2.1 \", x \"\"\n"),
              std::string::npos);
}

TEST(WriteJsonTest, DocumentHoldsRoutesFindingsAndTheirKinds)
{
    EXPECT_EQ(json({{one, two}, {{Kind::EnforceOff, "", {}}, notOnHost("two.example")}}), R"({
  "status": 1,
  "routes": [
    {
      "domain": "one.example",
      "service": "zorvo-192.0.2.1-",
      "ip4": "192.0.2.1",
      "ip6": "",
      "helo": "mail.example",
      "findings": []
    },
    {
      "domain": "two.example",
      "service": "zorvo--2001-db8--2",
      "ip4": "",
      "ip6": "2001:db8::2",
      "helo": "",
      "findings": [
        "address-not-on-host"
      ]
    }
  ],
  "findings": [
    {
      "identifier": "address-not-on-host",
      "gravity": "problem",
      "domain": "two.example",
      "values": {
        "IPv6": "2001:db8::2",
        "bind": "Invalid argument"
      }
    },
    {
      "identifier": "enforce-off",
      "gravity": "warning",
      "domain": "",
      "values": {}
    }
  ],
  "kinds": {
    "address-not-on-host": {
      "gravity": "problem",
      "consequence": "Postfix cannot bind to the address, logs a warning and sends from the host's default one.",
      "remedy": "Add the address to an interface, or bind to one that the host has."
    },
    "enforce-off": {
      "gravity": "warning",
      "consequence": "If an address is taken off the host, Postfix logs a warning and sends from the default one.",
      "remedy": "Set \"smtp_bind_address_enforce = yes\" in main.cf if such mail should wait in the queue instead."
    }
  }
}
)");
}

TEST(WriteJsonTest, NothingFoundLeavesTheListsEmpty)
{
    EXPECT_EQ(json({}), R"({
  "status": 0,
  "routes": [],
  "findings": [],
  "kinds": {}
}
)");
}

TEST(WriteJsonTest, BytesBeyondAsciiAreEscapedOrReplaced)
{
    const std::string text = json({{}, {{Kind::RecordLeftOver, "", {{"record", "\033\x7f\xc3\xbc\xff"}}}}});
    EXPECT_NE(text.find(R"("record": "\u001b\u007f\u00fc\ufffd")"), std::string::npos) << text;
}

TEST(ExitStatusTest, WarningsAloneAreStatusZero)
{
    EXPECT_EQ(exitStatus({}), 0);
    EXPECT_EQ(exitStatus({{Kind::EnforceOff, "", {}}, {Kind::AddressNotCanonical, "one.example", {}}}), 0);
    EXPECT_EQ(exitStatus({{Kind::EnforceOff, "", {}}, {Kind::RecordMissing, "one.example", {}}}), 1);
    EXPECT_EQ(exitStatus({{Kind::DomainEmpty, "", {}}}), 1);
}

TEST(EscapedMessageTest, LineFeedsAndBackslashesStay)
{
    EXPECT_EQ(escapedMessage("one\\x00\ntwo\t\033[2J\x9b"), "one\\x00\ntwo\\t\\x1b[2J\\x9b");
}

TEST(EscapedTest, PrintableAsciiStaysAndTheRestIsNamed)
{
    EXPECT_EQ(escaped(" az~\t\r\n\\"), " az~\\t\\r\\n\\\\");
    EXPECT_EQ(escaped(std::string("\0\x1f\x7f\x80\xff", 5)), "\\x00\\x1f\\x7f\\x80\\xff");
}

} // namespace zorvo::check
