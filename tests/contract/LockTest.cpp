// The locks: which are held during which tool run, who waits for them, and the message when one cannot be
// taken.
#include "Fixture.h"

#include <csignal>
#include <filesystem>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

class LockTest : public ContractTest {
protected:
    static std::string path(const std::string& lock) { return std::string(lockDirectory) + '/' + lock; }

    // Starts a run while somebody else holds the lock: it has to wait after `before`, with nothing done
    // further, and to do the rest when the lock is free.
    static void expectWaits(const std::string& lock, const std::vector<Command>& before)
    {
        HeldLock held(path(lock));
        Program program({"-t", "domain-ip"});
        program.file(request({{"one.example", "192.0.2.1", ""}}));
        ASSERT_TRUE(held.isAwaitedBy(program.start())) << "the run ended without waiting for the lock";
        EXPECT_EQ(commandsSoFar(), before);
        held.release();
        const Outcome outcome = program.finish();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    }

    // This run ends as it does when nobody holds the lock of the runs.
    static void expectDoesNotWait(Program& program, const End& end)
    {
        const HeldLock held(path(runLock));
        const World before = world();
        const Outcome outcome = program.run();
        EXPECT_EQ(outcome.end, end);
        EXPECT_EQ(outcome.commands(), std::vector<Command>());
        EXPECT_EQ(world(), before);
    }

    // A lock file that cannot be opened: reported as such, then as the failure of the run.
    static void expectReported(const std::string& lock, const std::string& reason, int number,
                               const std::vector<Command>& commands)
    {
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end,
                  failure("zorvo::SystemError(lock() failed: " + reason + ')',
                          "Unable to open file \"" + path(lock) + "\": " + reason + ".\nSystem error " +
                              std::to_string(number) + ": " + reason + '\n'));
        EXPECT_EQ(outcome.commands(), commands);
        EXPECT_EQ(listing(configDirectory), std::vector<std::string>{"master.cf"});
        EXPECT_EQ(listing(spoolDirectory), std::vector<std::string>());
    }

    static std::vector<Command> commandsSoFar()
    {
        std::vector<Command> commands;
        for (const std::string& record : readRecords(callDirectory))
            commands.push_back(callFromText(record).command);
        return commands;
    }
};

const char generatedServices[] = "smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n";

} // namespace

TEST_F(LockTest, EachChangeRunsUnderTheLockOfWhatItChanges)
{
    const Outcome domains = runDomainIp({{"one.example", "192.0.2.1", ""}});
    const Outcome explicitIp = runExplicitIp();
    std::vector<Command> commands = afterWipe({addRecord, restart});
    ASSERT_EQ(domains.commands(), commands);
    EXPECT_EQ(domains.calls.front().heldLocks, std::vector<std::string>());
    for (size_t i = 1; i < commands.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(commands[i]));
        const bool changesTable = commands[i] == emptyTable || commands[i] == addRecord;
        const bool changesNothing = commands[i] == askDirectory || commands[i] == restart;
        EXPECT_EQ(domains.calls[i].heldLocks, changesNothing
                                                  ? std::vector<std::string>{runLock}
                                                  : heldWith(changesTable ? tableLock : mainCfLock));
    }
    EXPECT_EQ(explicitIp.call(setParameter("smtp_bind_address=192.0.2.1")).heldLocks, heldWith(mainCfLock));
}

TEST_F(LockTest, LockFilesAreEmptyAndStay)
{
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_THAT(listing(lockDirectory),
                testing::UnorderedElementsAre(runLock, mainCfLock, tableLock, masterCfLock));
    for (const std::string& lock : {runLock, mainCfLock, tableLock, masterCfLock}) {
        EXPECT_EQ(stateOf(path(lock)), (FileState{0644, ""}));
        EXPECT_FALSE(isLocked(path(lock)));
    }
}

TEST_F(LockTest, FileThatIsNotStoredIsNotLocked)
{
    runExplicitIp();
    EXPECT_THAT(listing(lockDirectory), testing::UnorderedElementsAre(runLock, mainCfLock, tableLock));
}

TEST_F(LockTest, LockFilesThatExistAreTruncatedAndKept)
{
    writeWhole(path(tableLock), "4711\n");
    const World before = world();
    runExplicitIp();
    EXPECT_EQ(stateOf(path(tableLock)), (FileState{0644, ""}));
    EXPECT_EQ(world().at(path(tableLock)) + "4711\n", before.at(path(tableLock)));
}

