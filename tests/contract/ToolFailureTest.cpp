// postconf and postmap that fail, die, are missing or do not read what they are given.
#include "Fixture.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

End configurationError(const std::string& message)
{
    return failure("zorvo::mail::postfix::PostfixConfigurationError(" + message + ')');
}

const char complaint[] = "postconf: fatal: open /etc/postfix/main.cf: Permission denied\n";

const char generatedServices[] = "smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n";

class ToolFailureTest : public ContractTest {
protected:
    // A run in which a step of the wiping fails: what ran, what was said, and that master.cf was not touched.
    static void expectWipingStopped(const std::vector<Command>& commands, const End& end)
    {
        writeMasterCf(generatedServices);
        const World before = world();
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end, end);
        EXPECT_EQ(outcome.commands(), commands);
        EXPECT_EQ(outcome.leftProcesses, 0);
        EXPECT_EQ(world().at(masterCfPath), before.at(masterCfPath));
        EXPECT_EQ(listing(configDirectory), std::vector<std::string>{"master.cf"});
        EXPECT_EQ(listing(spoolDirectory), std::vector<std::string>());
    }
};

} // namespace

// Every step in turn.

TEST_F(ToolFailureTest, FirstRemovalThatFailsStopsTheRun)
{
    answer(Answer(removeFirstParameter).complains(complaint).exits(1));
    expectWipingStopped(wipeUpTo(removeFirstParameter), configurationError(complaint));
}

TEST_F(ToolFailureTest, LastRemovalThatFailsStopsTheRun)
{
    answer(Answer(removeLastParameter).complains(complaint).exits(1));
    expectWipingStopped(wipeBefore(emptyTable), configurationError(complaint));
}

TEST_F(ToolFailureTest, TableThatCannotBeEmptiedStopsTheRun)
{
    answer(Answer(emptyTable).complains("postmap: fatal: open database: No space left on device\n").exits(1));
    expectWipingStopped(wipeUpTo(emptyTable),
                        configurationError("postmap: fatal: open database: No space left on device\n"));
}

TEST_F(ToolFailureTest, TableSourceIsThereWhileEmptyingFails)
{
    answer(Answer(emptyTable).exits(1));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.call(emptyTable).tableSource, (FileState{0644, ""}));
    EXPECT_EQ(stateOf(tableSourcePath), FileState());
}

TEST_F(ToolFailureTest, SecondQueryThatFailsHasNoFallback)
{
    answer(Answer(askDirectory).onRun(2).complains(complaint).exits(1));
    expectWipingStopped(afterWipe({}), configurationError(complaint));
}

TEST_F(ToolFailureTest, Ipv4AddressThatCannotBeSetStopsTheRun)
{
    writeMasterCf(generatedServices);
    answer(Answer(setParameter("smtp_bind_address=192.0.2.1")).complains(complaint).exits(1));
    const Outcome outcome = Program({"-t", "explicit-ip", "-4", "192.0.2.1", "-6", "2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, configurationError(complaint));
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1")}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
}

TEST_F(ToolFailureTest, Ipv6AddressThatCannotBeSetStopsTheRun)
{
    answer(Answer(setParameter("smtp_bind_address6=2001:db8::1")).complains(complaint).exits(1));
    const Outcome outcome = Program({"-t", "explicit-ip", "-4", "192.0.2.1", "-6", "2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, configurationError(complaint));
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"),
                                             setParameter("smtp_bind_address6=2001:db8::1")}));
}

TEST_F(ToolFailureTest, RecordThatCannotBeAddedStopsTheRunAndKeepsItsService)
{
    answer(Answer(addRecord).onRun(2).complains("postmap: fatal: full\n").exits(1));
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""},
                                         {"two.example", "", "2001:db8::2"},
                                         {"three.example", "192.0.2.3", ""}});
    EXPECT_EQ(outcome.end, configurationError("postmap: fatal: full\n"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, addRecord}));
    EXPECT_EQ(masterCf(),
              plainServices +
                  std::string("\nzorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                              "-o smtp_bind_address6= -o smtp_address_preference=ipv4 "
                              "-o inet_protocols=ipv4\n"
                              "zorvo--2001-db8--2 unix - - n - - smtp -o smtp_bind_address= "
                              "-o smtp_bind_address6=2001:db8::2 -o smtp_address_preference=ipv6 "
                              "-o inet_protocols=ipv6\n"));
}

