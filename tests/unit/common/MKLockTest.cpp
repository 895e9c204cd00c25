// MKLock: what its flags mean, what it throws, and how long it holds.
#include "common/MKLock.h"

#include "LockTools.h"
#include "common/SystemError.h"
#include "common/mk_lock.h"
#include "support/Capture.h"
#include "support/LibcFaults.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>

using namespace locktest;
using support::Capture;
using support::openFds;
using support::ScratchDir;
using zorvo::Blocking;
using zorvo::HashedName;
using zorvo::MKLock;
using zorvo::NonBlockingQuiet;
using zorvo::NonBlockingThrow;
using zorvo::PlainName;

namespace {

/// A value that is not an enumerator of either flag.
volatile const int otherFlag = 3;

class MKLockTest : public testing::Test {
protected:
    /// Path of the lock file that the name file_ leads to by its hash.
    std::string hashedPath() const
    {
        char* const path = mk_flock_path(file_.c_str());
        const std::string result = path;
        std::free(path);
        return result;
    }

    /// Takes the lock of file_ and never releases it; for a process of its own.
    std::function<void()> taking(zorvo::FilenameFlag kind)
    {
        return [this, kind] { new MKLock(file_, kind, Blocking); };
    }

    ScratchDir scratch_;
    std::string file_ = scratch_.file("lock");
};

} // namespace

TEST_F(MKLockTest, HashedNameLocksThroughTheLockDirectory)
{
    const MKLock lock(file_, HashedName, Blocking);
    EXPECT_TRUE(support::isLocked(hashedPath()));
}

TEST_F(MKLockTest, HashedNameLeavesTheNamedFileAlone)
{
    const MKLock lock(file_, HashedName, Blocking);
    EXPECT_THAT(scratch_.names(), testing::IsEmpty());
}

TEST_F(MKLockTest, PlainNameLocksTheNamedFile)
{
    const MKLock lock(file_, PlainName, Blocking);
    EXPECT_TRUE(support::isLocked(file_));
}

TEST_F(MKLockTest, PlainNameLeavesTheLockDirectoryAlone)
{
    const auto before = support::namesIn(support::lockDirectory);
    const MKLock lock(file_, PlainName, Blocking);
    EXPECT_EQ(before, support::namesIn(support::lockDirectory));
}

TEST_F(MKLockTest, AnyOtherFilenameFlagMeansHashedName)
{
    const MKLock lock(file_, static_cast<zorvo::FilenameFlag>(otherFlag), Blocking);
    EXPECT_TRUE(support::isLocked(hashedPath()));
}

TEST_F(MKLockTest, LockIsFreeAfterTheScope)
{
    {
        const MKLock lock(file_, PlainName, Blocking);
    }
    EXPECT_FALSE(support::isLocked(file_));
}

TEST_F(MKLockTest, LockIsFreeAfterAnExceptionLeftTheScope)
{
    try {
        const MKLock lock(file_, PlainName, Blocking);
        throw 1;
    } catch (int) {
    }
    EXPECT_FALSE(support::isLocked(file_));
}

TEST_F(MKLockTest, LeavesNoDescriptor)
{
    const auto before = openFds();
    {
        const MKLock lock(file_, HashedName, Blocking);
    }
    EXPECT_EQ(before, openFds());
}

TEST_F(MKLockTest, LeavesTheLockFile)
{
    {
        const MKLock lock(file_, HashedName, Blocking);
    }
    EXPECT_EQ("", support::readFile(hashedPath()));
}

TEST_F(MKLockTest, IsLockedWhileItHolds)
{
    EXPECT_TRUE(MKLock(file_, PlainName, Blocking).isLocked());
    EXPECT_TRUE(MKLock(file_, PlainName, NonBlockingThrow).isLocked());
    EXPECT_TRUE(MKLock(file_, PlainName, NonBlockingQuiet).isLocked());
}

