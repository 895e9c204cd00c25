// What a domain's binding becomes: the service in master.cf and the record in the table.
#include "Fixture.h"

#include <map>
#include <sys/wait.h>

namespace contract {

namespace {

class TransportTest : public ContractTest {};

// What a run put after the services that were there.
std::string added()
{
    const std::string before = std::string(plainServices) + '\n';
    const std::string now = masterCf();
    EXPECT_EQ(now.substr(0, before.size()), before);
    return now.substr(std::min(before.size(), now.size()));
}

// The table as the runs of postmap leave it: "-r" makes it anew from the source file, "-r -i" merges.
std::map<std::string, std::string> tableAfter(const Outcome& outcome,
                                              std::map<std::string, std::string> table)
{
    for (const Call& call : outcome.calls) {
        if (call.command == emptyTable)
            table.clear();
        const std::string& records = call.command == emptyTable ? call.tableSource.bytes : call.input;
        for (size_t at = 0; at < records.size();) {
            const size_t blank = records.find(' ', at);
            const size_t end = records.find('\n', at);
            table[records.substr(at, blank - at)] = records.substr(blank + 1, end - blank - 1);
            at = end + 1;
        }
    }
    return table;
}

} // namespace

TEST_F(TransportTest, IpServiceWithBothAddressesPrefersIpv4AndRestrictsNoProtocol)
{
    const Outcome outcome = runDomainIp({{"one.example", "10.0.0.1", "fe80::1"}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(added(), "zorvo-10.0.0.1-fe80--1 unix - - n - - smtp -o smtp_bind_address=10.0.0.1 "
                       "-o smtp_bind_address6=fe80::1 -o smtp_address_preference=ipv4\n");
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@one.example zorvo-10.0.0.1-fe80--1:\n"});
}

TEST_F(TransportTest, IpServiceWithIpv4OnlyLeavesIpv6Empty)
{
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(added(),
              "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n");
}

TEST_F(TransportTest, IpServiceWithIpv6OnlyLeavesIpv4Empty)
{
    const Outcome outcome = runDomainIp({{"one.example", "", "2001:db8::1"}});
    EXPECT_EQ(added(),
              "zorvo--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= "
              "-o smtp_bind_address6=2001:db8::1 -o smtp_address_preference=ipv6 -o inet_protocols=ipv6\n");
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@one.example zorvo--2001-db8--1:\n"});
}

TEST_F(TransportTest, DomainServiceWithIpv4OnlyEndsWithItsHeloName)
{
    const Outcome outcome = runDomainName({{"example.org", "10.0.0.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(added(), "zorvo-example.org-10.0.0.1- unix - - n - - smtp -o smtp_bind_address=10.0.0.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=example.org\n");
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@example.org zorvo-example.org-10.0.0.1-:\n"});
}

TEST_F(TransportTest, DomainServiceWithIpv6OnlyEndsWithItsHeloName)
{
    runDomainName({{"example.org", "", "2001:db8::1"}});
    EXPECT_EQ(added(),
              "zorvo-example.org--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= "
              "-o smtp_bind_address6=2001:db8::1 -o smtp_address_preference=ipv6 -o inet_protocols=ipv6 "
              "-o smtp_helo_name=example.org\n");
}

TEST_F(TransportTest, DomainsOfOneAddressPairShareOneIpService)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", "2001:db8::1"},
                                         {"two.example", "192.0.2.1", "2001:db8::1"},
                                         {"three.example", "192.0.2.1", "2001:db8::1"}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, addRecord, addRecord, restart}));
    EXPECT_EQ(added(), "zorvo-192.0.2.1-2001-db8--1 unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6=2001:db8::1 -o smtp_address_preference=ipv4\n");
    EXPECT_EQ(outcome.records(), (std::vector<std::string>{"@one.example zorvo-192.0.2.1-2001-db8--1:\n",
                                                           "@two.example zorvo-192.0.2.1-2001-db8--1:\n",
                                                           "@three.example zorvo-192.0.2.1-2001-db8--1:\n"}));
}

TEST_F(TransportTest, SharedServiceKeepsItsPlaceWhenAnotherDomainNamesItAgain)
{
    runDomainIp({{"one.example", "192.0.2.1", ""},
                 {"two.example", "192.0.2.2", ""},
                 {"three.example", "192.0.2.1", ""}});
    EXPECT_EQ(added(),
              "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n"
              "zorvo-192.0.2.2- unix - - n - - smtp -o smtp_bind_address=192.0.2.2 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n");
}

TEST_F(TransportTest, DomainsOfOneAddressPairHaveTheirOwnDomainServices)
{
    const Outcome outcome =
        runDomainName({{"one.example", "192.0.2.1", ""}, {"two.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(added(), "zorvo-one.example-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=one.example\n"
                       "zorvo-two.example-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=two.example\n");
}

TEST_F(TransportTest, DomainGivenTwiceIsWrittenTwiceInOrder)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}, {"one.example", "192.0.2.2", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, addRecord, restart}));
    EXPECT_EQ(outcome.records(), (std::vector<std::string>{"@one.example zorvo-192.0.2.1-:\n",
                                                           "@one.example zorvo-192.0.2.2-:\n"}));
}

