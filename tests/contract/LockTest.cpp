// The lock files: which are held while what runs, waiting for them, and what is said of one that cannot be
// had.
#include "Fixture.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

class LockTest : public ContractTest {
protected:
    static std::string path(const char* lock) { return std::string(lockDirectory) + '/' + lock; }

    // Starts a run while the lock is held by somebody else; it has to wait after `before` and to do the rest
    // when the lock is free.
    static void expectWaits(const char* lock, const std::vector<Command>& before)
    {
        const int holder = open(path(lock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_NE(holder, -1);
        ASSERT_EQ(flock(holder, LOCK_EX), 0);
        Program program({"-t", "domain-ip"});
        program.file(request({{"one.example", "192.0.2.1", ""}}));
        waitUntilBlocked(program.start());
        std::vector<Command> commands;
        for (const std::string& record : readRecords(callDirectory))
            commands.push_back(callFromText(record).command);
        EXPECT_EQ(commands, before);
        close(holder);
        const Outcome outcome = program.finish();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.commands(), afterWipe({addRecord, restart}));
    }

    // A lock file that cannot be opened: reported as such, then as the failure of the run.
    static void expectReported(const char* lock, const std::string& reason, int number,
                               const std::vector<Command>& commands)
    {
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end,
                  failure("zorvo::SystemError(lock() failed: " + reason + ')',
                          "Unable to open file \"" + path(lock) + "\": " + reason + ".\nSystem error " +
                              std::to_string(number) + ": " + reason + '\n'));
        EXPECT_EQ(outcome.commands(), commands);
        EXPECT_EQ(listing("/etc/postfix"), std::vector<std::string>{"master.cf"});
        EXPECT_EQ(listing("/var/spool/postfix/zorvo"), std::vector<std::string>());
    }

private:
    // The kernel lists who waits for a lock, marked by an arrow.
    static void waitUntilBlocked(pid_t pid)
    {
        const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(pid) + ' ';
        while (readWhole("/proc/locks").find(waiting) == std::string::npos) {
            siginfo_t info = {};
            ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT), 0);
            ASSERT_EQ(info.si_pid, 0) << "the run ended without waiting for the lock";
            usleep(1000);
        }
    }
};

const char generatedServices[] = "smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n";

} // namespace

TEST_F(LockTest, EachChangeRunsUnderTheLockOfWhatItChanges)
{
    const Outcome domains = runDomainIp({{"one.example", "192.0.2.1", ""}});
    const Outcome explicitIp = runExplicitIp();
    typedef std::vector<std::string> Locks;
    std::vector<Locks> held;
    for (const Call& call : domains.calls)
        held.push_back(call.heldLocks);
    EXPECT_EQ(held, (std::vector<Locks>{{}, {mainCfLock}, {mainCfLock}, {tableLock}, {}, {tableLock}, {}}));
    EXPECT_EQ(explicitIp.call(setParameter("smtp_bind_address=192.0.2.1")).heldLocks, Locks{mainCfLock});
}

TEST_F(LockTest, LockFilesAreEmptyAndStay)
{
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_THAT(listing(lockDirectory), testing::UnorderedElementsAre(mainCfLock, tableLock, masterCfLock));
    for (const char* lock : {mainCfLock, tableLock, masterCfLock}) {
        EXPECT_EQ(stateOf(path(lock)), (FileState{0644, ""}));
        EXPECT_FALSE(isLocked(path(lock)));
    }
}

TEST_F(LockTest, FileThatIsNotStoredIsNotLocked)
{
    runExplicitIp();
    EXPECT_THAT(listing(lockDirectory), testing::UnorderedElementsAre(mainCfLock, tableLock));
}

TEST_F(LockTest, LockFilesThatExistAreTruncatedAndKept)
{
    writeWhole(path(tableLock), "4711\n");
    const World before = world();
    runExplicitIp();
    EXPECT_EQ(stateOf(path(tableLock)), (FileState{0644, ""}));
    EXPECT_EQ(world().at(path(tableLock)) + "4711\n", before.at(path(tableLock)));
}

TEST_F(LockTest, RunWaitsForTheLockOfMainCf)
{
    expectWaits(mainCfLock, {askDirectory});
}

TEST_F(LockTest, RunWaitsForTheLockOfTheTable)
{
    expectWaits(tableLock, {askDirectory, removeAddress4, removeAddress6});
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

TEST_F(LockTest, UnusableLockOfTheTableStopsBeforeTheTable)
{
    writeMasterCf(generatedServices);
    fs::create_directory(path(tableLock));
    expectReported(tableLock, "Is a directory", 21, {askDirectory, removeAddress4, removeAddress6});
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