// What makes a failure, and its text.

TEST_F(ToolFailureTest, FailureWithoutErrorOutputIsAnUnknownError)
{
    answer(Answer(removeFirstParameter).exits(1));
    expectWipingStopped(wipeUpTo(removeFirstParameter), configurationError("unknown error"));
}

TEST_F(ToolFailureTest, LargestExitCodeIsAFailure)
{
    answer(Answer(emptyTable).exits(255));
    expectWipingStopped(wipeUpTo(emptyTable), configurationError("unknown error"));
}

TEST_F(ToolFailureTest, ExitCodeWithOnlyTheHighestBitIsAFailure)
{
    answer(Answer(emptyTable).exits(128));
    expectWipingStopped(wipeUpTo(emptyTable), configurationError("unknown error"));
}

TEST_F(ToolFailureTest, DeathBySignalWithoutErrorOutputIsAnUnknownError)
{
    answer(Answer(removeLastParameter).diesBy(SIGKILL));
    expectWipingStopped(wipeBefore(emptyTable), configurationError("unknown error"));
}

TEST_F(ToolFailureTest, DeathBySignalIsReportedWithWhatTheToolWrote)
{
    answer(Answer(emptyTable).complains("postmap: panic: here").diesBy(SIGSEGV));
    expectWipingStopped(wipeUpTo(emptyTable), configurationError("postmap: panic: here"));
}

TEST_F(ToolFailureTest, ReasonOfSeveralLinesIsKeptAsItStands)
{
    answer(Answer(removeFirstParameter)
               .complains("  postconf: warning: one\n\npostconf: fatal: two\n\n")
               .exits(75));
    expectWipingStopped(wipeUpTo(removeFirstParameter),
                        configurationError("  postconf: warning: one\n\npostconf: fatal: two\n\n"));
}

TEST_F(ToolFailureTest, LongReasonIsKeptWhole)
{
    const std::string reason(300000, 'x');
    answer(Answer(emptyTable).complains(reason).exits(1));
    expectWipingStopped(wipeUpTo(emptyTable), configurationError(reason));
}

TEST_F(ToolFailureTest, OutputIsNotPartOfTheReason)
{
    answer(Answer(emptyTable).prints("half done\n").exits(1));
    writeMasterCf(generatedServices);
    const Outcome outcome = runExplicitIp();
    const End expected = configurationError("unknown error");
    EXPECT_EQ(outcome.end, (End{expected.waitStatus, "half done\n" + expected.out, expected.err}));
}

TEST_F(ToolFailureTest, WarningsOfSuccessfulToolsAreNotShown)
{
    for (const Command& command : afterWipe({addRecord}))
        answer(Answer(command)
                   .prints(command == askDirectory ? "/etc/postfix\n" : "")
                   .complains("postconf: fatal: not really: so\n"));
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
}

TEST_F(ToolFailureTest, OutputOfChangesPassesThrough)
{
    std::string removals;
    for (const std::string& name : removedParameters) {
        answer(Answer(removeParameter(name)).prints(name + ' '));
        removals += name + ' ';
    }
    answer(Answer(emptyTable).prints("emptied "));
    answer(Answer(setParameter("smtp_bind_address=192.0.2.1")).prints("set\n"));
    EXPECT_EQ(runExplicitIp().end, (End{0, removals + "emptied set\n", ""}));
}

TEST_F(ToolFailureTest, OutputOfAddingARecordPassesThrough)
{
    answer(Answer(addRecord).prints("added\n"));
    EXPECT_EQ(runDomainIp({{"one.example", "192.0.2.1", ""}}).end, (End{0, "added\n", ""}));
}

// Tools that cannot be executed.