TEST_F(TransportTest, SameBindingTwiceIsAppliedTwice)
{
    const Outcome outcome =
        runDomainName({{"one.example", "192.0.2.1", ""}, {"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, addRecord, restart}));
    EXPECT_EQ(added(), "zorvo-one.example-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=one.example\n");
}

TEST_F(TransportTest, DomainIsLowerCasedInTheRecord)
{
    const Outcome outcome = runDomainIp({{"Example.COM", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@example.com zorvo-192.0.2.1-:\n"});
}

TEST_F(TransportTest, DomainIsLowerCasedInServiceNameHeloNameAndRecord)
{
    const Outcome outcome = runDomainName({{"Example.COM", "192.0.2.1", ""}});
    EXPECT_EQ(added(), "zorvo-example.com-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=example.com\n");
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@example.com zorvo-example.com-192.0.2.1-:\n"});
}

TEST_F(TransportTest, DomainsThatDifferOnlyInCaseAreOne)
{
    const Outcome outcome =
        runDomainName({{"one.example", "192.0.2.1", ""}, {"ONE.example", "192.0.2.1", ""}});
    EXPECT_EQ(added(), "zorvo-one.example-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                       "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                       "-o smtp_helo_name=one.example\n");
    EXPECT_EQ(outcome.records(), (std::vector<std::string>{"@one.example zorvo-one.example-192.0.2.1-:\n",
                                                           "@one.example zorvo-one.example-192.0.2.1-:\n"}));
}

// The addresses keep their case, and a service name with capitals cannot be read back.
TEST_F(TransportTest, AddressInCapitalsMakesTheNextRunFail)
{
    const Outcome first = runDomainIp({{"one.example", "", "2001:DB8::1"}});
    EXPECT_EQ(first.end, success());
    const std::string service = "zorvo--2001-DB8--1 unix - - n - - smtp -o smtp_bind_address= "
                                "-o smtp_bind_address6=2001:DB8::1 -o smtp_address_preference=ipv6 "
                                "-o inet_protocols=ipv6";
    EXPECT_EQ(added(), service + '\n');
    EXPECT_EQ(
        runExplicitIp().end,
        failure(
            "zorvo::mail::postfix::PostfixConfigurationError(unable to parse /etc/postfix/master.cf: syntax "
            "error at position " +
            std::to_string(std::string(plainServices).size() + 1) + " near '" + service + "')"));
}

TEST_F(TransportTest, OnlyColonsOfTheNameAreReplaced)
{
    const Outcome outcome = runDomainName({{"a:b_c.example", "192.0.2.1", "::ffff:192.0.2.1"}});
    EXPECT_EQ(added(), "zorvo-a-b_c.example-192.0.2.1---ffff-192.0.2.1 unix - - n - - smtp "
                       "-o smtp_bind_address=192.0.2.1 -o smtp_bind_address6=::ffff:192.0.2.1 "
                       "-o smtp_address_preference=ipv4 -o smtp_helo_name=a:b_c.example\n");
    EXPECT_EQ(outcome.records(),
              std::vector<std::string>{"@a:b_c.example zorvo-a-b_c.example-192.0.2.1---ffff-192.0.2.1:\n"});
}

TEST_F(TransportTest, DomainAndAddressesArePassedOnAsGiven)
{
    const Outcome outcome = runDomainIp({{" one example ", "192.0.2.1 ", "no address"}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(added(), "zorvo-192.0.2.1 -no address unix - - n - - smtp -o smtp_bind_address=192.0.2.1  "
                       "-o smtp_bind_address6=no address -o smtp_address_preference=ipv4\n");
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@ one example  zorvo-192.0.2.1 -no address:\n"});
}

TEST_F(TransportTest, RecordLongerThanAPipeArrivesWhole)
{
    const std::string domain(300000, 'a');
    const Outcome outcome = runDomainIp({{domain, "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@" + domain + " zorvo-192.0.2.1-:\n"});
}

TEST_F(TransportTest, TableHoldsOneRecordForEachDomainAfterADomainRun)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}, {"two.example", "192.0.2.1", ""}});
    EXPECT_EQ(tableAfter(outcome, {{"@left.example", "zorvo-192.0.2.9-:"}}),
              (std::map<std::string, std::string>{{"@one.example", "zorvo-192.0.2.1-:"},
                                                  {"@two.example", "zorvo-192.0.2.1-:"}}));
}

TEST_F(TransportTest, TableIsEmptyAfterAnExplicitIpRun)
{
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(tableAfter(outcome, {{"@left.example", "zorvo-192.0.2.9-:"}}),
              (std::map<std::string, std::string>{}));
}

// A binding that cannot be made stops the run at this point.

TEST_F(TransportTest, EmptyDomainStopsTheRunAndKeepsWhatWasAdded)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""},
                                         {"two.example", "192.0.2.2", ""},
                                         {"", "192.0.2.3", ""},
                                         {"four.example", "192.0.2.4", ""}});
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(Empty domain name specified: Success)"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, addRecord}));
    EXPECT_EQ(added(),
              "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n"
              "zorvo-192.0.2.2- unix - - n - - smtp -o smtp_bind_address=192.0.2.2 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n");
    EXPECT_EQ(tableAfter(outcome, {}),
              (std::map<std::string, std::string>{{"@one.example", "zorvo-192.0.2.1-:"},
                                                  {"@two.example", "zorvo-192.0.2.2-:"}}));
}

TEST_F(TransportTest, EmptyDomainInADomainNameRunStopsIt)
{
    const Outcome outcome = runDomainName({{"one.example", "192.0.2.1", ""}, {"", "192.0.2.3", ""}});
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(Empty domain name specified: Success)"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord}));
}

TEST_F(TransportTest, FirstDomainEmptyLeavesTheWipedState)
{
    writeMasterCf("smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n");
    const Outcome outcome = runDomainIp({{"", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(Empty domain name specified: Success)"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
}

TEST_F(TransportTest, BothAddressesEmptyStopTheRunAndKeepWhatWasAdded)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}, {"two.example", "", ""}});
    EXPECT_EQ(outcome.end,
              failure("zorvo::SystemError(You should specify at least one non-empty ip adress: Success)"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord}));
    EXPECT_EQ(added(),
              "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n");
}

TEST_F(TransportTest, BothAddressesEmptyInADomainNameRunStopIt)
{
    const Outcome outcome = runDomainName({{"one.example", "", ""}});
    EXPECT_EQ(outcome.end,
              failure("zorvo::SystemError(You should specify at least one non-empty ip adress: Success)"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
    EXPECT_EQ(masterCf(), plainServices);
}

TEST_F(TransportTest, EmptyDomainIsFoundBeforeEmptyAddresses)
{
    EXPECT_EQ(runDomainIp({{"", "", ""}}).end,
              failure("zorvo::SystemError(Empty domain name specified: Success)"));
}

} // namespace contract