TEST_F(MKLockTest, OrdinaryUsePrintsNothing)
{
    Capture capture;
    {
        const MKLock lock(file_, HashedName, Blocking);
    }
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(MKLockTest, BlockingWaitsUntilTheLockOfTheOtherProcessIsDestroyed)
{
    Waiter waiter(taking(HashedName));
    auto lock = std::make_unique<MKLock>(file_, HashedName, Blocking);
    EXPECT_TRUE(waiter.startsToWait());
    lock.reset();
    EXPECT_TRUE(waiter.got());
}

TEST_F(MKLockTest, DifferentNamesDoNotWaitForEachOther)
{
    Waiter waiter([this] { new MKLock(scratch_.file("Lock"), HashedName, Blocking); });
    const MKLock lock(file_, HashedName, Blocking);
    EXPECT_FALSE(waiter.startsToWait());
    EXPECT_TRUE(waiter.got());
}

TEST_F(MKLockTest, NonBlockingThrowNamesTheLockedFile)
{
    const Holder holder(taking(HashedName));
    try {
        const MKLock lock(file_, HashedName, NonBlockingThrow);
        FAIL() << "expected an exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ("lock(" + file_ + ") failed: file is already locked", e.what());
    }
}

TEST_F(MKLockTest, NonBlockingThrowThrowsAPlainRuntimeError)
{
    const Holder holder(taking(HashedName));
    try {
        const MKLock lock(file_, HashedName, NonBlockingThrow);
        FAIL() << "expected an exception";
    } catch (const std::exception& e) {
        EXPECT_EQ(typeid(std::runtime_error), typeid(e));
    }
}

TEST_F(MKLockTest, NonBlockingThrowLeavesNoDescriptor)
{
    const Holder holder(taking(HashedName));
    const auto before = openFds();
    EXPECT_THROW(MKLock(file_, HashedName, NonBlockingThrow), std::runtime_error);
    EXPECT_EQ(before, openFds());
}

TEST_F(MKLockTest, NonBlockingQuietHoldsNothing)
{
    const Holder holder(taking(HashedName));
    EXPECT_FALSE(MKLock(file_, HashedName, NonBlockingQuiet).isLocked());
}

TEST_F(MKLockTest, NonBlockingQuietPrintsNothing)
{
    const Holder holder(taking(HashedName));
    Capture capture;
    {
        const MKLock lock(file_, HashedName, NonBlockingQuiet);
    }
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(MKLockTest, NonBlockingQuietLeavesTheLockOfTheOther)
{
    const Holder holder(taking(HashedName));
    {
        const MKLock lock(file_, HashedName, NonBlockingQuiet);
    }
    EXPECT_TRUE(support::isLocked(hashedPath()));
}

TEST_F(MKLockTest, AnyOtherBlockFlagMeansNonBlockingQuiet)
{
    const Holder holder(taking(HashedName));
    EXPECT_FALSE(MKLock(file_, HashedName, static_cast<zorvo::BlockFlag>(otherFlag)).isLocked());
}

TEST_F(MKLockTest, NonBlockingThrowTakesTheLockOfAKilledHolder)
{
    Holder holder(taking(HashedName));
    EXPECT_THROW(MKLock(file_, HashedName, NonBlockingThrow), std::runtime_error);
    holder.kill();
    EXPECT_TRUE(MKLock(file_, HashedName, NonBlockingThrow).isLocked());
}

TEST_F(MKLockTest, MissingDirectoryThrowsAPlainSystemErrorWithENOENT)
{
    Capture capture;
    try {
        const MKLock lock(scratch_.file("missing/lock"), PlainName, Blocking);
        capture.stop();
        FAIL() << "expected an exception";
    } catch (const zorvo::SystemError& e) {
        capture.stop();
        EXPECT_EQ(typeid(zorvo::SystemError), typeid(e));
        EXPECT_EQ(ENOENT, e.code());
        EXPECT_STREQ("lock() failed: No such file or directory", e.what());
    }
}

TEST_F(MKLockTest, MissingDirectoryIsTheSameFailureWithoutWaiting)
{
    for (const zorvo::BlockFlag flag : {NonBlockingThrow, NonBlockingQuiet}) {
        SCOPED_TRACE(flag);
        Capture capture;
        try {
            const MKLock lock(scratch_.file("missing/lock"), PlainName, flag);
            capture.stop();
            FAIL() << "expected an exception";
        } catch (const zorvo::SystemError& e) {
            capture.stop();
            EXPECT_STREQ("lock() failed: No such file or directory", e.what());
        }
    }
}

TEST_F(MKLockTest, MissingDirectoryLeavesNoDescriptor)
{
    const auto before = openFds();
    {
        Capture capture;
        EXPECT_THROW(MKLock(scratch_.file("missing/lock"), PlainName, Blocking), zorvo::SystemError);
    }
    EXPECT_EQ(before, openFds());
}

TEST_F(MKLockTest, FailedLockKeepsNoMemory)
{
    const std::string missing = scratch_.file("missing/lock");
    const auto fail = [&missing] { EXPECT_THROW(MKLock(missing, PlainName, Blocking), zorvo::SystemError); };
    Capture capture;
    fail(); // The first one may allocate what is kept for good.
    const size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i)
        fail();
    const size_t after = ::mallinfo2().uordblks;
    capture.stop();
    EXPECT_EQ(before, after);
}

TEST_F(MKLockTest, MissingLockDirectoryIsReportedAndThrown)
{
    const support::ChildResult result = withoutLockDirectory([] {
        try {
            const MKLock lock("abc", HashedName, Blocking);
        } catch (const zorvo::SystemError& e) {
            std::fprintf(stderr, "[%s][%d]", e.what(), e.code());
            return 0;
        }
        return 1;
    });
    const std::string report =
        "Unable to open file \"/run/lock/files/900150983cd24fb0d6963f7d28e17f72\": No such "
        "file or directory.\nSystem error 2: No such file or directory\n";
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(report, result.out);
    EXPECT_EQ(report + "[lock() failed: No such file or directory][2]", result.err);
}

TEST_F(MKLockTest, OldErrnoIsNotTheCodeOfAFailure)
{
    Capture capture;
    errno = EPERM;
    try {
        const MKLock lock(scratch_.path(), PlainName, Blocking);
        capture.stop();
        FAIL() << "expected an exception";
    } catch (const zorvo::SystemError& e) {
        capture.stop();
        EXPECT_EQ(EISDIR, e.code());
    }
}

TEST_F(MKLockTest, FailedFlockThrowsItsErrno)
{
    const support::LibcFault fault(support::LibcCall::Flock, ENOLCK, 1);
    try {
        const MKLock lock(file_, PlainName, Blocking);
        FAIL() << "expected an exception";
    } catch (const zorvo::SystemError& e) {
        EXPECT_STREQ("lock() failed: No locks available", e.what());
        EXPECT_EQ(ENOLCK, e.code());
    }
}

TEST_F(MKLockTest, FailedFlockLeavesNoDescriptor)
{
    const auto before = openFds();
    const support::LibcFault fault(support::LibcCall::Flock, ENOLCK, 1);
    EXPECT_THROW(MKLock(file_, PlainName, Blocking), zorvo::SystemError);
    EXPECT_EQ(before, openFds());
}

TEST_F(MKLockTest, HandleThatCannotBeAllocatedThrowsENOMEM)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    int code = 0;
    try {
        const support::MemoryFault fault(0);
        const MKLock lock(file_, PlainName, Blocking);
    } catch (const zorvo::SystemError& e) {
        code = e.code();
    }
    EXPECT_EQ(ENOMEM, code);
}

// A failing close(2) is reported by the plain functions; the destructor must not throw.
TEST_F(MKLockTest, DestructorReportsAFailedCloseAndDoesNotThrow)
{
    const std::string report = "An error occured during closing '" + file_ +
                               "' file: Input/output error\n\nSystem error 5: Input/output error\n";
    Capture capture;
    std::optional<support::LibcFault> fault;
    {
        const MKLock lock(file_, PlainName, Blocking);
        fault.emplace(support::LibcCall::Close, EIO, 1);
    }
    EXPECT_EQ(report, capture.err());
}

TEST_F(MKLockTest, DestructorIsNoexcept)
{
    EXPECT_TRUE(std::is_nothrow_destructible_v<MKLock>);
}

TEST_F(MKLockTest, IsNotCopyable)
{
    EXPECT_FALSE(std::is_copy_constructible_v<MKLock>);
    EXPECT_FALSE(std::is_copy_assignable_v<MKLock>);
}