TEST_F(ToolFailureTest, MissingPostconfStopsTheRunAtOnce)
{
    fs::remove(postconfPath);
    expectWipingStopped(
        {}, failure("zorvo::SystemError(execv: No such file or directory: No such file or directory)"));
}

TEST_F(ToolFailureTest, MissingPostmapStopsTheRunBeforeTheTable)
{
    fs::remove(postmapPath);
    expectWipingStopped(
        wipeBefore(emptyTable),
        failure("zorvo::SystemError(execv: No such file or directory: No such file or directory)"));
}

TEST_F(ToolFailureTest, PostconfThatMayNotBeExecutedStopsTheRunAtOnce)
{
    fs::remove(postconfPath);
    writeWhole(postconfPath, "");
    expectWipingStopped({}, failure("zorvo::SystemError(execv: Permission denied: Permission denied)"));
}

TEST_F(ToolFailureTest, PostmapThatIsNotAProgramStopsTheRunBeforeTheTable)
{
    fs::remove(postmapPath);
    writeWhole(postmapPath, "no program\n");
    chmod(postmapPath, 0755);
    expectWipingStopped(wipeBefore(emptyTable),
                        failure("zorvo::SystemError(execv: Exec format error: Exec format error)"));
}

TEST_F(ToolFailureTest, PostmapThatIsADirectoryStopsTheRunBeforeTheTable)
{
    fs::remove(postmapPath);
    fs::create_directory(postmapPath);
    const Outcome outcome = runExplicitIp();
    fs::remove(postmapPath);
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(execv: Permission denied: Permission denied)"));
    EXPECT_EQ(outcome.commands(), wipeBefore(emptyTable));
}

// Tools that end before they have read their input. Input that is larger than a pipe cannot have been written
// completely by then; a short record may or may not have been.

TEST_F(ToolFailureTest, ToolThatSucceedsWithoutReadingItsInputIsAFailedWrite)
{
    answer(Answer(addRecord).leavesInput());
    const Outcome outcome =
        runDomainIp({{std::string(2000000, 'a'), "192.0.2.1", ""}, {"two.example", "192.0.2.2", ""}});
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(write: Broken pipe)"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord}));
    EXPECT_EQ(outcome.leftProcesses, 0);
}

TEST_F(ToolFailureTest, ToolThatFailsWithoutReadingItsInputIsReportedWithItsErrorOutput)
{
    answer(Answer(addRecord).leavesInput().complains("postmap: fatal: no\n").exits(1));
    const Outcome outcome = runDomainName({{std::string(2000000, 'a'), "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, configurationError("postmap: fatal: no\n"));
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord}));
    EXPECT_EQ(outcome.leftProcesses, 0);
}

TEST_F(ToolFailureTest, ToolThatFailsWithoutReadingAShortRecordIsReportedWithItsErrorOutput)
{
    answer(Answer(addRecord).leavesInput().complains("postmap: fatal: no\n").exits(1));
    for (int run = 0; run < 20; ++run) {
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        ASSERT_EQ(outcome.end, configurationError("postmap: fatal: no\n")) << "run " << run;
    }
}

TEST_F(ToolFailureTest, ToolThatIsKilledBeforeItReadsItsInputIsNotAFailedWrite)
{
    answer(Answer(addRecord).leavesInput().diesBy(SIGKILL));
    for (const size_t length : {1U, 2000000U}) {
        const Outcome outcome = runDomainIp({{std::string(length, 'a'), "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end, configurationError("unknown error")) << length;
    }
}

TEST_F(ToolFailureTest, ToolThatFailsAfterReadingItsInputIsAConfigurationError)
{
    answer(Answer(addRecord).complains("postmap: fatal: no\n").exits(1));
    const Outcome outcome = runDomainName({{std::string(300000, 'a'), "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, configurationError("postmap: fatal: no\n"));
    EXPECT_EQ(outcome.call(addRecord).input.size(), 1 + 300000 + 1 + 6 + 300000 + 13u);
}

// A failed tool leaves no lock, and the next run succeeds.
TEST_F(ToolFailureTest, RunAfterAFailureSucceeds)
{
    answer(Answer(addRecord).onRun(1).exits(1));
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
}

} // namespace contract