TEST_F(LockTest, RunThatWaitsForAnotherHasOnlyAskedForTheDirectory)
{
    writeMasterCf(generatedServices);
    HeldLock held(path(runLock));
    Program program({"-t", "explicit-ip", "-4", "192.0.2.1"});
    ASSERT_TRUE(held.isAwaitedBy(program.start())) << "the run ended without waiting for the one before";
    EXPECT_EQ(commandsSoFar(), std::vector<Command>{askDirectory});
    EXPECT_EQ(masterCf(), generatedServices);
    EXPECT_EQ(listing(spoolDirectory), std::vector<std::string>());
    // What the run before has stored meanwhile is what this one starts from.
    writeMasterCf("smtp inet n - y - - smtpd -v\nzorvo-192.0.2.8- unix - - n - - smtp\n");
    held.release();
    EXPECT_EQ(program.finish().end, success());
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd -v\n");
}

TEST_F(LockTest, HelpDoesNotWait)
{
    const HeldLock held(path(runLock));
    const Outcome outcome = Program({"--help"}).run();
    EXPECT_EQ(outcome.end.waitStatus, W_EXITCODE(1, 0));
    EXPECT_EQ(outcome.commands(), std::vector<Command>());
}

TEST_F(LockTest, RefusedRequestDoesNotWait)
{
    Program program({"-t", "domain-name"});
    program.pipe("[]");
    expectDoesNotWait(program,
                      badRequest("JSON object is expected. Error occured at offset 0, character '['. "));
}

TEST_F(LockTest, ExplicitIpWithoutAddressesDoesNotWait)
{
    Program program({"-t", "explicit-ip"});
    expectDoesNotWait(program, failure("std::runtime_error(either ipv4 and ip6 empty)"));
}

TEST_F(LockTest, KilledRunReleasesTheLockOfTheRuns)
{
    const HeldLock held(path(tableLock));
    Program program({"-t", "explicit-ip", "-4", "192.0.2.1"});
    const pid_t pid = program.start();
    ASSERT_TRUE(held.isAwaitedBy(pid));
    EXPECT_TRUE(isLocked(path(runLock)));
    kill(pid, SIGKILL);
    EXPECT_EQ(program.finish().end, (End{SIGKILL, "", ""}));
    EXPECT_FALSE(isLocked(path(runLock)));
}

TEST_F(LockTest, FailedRunReleasesTheLockOfTheRuns)
{
    answer(Answer(emptyTable).exits(1));
    EXPECT_NE(runExplicitIp().end, success());
    EXPECT_FALSE(isLocked(path(runLock)));
}

TEST_F(LockTest, LaunchedProgramsInheritNoLock)
{
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.call(restart).heldLocks, std::vector<std::string>{runLock});
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.furtherDescriptors, std::vector<std::string>());
    }
}

TEST_F(LockTest, RunWaitsForTheLockOfMainCf)
{
    expectWaits(mainCfLock, {askDirectory});
}

TEST_F(LockTest, RunWaitsForTheLockOfTheTable)
{
    expectWaits(tableLock, wipeBefore(emptyTable));
}

TEST_F(LockTest, RunWaitsForTheLockOfMasterCf)
{
    expectWaits(masterCfLock, afterWipe({}));
    EXPECT_NE(masterCf(), plainServices);
}

TEST_F(LockTest, MissingLockDirectoryStopsTheFirstChange)
{
    writeMasterCf(generatedServices);
    fs::remove(lockDirectory);
    expectReported(mainCfLock, "No such file or directory", 2, {askDirectory});
    EXPECT_FALSE(fs::exists(lockDirectory));
    EXPECT_EQ(masterCf(), generatedServices);
}

TEST_F(LockTest, LockDirectoryThatIsAFileStopsTheFirstChange)
{
    fs::remove(lockDirectory);
    writeWhole(lockDirectory, "");
    expectReported(mainCfLock, "Not a directory", 20, {askDirectory});
    fs::remove(lockDirectory);
}

TEST_F(LockTest, UnusableLockOfTheRunsStopsTheFirstChange)
{
    writeMasterCf(generatedServices);
    fs::create_directory(path(runLock));
    expectReported(runLock, "Is a directory", 21, {askDirectory});
    EXPECT_EQ(masterCf(), generatedServices);
}

TEST_F(LockTest, UnusableLockOfTheTableStopsBeforeTheTable)
{
    writeMasterCf(generatedServices);
    fs::create_directory(path(tableLock));
    expectReported(tableLock, "Is a directory", 21, wipeBefore(emptyTable));
    EXPECT_EQ(masterCf(), generatedServices);
}

TEST_F(LockTest, UnusableLockOfMasterCfStopsBeforeItIsStored)
{
    writeMasterCf(generatedServices);
    fs::create_directory(path(masterCfLock));
    expectReported(masterCfLock, "Is a directory", 21, afterWipe({}));
    EXPECT_EQ(masterCf(), generatedServices);
}

TEST_F(LockTest, RefusedRequestTakesNoLock)
{
    Program({"-t", "domain-ip"}).pipe("[]").run();
    EXPECT_EQ(listing(lockDirectory), std::vector<std::string>());
}

} // namespace contract
