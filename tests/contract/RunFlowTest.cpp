// The run flow: which tools run, with which arguments, in which order, for every transport type.
#include "Fixture.h"

namespace contract {

namespace {

class RunFlowTest : public ContractTest {};

const char generatedServices[] = "smtp inet n - y - - smtpd\n"
                                 "zorvo-192.0.2.9- unix - - n - - smtp -o smtp_bind_address=192.0.2.9\n"
                                 "zorvo-old.example-192.0.2.9- unix - - n - - smtp\n";

const char withoutGenerated[] = "smtp inet n - y - - smtpd\n";

} // namespace

TEST_F(RunFlowTest, ExplicitIpSetsTheIpv4AddressOnly)
{
    const Outcome outcome = Program({"--transport-type", "explicit-ip", "--ip4-addr", "192.0.2.1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
    EXPECT_EQ(outcome.leftProcesses, 0);
}

TEST_F(RunFlowTest, ExplicitIpSetsTheIpv6AddressOnly)
{
    const Outcome outcome = Program({"--transport-type", "explicit-ip", "--ip6-addr", "2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address6=2001:db8::1"), restart}));
}

TEST_F(RunFlowTest, ExplicitIpSetsIpv4BeforeIpv6)
{
    const Outcome outcome = Program({"-t", "explicit-ip", "-6", "2001:db8::1", "-4", "192.0.2.1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"),
                                             setParameter("smtp_bind_address6=2001:db8::1"), restart}));
}

TEST_F(RunFlowTest, ExplicitIpTakesAnEmptyAddressForNone)
{
    const Outcome outcome = Program({"-t", "explicit-ip", "-4", "", "-6", "2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address6=2001:db8::1"), restart}));
}

TEST_F(RunFlowTest, ExplicitIpPassesTheAddressesOnAsGiven)
{
    const Outcome outcome =
        Program({"-t", "explicit-ip", "-4", " no address = $x ", "-6", "2001:DB8::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address= no address = $x "),
                                             setParameter("smtp_bind_address6=2001:DB8::1"), restart}));
}

TEST_F(RunFlowTest, ExplicitIpDoesNotReadStandardInput)
{
    Program program({"-t", "explicit-ip", "-4", "192.0.2.1"});
    program.file("this is not a request");
    EXPECT_EQ(program.run().end, success());
    EXPECT_EQ(program.inputPosition(), 0);
}

TEST_F(RunFlowTest, ExplicitIpRemovesWhatEarlierRunsGenerated)
{
    writeMasterCf(generatedServices);
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
    EXPECT_EQ(outcome.call(setParameter("smtp_bind_address=192.0.2.1")).masterCf.bytes, withoutGenerated);
    EXPECT_EQ(masterCf(), withoutGenerated);
}

TEST_F(RunFlowTest, DomainIpStoresEachServiceBeforeItsRecord)
{
    const Outcome outcome =
        runDomainIp({{"one.example", "192.0.2.1", ""}, {"two.example", "", "2001:db8::2"}});
    EXPECT_EQ(outcome.end, success());
    ASSERT_EQ(outcome.commands(), afterWipe({addRecord, addRecord, restart}));
    const std::string first =
        "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
        "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n";
    const std::string second = "zorvo--2001-db8--2 unix - - n - - smtp -o smtp_bind_address= "
                               "-o smtp_bind_address6=2001:db8::2 -o smtp_address_preference=ipv6 "
                               "-o inet_protocols=ipv6\n";
    EXPECT_EQ(outcome.call(addRecord).masterCf.bytes, plainServices + ("\n" + first));
    EXPECT_EQ(outcome.calls[wipe().size() + 1].masterCf.bytes, plainServices + ("\n" + first) + second);
    EXPECT_EQ(masterCf(), plainServices + ("\n" + first) + second);
    EXPECT_EQ(outcome.records(), (std::vector<std::string>{"@one.example zorvo-192.0.2.1-:\n",
                                                           "@two.example zorvo--2001-db8--2:\n"}));
    EXPECT_EQ(outcome.leftProcesses, 0);
}

TEST_F(RunFlowTest, DomainNameStoresEachServiceBeforeItsRecord)
{
    const Outcome outcome =
        runDomainName({{"one.example", "192.0.2.1", ""}, {"two.example", "192.0.2.1", "2001:db8::2"}});
    EXPECT_EQ(outcome.end, success());
    ASSERT_EQ(outcome.commands(), afterWipe({addRecord, addRecord, restart}));
    const std::string first = "zorvo-one.example-192.0.2.1- unix - - n - - smtp "
                              "-o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
                              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                              "-o smtp_helo_name=one.example\n";
    const std::string second = "zorvo-two.example-192.0.2.1-2001-db8--2 unix - - n - - smtp "
                               "-o smtp_bind_address=192.0.2.1 -o smtp_bind_address6=2001:db8::2 "
                               "-o smtp_address_preference=ipv4 -o smtp_helo_name=two.example\n";
    EXPECT_EQ(outcome.call(addRecord).masterCf.bytes, plainServices + ("\n" + first));
    EXPECT_EQ(masterCf(), plainServices + ("\n" + first) + second);
    EXPECT_EQ(outcome.records(),
              (std::vector<std::string>{"@one.example zorvo-one.example-192.0.2.1-:\n",
                                        "@two.example zorvo-two.example-192.0.2.1-2001-db8--2:\n"}));
}

TEST_F(RunFlowTest, DomainTypesIgnoreTheAddressOptions)
{
    const Outcome outcome = Program({"-t", "domain-ip", "-4", "192.0.2.7", "-6", "2001:db8::7"})
                                .pipe(request({{"one.example", "192.0.2.1", ""}}))
                                .run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    EXPECT_EQ(outcome.records(), std::vector<std::string>{"@one.example zorvo-192.0.2.1-:\n"});
}

