// Files that cannot be written: the table's source and master.cf.
#include "Fixture.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

// A mount for the length of a scope.
class Mount {
public:
    Mount(const char* source, const char* target, const char* type, unsigned long flags, const char* options)
        : target_(target), error_(mount(source, target, type, flags, options) == 0 ? 0 : errno)
    {
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    ~Mount()
    {
        if (error_ == 0)
            umount2(target_, MNT_DETACH);
    }

    /// Makes a mount of a directory onto itself read-only.
    void makeReadOnly() { mount("none", target_, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr); }

    /// Only a machine without private namespaces refuses.
    bool refused() const { return error_ == EPERM; }
    int error() const { return error_; }

private:
    const char* target_;
    int error_;
};

#define MOUNT_OR_SKIP(name, ...)                                                                             \
    Mount name(__VA_ARGS__);                                                                                 \
    if (name.refused())                                                                                      \
        GTEST_SKIP() << "needs to mount: " << strerror(name.error());                                        \
    ASSERT_EQ(name.error(), 0)

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
        EXPECT_EQ(listing("/etc/postfix"), std::vector<std::string>{"master.cf"});
        EXPECT_EQ(masterCf(), generatedServices);
    }
};

} // namespace

TEST_F(FileFailureTest, MissingSpoolFolderStopsBeforeTheTable)
{
    fs::remove("/var/spool/postfix/zorvo");
    expectStopped(streamFailure, wipeBefore(emptyTable));
    EXPECT_FALSE(fs::exists("/var/spool/postfix/zorvo"));
}

TEST_F(FileFailureTest, TableSourceThatIsAFolderStopsBeforeTheTable)
{
    fs::create_directory(tableSourcePath);
    expectStopped(streamFailure, wipeBefore(emptyTable));
}

TEST_F(FileFailureTest, ReadOnlySpoolFolderStopsBeforeTheTable)
{
    MOUNT_OR_SKIP(spool, "/var/spool/postfix/zorvo", "/var/spool/postfix/zorvo", nullptr, MS_BIND, nullptr);
    spool.makeReadOnly();
    expectStopped(streamFailure, wipeBefore(emptyTable));
}

TEST_F(FileFailureTest, ReadOnlyConfigurationFolderStopsBeforeMasterCfIsStored)
{
    MOUNT_OR_SKIP(configuration, "/etc/postfix", "/etc/postfix", nullptr, MS_BIND, nullptr);
    configuration.makeReadOnly();
    expectStopped("zorvo::SystemError(mkstemp() failed: : Read-only file system)", afterWipe({}));
}

TEST_F(FileFailureTest, FullConfigurationFolderKeepsTheOldFileAndNoNewOne)
{
    MOUNT_OR_SKIP(configuration, "none", "/etc/postfix", "tmpfs", 0, "size=4k,mode=755");
    writeMasterCf(generatedServices);
    expectStopped(streamFailure, afterWipe({}));
}

TEST_F(FileFailureTest, FailedRenameNamesBothFilesAndLeavesNoNewOne)
{
    writeWhole("/run/sandbox/master.cf", generatedServices);
    MOUNT_OR_SKIP(file, "/run/sandbox/master.cf", masterCfPath, nullptr, MS_BIND, nullptr);
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_THAT(
        outcome.end.err,
        testing::MatchesRegex("Fatal error: zorvo::mail::FSError\\(filesystem error: rename for "
                              "/etc/postfix/master.cf \\(/etc/postfix/master.cf[A-Za-z0-9]{6}\\): Device or "
                              "resource busy \\[/etc/postfix/master.cf[A-Za-z0-9]{6}\\]\\)\n"));
    EXPECT_EQ(outcome.end, (End{failure("").waitStatus, outcome.end.err, outcome.end.err}));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
    EXPECT_EQ(listing("/etc/postfix"), std::vector<std::string>{"master.cf"});
    EXPECT_EQ(masterCf(), generatedServices);
}

} // namespace contract
