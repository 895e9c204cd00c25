// Files that cannot be written: the table's source and master.cf.
#include "Fixture.h"

#include "support/Mounts.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace contract {

namespace {

// Some machines refuse a process mounts of its own.
#define SKIP_WITHOUT_MOUNTS()                                                                                \
    if (!canMount())                                                                                         \
    GTEST_SKIP() << "no private mounts here"

const char streamFailure[] = "std::__ios_failure(basic_ios::clear: iostream error)";

const char generatedServices[] = "smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n";

class FileFailureTest : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        if (!HasFatalFailure())
            writeMasterCf(generatedServices);
    }

    static void expectStopped(const std::string& description, const std::vector<Command>& commands)
    {
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end, failure(description));
        EXPECT_EQ(outcome.commands(), commands);
        EXPECT_EQ(listing(configDirectory), std::vector<std::string>{"master.cf"});
        EXPECT_EQ(masterCf(), generatedServices);
    }
};

} // namespace

TEST_F(FileFailureTest, MissingSpoolFolderStopsBeforeTheTable)
{
    fs::remove(spoolDirectory);
    expectStopped(streamFailure, wipeBefore(emptyTable));
    EXPECT_FALSE(fs::exists(spoolDirectory));
}

TEST_F(FileFailureTest, TableSourceThatIsAFolderStopsBeforeTheTable)
{
    fs::create_directory(tableSourcePath);
    expectStopped(streamFailure, wipeBefore(emptyTable));
}

TEST_F(FileFailureTest, ReadOnlySpoolFolderStopsBeforeTheTable)
{
    SKIP_WITHOUT_MOUNTS();
    const ScopedMount readOnly(spoolDirectory, spoolDirectory, nullptr, MS_BIND | MS_RDONLY);
    expectStopped(streamFailure, wipeBefore(emptyTable));
}

TEST_F(FileFailureTest, ReadOnlyConfigurationFolderStopsBeforeMasterCfIsStored)
{
    SKIP_WITHOUT_MOUNTS();
    const ScopedMount readOnly(configDirectory, configDirectory, nullptr, MS_BIND | MS_RDONLY);
    expectStopped("zorvo::SystemError(mkstemp() failed: : Read-only file system)", afterWipe({}));
}

TEST_F(FileFailureTest, FullConfigurationFolderKeepsTheOldFileAndNoNewOne)
{
    SKIP_WITHOUT_MOUNTS();
    const ScopedMount full("none", configDirectory, "tmpfs", 0, "size=4k,mode=755");
    writeMasterCf(generatedServices);
    expectStopped(streamFailure, afterWipe({}));
}

TEST_F(FileFailureTest, FailedRenameNamesBothFilesAndLeavesNoNewOne)
{
    SKIP_WITHOUT_MOUNTS();
    writeWhole("/run/sandbox/master.cf", generatedServices);
    const ScopedMount mounted("/run/sandbox/master.cf", masterCfPath, nullptr, MS_BIND);
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_THAT(
        outcome.end.err,
        testing::MatchesRegex("Fatal error: zorvo::mail::FSError\\(filesystem error: rename for "
                              "/etc/postfix/master.cf \\(/etc/postfix/master.cf[A-Za-z0-9]{6}\\): Device or "
                              "resource busy \\[/etc/postfix/master.cf[A-Za-z0-9]{6}\\]\\)\n"));
    EXPECT_EQ(outcome.end, (End{failure("").waitStatus, outcome.end.err, outcome.end.err}));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
    EXPECT_EQ(listing(configDirectory), std::vector<std::string>{"master.cf"});
    EXPECT_EQ(masterCf(), generatedServices);
}

} // namespace contract