TEST_F(RunFlowTest, DomainTypesReadStandardInputToItsEnd)
{
    const std::string text = request({{"one.example", "192.0.2.1", ""}}) + std::string(100000, ' ');
    Program program({"-t", "domain-name"});
    program.file(text);
    EXPECT_EQ(program.run().end, success());
    EXPECT_EQ(program.inputPosition(), static_cast<off_t>(text.size()));
}

TEST_F(RunFlowTest, EmptyListRemovesWhatEarlierRunsGenerated)
{
    writeMasterCf(generatedServices);
    const Outcome outcome = runDomainIp({});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
    EXPECT_EQ(masterCf(), withoutGenerated);
}

TEST_F(RunFlowTest, TypeInTheWrongCaseOnlyRemoves)
{
    writeMasterCf(generatedServices);
    const Outcome outcome = Program({"-t", "Explicit-IP", "-4", "192.0.2.1"})
                                .pipe(request({{"one.example", "192.0.2.1", ""}}))
                                .run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
    EXPECT_EQ(masterCf(), withoutGenerated);
}

TEST_F(RunFlowTest, UnknownTypeOnlyRemoves)
{
    writeMasterCf(generatedServices);
    const Outcome outcome = Program({"-t", "none"}).pipe(request({{"one.example", "192.0.2.1", ""}})).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
    EXPECT_EQ(masterCf(), withoutGenerated);
}

TEST_F(RunFlowTest, UnknownTypeIgnoresTheBindings)
{
    const Outcome outcome = Program({"-t", "domain-ip "}).pipe(request({{"", "", ""}})).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
}

TEST_F(RunFlowTest, EmptyTypeOnlyRemoves)
{
    writeMasterCf(generatedServices);
    const Outcome outcome = Program({"-t", ""}).pipe("{\"domains\": []}").run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
    EXPECT_EQ(masterCf(), withoutGenerated);
}

TEST_F(RunFlowTest, UnknownTypeNeedsAValidRequest)
{
    writeMasterCf(generatedServices);
    const World before = world();
    const Outcome outcome = Program({"-t", "Explicit-IP", "-4", "192.0.2.1"}).pipe("none").run();
    EXPECT_EQ(outcome.end, badRequest("JSON object is expected. Error occured at offset 0, character 'n'. "));
    EXPECT_EQ(outcome.commands(), std::vector<Command>());
    EXPECT_EQ(world(), before);
}

TEST_F(RunFlowTest, EachRunReplacesWhatTheOneBeforeMade)
{
    writeMasterCf("smtp inet n - y - - smtpd");
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    const Outcome domainName = runDomainName({{"two.example", "192.0.2.2", ""}});
    EXPECT_EQ(domainName.commands(), afterWipe({addRecord, restart}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n\n"
                          "zorvo-two.example-192.0.2.2- unix - - n - - smtp -o smtp_bind_address=192.0.2.2 "
                          "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4 "
                          "-o smtp_helo_name=two.example\n");
    const Outcome explicitIp = runExplicitIp();
    EXPECT_EQ(explicitIp.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
    const Outcome nothing = Program({"-t", "none"}).pipe("{\"domains\": []}").run();
    EXPECT_EQ(nothing.commands(), afterWipe({restart}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
}

TEST_F(RunFlowTest, SecondWipingRunChangesNothing)
{
    writeMasterCf(generatedServices);
    const Outcome first = Program({"-t", "none"}).pipe("{\"domains\": []}").run();
    const World once = world();
    const Outcome second = Program({"-t", "none"}).pipe("{\"domains\": []}").run();
    EXPECT_EQ(second.end, success());
    EXPECT_EQ(second.commands(), first.commands());
    EXPECT_EQ(world(), once);
}

TEST_F(RunFlowTest, EveryToolIsExecutedByItsPathUnderItsPath)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    ASSERT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    for (const Call& call : outcome.calls)
        EXPECT_EQ(call.program, call.command[0]);
}

TEST_F(RunFlowTest, TableSourceIsThereAndEmptyOnlyWhileTheTableIsEmptied)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    ASSERT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.tableSource, (call.command == emptyTable ? FileState{0644, ""} : FileState{}));
    }
    EXPECT_EQ(stateOf(tableSourcePath), FileState());
}

TEST_F(RunFlowTest, LeftTableSourceIsTruncatedBeforeTheTableIsEmptied)
{
    writeWhole(tableSourcePath, "@left.example zorvo-192.0.2.9-:\n");
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.call(emptyTable).tableSource, (FileState{0644, ""}));
    EXPECT_EQ(stateOf(tableSourcePath), FileState());
}

TEST_F(RunFlowTest, NoTemporaryFileIsLeft)
{
    runDomainName({{"one.example", "192.0.2.1", ""}, {"two.example", "", "2001:db8::1"}});
    EXPECT_EQ(listing(configDirectory), std::vector<std::string>{"master.cf"});
    EXPECT_EQ(listing(spoolDirectory), std::vector<std::string>());
    EXPECT_EQ(listing(queueDirectory), (std::vector<std::string>{"pid", "zorvo"}));
}

TEST_F(RunFlowTest, NoTemporaryFileIsLeftWhileAToolRuns)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    ASSERT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.postfixListing, std::vector<std::string>{"master.cf"});
        EXPECT_EQ(call.spoolListing,
                  (call.command == emptyTable ? std::vector<std::string>{"sdd_transport_maps"}
                                              : std::vector<std::string>{}));
    }
}

} // namespace contract
