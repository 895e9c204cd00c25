// The plain lock functions: lock file paths, the result of an attempt, other processes.
#include "common/mk_lock.h"

#include "LockTools.h"
#include "support/Capture.h"
#include "support/LibcFaults.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

using namespace locktest;
using support::Capture;
using support::LibcCall;
using support::LibcFault;
using support::openFds;
using support::ScratchDir;

namespace {

std::string md5Of(const char* prefix, const char* text)
{
    char buffer[md5_text_length + 1];
    std::memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(0, get_md5sum(prefix, text, buffer));
    return std::string(buffer, sizeof buffer);
}

std::string pathOf(const char* name)
{
    char* const path = mk_flock_path(name);
    const std::string result = path;
    std::free(path);
    return result;
}

/// With its terminating NUL, which is part of what is written.
std::string withNul(const char* digest)
{
    return std::string(digest) + '\0';
}

class MkLockTest : public testing::Test {
protected:
    /// A lock on a plain file of this test, released at the end of the scope.
    struct Release {
        void operator()(lock_handle* handle) const { rm_lock(handle); }
    };
    using Owner = std::unique_ptr<lock_handle, Release>;

    Owner locked() { return Owner(mk_lock(file_.c_str(), 0)); }
    Owner attempt() { return Owner(mk_nonblock_lock(file_.c_str(), 0)); }

    ScratchDir scratch_;
    std::string file_ = scratch_.file("lock");
};

} // namespace

// ---- names -----------------------------------------------------------------------------------------------

// The digests of RFC 1321, A.5.
TEST(GetMd5sumTest, KnownTextsHaveTheirKnownDigests)
{
    EXPECT_EQ(withNul("d41d8cd98f00b204e9800998ecf8427e"), md5Of("", ""));
    EXPECT_EQ(withNul("0cc175b9c0f1b6a831c399e269772661"), md5Of("", "a"));
    EXPECT_EQ(withNul("900150983cd24fb0d6963f7d28e17f72"), md5Of("", "abc"));
    EXPECT_EQ(withNul("f96b697d7cb7938d525a2f31aaf161d0"), md5Of("", "message digest"));
    EXPECT_EQ(withNul("57edf4a22be3c955ac49da2e2107b67a"),
              md5Of("", "12345678901234567890123456789012345678901234567890123456789012345678901234567890"));
}

TEST(GetMd5sumTest, PrefixIsHashedBeforeTheText)
{
    EXPECT_EQ(withNul("900150983cd24fb0d6963f7d28e17f72"), md5Of("a", "bc"));
}

TEST(GetMd5sumTest, PrefixAloneIsHashed)
{
    EXPECT_EQ(withNul("900150983cd24fb0d6963f7d28e17f72"), md5Of("abc", ""));
}

TEST(GetMd5sumTest, NullCountsAsEmpty)
{
    EXPECT_EQ(withNul("900150983cd24fb0d6963f7d28e17f72"), md5Of(nullptr, "abc"));
    EXPECT_EQ(withNul("900150983cd24fb0d6963f7d28e17f72"), md5Of("abc", nullptr));
    EXPECT_EQ(withNul("d41d8cd98f00b204e9800998ecf8427e"), md5Of(nullptr, nullptr));
}

TEST(MkFlockPathTest, PathIsTheDigestOfTheNameInTheLockDirectory)
{
    EXPECT_EQ("/run/lock/files/900150983cd24fb0d6963f7d28e17f72", pathOf("abc"));
}

TEST(MkFlockPathTest, DirectoriesOfTheNameAreHashedToo)
{
    EXPECT_EQ("/run/lock/files/7963c3b4b0754641744c1ae241e19575", pathOf("/etc/postfix/main.cf"));
}

TEST(MkFlockPathTest, SameNameGivesTheSamePath)
{
    EXPECT_EQ(pathOf("/etc/postfix/main.cf"), pathOf("/etc/postfix/main.cf"));
}

TEST(MkFlockPathTest, NamesThatDifferInCaseGiveDifferentPaths)
{
    EXPECT_NE(pathOf("/etc/postfix/main.cf"), pathOf("/etc/postfix/Main.cf"));
}

TEST(MkFlockPathTest, EmptyNameHasAPathToo)
{
    EXPECT_EQ("/run/lock/files/d41d8cd98f00b204e9800998ecf8427e", pathOf(""));
}

// ---- one attempt -----------------------------------------------------------------------------------------

TEST_F(MkLockTest, HandleHasAnOpenDescriptorAndThePath)
{
    const Owner handle = locked();
    EXPECT_GT(handle->fd, 0);
    EXPECT_STREQ(file_.c_str(), handle->path);
}

TEST_F(MkLockTest, DescriptorIsThatOfTheLockFile)
{
    const Owner handle = locked();
    EXPECT_EQ(file_, openFds()[handle->fd]);
}

TEST_F(MkLockTest, FreeFileIsLockedWithoutWaitingToo)
{
    const Owner handle = attempt();
    EXPECT_GT(handle->fd, 0);
    EXPECT_EQ(1, is_locked(handle.get()));
    EXPECT_TRUE(support::isLocked(file_));
}

TEST_F(MkLockTest, HashedNameIsLockedInTheLockDirectory)
{
    const Owner handle(mk_lock(file_.c_str(), 1));
    EXPECT_EQ(pathOf(file_.c_str()), handle->path);
    EXPECT_TRUE(support::isLocked(pathOf(file_.c_str())));
}

TEST_F(MkLockTest, HashedNameIsNotTouchedItself)
{
    const Owner handle(mk_lock(file_.c_str(), 1));
    EXPECT_THAT(scratch_.names(), testing::IsEmpty());
}

TEST_F(MkLockTest, EveryNonZeroHashedMeansHashed)
{
    for (const int hashed : {1, 2, -1}) {
        SCOPED_TRACE(hashed);
        const Owner handle(mk_lock(file_.c_str(), hashed));
        EXPECT_EQ(pathOf(file_.c_str()), handle->path);
    }
}

TEST_F(MkLockTest, LockIsExclusive)
{
    const Owner handle = locked();
    const int other = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(-1, ::flock(other, LOCK_SH | LOCK_NB));
    EXPECT_EQ(EWOULDBLOCK, errno);
    ::close(other);
}

TEST_F(MkLockTest, MissingLockFileIsCreatedWithMode0644)
{
    const mode_t old = ::umask(0);
    const Owner handle = locked();
    ::umask(old);
    EXPECT_EQ(0644U, support::modeOf(file_));
}

TEST_F(MkLockTest, UmaskAppliesToTheCreatedLockFile)
{
    const mode_t old = ::umask(077);
    const Owner handle = locked();
    ::umask(old);
    EXPECT_EQ(0600U, support::modeOf(file_));
}

TEST_F(MkLockTest, ModeOfAnExistingLockFileStays)
{
    support::writeFile(file_, "");
    ASSERT_EQ(0, ::chmod(file_.c_str(), 0640));
    const Owner handle = locked();
    EXPECT_EQ(0640U, support::modeOf(file_));
}

TEST_F(MkLockTest, LockFileIsTruncated)
{
    support::writeFile(file_, "old content");
    const Owner handle = locked();
    EXPECT_EQ("", support::readFile(file_));
}

TEST_F(MkLockTest, DescriptorIsOpenForReadingAndWriting)
{
    const Owner handle = locked();
    EXPECT_EQ(O_RDWR, ::fcntl(handle->fd, F_GETFL) & O_ACCMODE);
}

TEST_F(MkLockTest, DescriptorIsClosedOnExec)
{
    const Owner handle = locked();
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(handle->fd, F_GETFD));
}

// Standard input may have been closed by the program.
TEST_F(MkLockTest, LockFileOpenedAsAStandardDescriptorIsAHeldLockLikeAnyOther)
{
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        SCOPED_TRACE(standard);
        const support::ChildResult result = support::runInChild([&] {
            ::close(standard);
            const Owner lock = locked();
            if (lock->fd <= STDERR_FILENO || is_locked(lock.get()) != 1 || is_already_locked(lock.get()) != 0)
                return 1;
            if (::fcntl(lock->fd, F_GETFD) != FD_CLOEXEC)
                return 2;
            if (::fcntl(standard, F_GETFD) != -1)
                return 3;
            return is_already_locked(attempt().get()) == 1 ? 0 : 4;
        });
        EXPECT_TRUE(result.exitedWith(0)) << result.status;
        EXPECT_EQ(1, is_locked(attempt().get()));
    }
}

TEST_F(MkLockTest, LockFileThatCannotBeMovedFromAStandardDescriptorIsReported)
{
    const support::ChildResult result = support::runInChild([this] {
        const rlimit limit{64, 64};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        while (::dup(STDERR_FILENO) != -1) {
        }
        ::close(STDIN_FILENO);
        errno = 0;
        const Owner lock = locked();
        return lock->fd == -1 && errno == EMFILE && ::fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0)) << result.status;
    EXPECT_EQ("Unable to open file \"" + file_ +
                  "\": Too many open files.\nSystem error 24: Too many open files\n",
              result.err);
}

TEST_F(MkLockTest, ProgramStartedMeanwhileDoesNotKeepTheLock)
{
    Owner handle = locked();
    int input[2];
    int output[2];
    ASSERT_EQ(0, ::pipe2(input, O_CLOEXEC));
    ASSERT_EQ(0, ::pipe2(output, O_CLOEXEC));
    const pid_t cat = support::forkChild([&] {
        ::dup2(input[0], 0);
        ::dup2(output[1], 1);
        ::execl("/bin/cat", "cat", nullptr);
        return 94;
    });
    writeByte(input[1], 'x');
    ASSERT_EQ('x', readByte(output[0])); // the exec is over
    handle.reset();
    EXPECT_FALSE(support::isLocked(file_));
    for (const int fd : {input[0], input[1], output[0], output[1]})
        ::close(fd);
    support::waitFor(cat);
}

TEST_F(MkLockTest, LockOfThisProcessExcludesASecondOneOfThisProcess)
{
    const Owner first = locked();
    const Owner second = attempt();
    EXPECT_EQ(0, second->fd);
}

TEST_F(MkLockTest, LockHeldElsewhereLeavesDescriptorZeroAndThePath)
{
    const Holder holder([this] { locked().release(); });
    const Owner handle = attempt();
    EXPECT_EQ(0, handle->fd);
    EXPECT_STREQ(file_.c_str(), handle->path);
}

TEST_F(MkLockTest, LockHeldElsewhereLeavesNoDescriptor)
{
    const Holder holder([this] { locked().release(); });
    const auto before = openFds();
    const Owner handle = attempt();
    EXPECT_EQ(before, openFds());
}

TEST_F(MkLockTest, LockHeldElsewhereIsNotReported)
{
    const Holder holder([this] { locked().release(); });
    Capture capture;
    const Owner handle = attempt();
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(MkLockTest, LockHeldElsewhereOnAHashedNameIsSeen)
{
    const Holder holder([this] { Owner(mk_lock(file_.c_str(), 1)).release(); });
    const Owner handle(mk_nonblock_lock(file_.c_str(), 1));
    EXPECT_EQ(0, handle->fd);
}

TEST_F(MkLockTest, BlockingLockWaitsUntilTheOtherProcessReleasesIt)
{
    Waiter waiter([this] { locked().release(); });
    Owner handle = locked();
    EXPECT_TRUE(waiter.startsToWait());
    handle.reset();
    EXPECT_TRUE(waiter.got());
}

TEST_F(MkLockTest, FreeLockIsTakenWithoutWaiting)
{
    Waiter waiter([this] { locked().release(); });
    EXPECT_FALSE(waiter.startsToWait());
    EXPECT_TRUE(waiter.got());
}

TEST_F(MkLockTest, KilledHolderFreesTheLock)
{
    Holder holder([this] { locked().release(); });
    ASSERT_TRUE(support::isLocked(file_));
    holder.kill();
    EXPECT_FALSE(support::isLocked(file_));
}

TEST_F(MkLockTest, WaiterGetsTheLockOfAKilledHolder)
{
    Holder holder([this] { locked().release(); });
    Waiter waiter([this] { locked().release(); });
    ASSERT_TRUE(waiter.startsToWait());
    holder.kill();
    EXPECT_TRUE(waiter.got());
}

// ---- failures --------------------------------------------------------------------------------------------

TEST_F(MkLockTest, FileThatCannotBeOpenedIsReportedOnBothStreams)
{
    const std::string missing = scratch_.file("missing/lock");
    const std::string report = "Unable to open file \"" + missing +
                               "\": No such file or directory.\nSystem error 2: No such file or directory\n";
    Capture capture;
    const Owner handle(mk_lock(missing.c_str(), 0));
    const std::string err = capture.err();
    const std::string out = capture.out();
    EXPECT_EQ(report, err);
    EXPECT_EQ(report, out);
}

TEST_F(MkLockTest, FileThatCannotBeOpenedLeavesANegativeDescriptorThePathAndErrno)
{
    const std::string missing = scratch_.file("missing/lock");
    Capture capture;
    errno = 0;
    const Owner handle(mk_lock(missing.c_str(), 0));
    const int error = errno;
    capture.stop();
    EXPECT_LT(handle->fd, 0);
    EXPECT_STREQ(missing.c_str(), handle->path);
    EXPECT_EQ(ENOENT, error);
}

TEST_F(MkLockTest, FileThatCannotBeOpenedWithoutWaitingIsReportedToo)
{
    const std::string report =
        "Unable to open file \"" + scratch_.path() + "\": Is a directory.\nSystem error 21: Is a directory\n";
    Capture capture;
    const Owner handle(mk_nonblock_lock(scratch_.path().c_str(), 0));
    const std::string err = capture.err();
    EXPECT_EQ(report, err);
    EXPECT_LT(handle->fd, 0);
}

TEST_F(MkLockTest, MissingLockDirectoryIsReportedWithTheHashedPath)
{
    const support::ChildResult result = withoutLockDirectory([] {
        const lock_handle* const handle = mk_lock("abc", 1);
        return handle->fd < 0 && errno == ENOENT ? 0 : 1;
    });
    const std::string report =
        "Unable to open file \"/run/lock/files/900150983cd24fb0d6963f7d28e17f72\": No such "
        "file or directory.\nSystem error 2: No such file or directory\n";
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(report, result.err);
    EXPECT_EQ(report, result.out);
}

TEST_F(MkLockTest, OpenFlagsAreThoseOfTheCaller)
{
    Capture capture;
    const Owner handle(mk_lock_(file_.c_str(), O_RDWR, LOCK_EX, 0));
    capture.stop();
    EXPECT_LT(handle->fd, 0);
    EXPECT_THAT(scratch_.names(), testing::IsEmpty());
}

TEST_F(MkLockTest, DescriptorIsClosedOnExecWhateverTheFlags)
{
    const Owner handle(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, LOCK_EX, 0));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(handle->fd, F_GETFD));
}

TEST_F(MkLockTest, SharedLocksOfTheWorkerDoNotExcludeEachOther)
{
    const Owner first(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, LOCK_SH, 0));
    const Owner second(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, LOCK_SH | LOCK_NB, 0));
    EXPECT_EQ(1, is_locked(first.get()));
    EXPECT_EQ(1, is_locked(second.get()));
}

TEST_F(MkLockTest, FailedFlockLeavesDescriptorMinusOneAndErrno)
{
    errno = 0;
    const Owner handle(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, 0, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, handle->fd);
}

TEST_F(MkLockTest, FailedFlockLeavesNoDescriptor)
{
    const auto before = openFds();
    const Owner handle(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, 0, 0));
    EXPECT_EQ(before, openFds());
}

TEST_F(MkLockTest, FailedFlockIsNotReported)
{
    Capture capture;
    const Owner handle(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, 0, 0));
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(MkLockTest, InterruptedOpenIsRepeated)
{
    const LibcFault fault(LibcCall::Open, EINTR, 3);
    const Owner handle = locked();
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ(1, is_locked(handle.get()));
}

TEST_F(MkLockTest, InterruptedFlockIsRepeated)
{
    const LibcFault fault(LibcCall::Flock, EINTR, 3);
    const Owner handle = locked();
    EXPECT_EQ(0, fault.left());
    EXPECT_TRUE(support::isLocked(file_));
}

TEST_F(MkLockTest, InterruptedCloseIsRepeated)
{
    Owner handle = locked();
    const auto whileLocked = openFds();
    const int fd = handle->fd;
    const LibcFault fault(LibcCall::Close, EINTR, 3);
    EXPECT_EQ(0, rm_lock(handle.release()));
    EXPECT_EQ(0, fault.left());
    auto expected = whileLocked;
    expected.erase(fd);
    EXPECT_EQ(expected, openFds());
}

TEST_F(MkLockTest, HandleThatCannotBeAllocatedIsNull)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const support::MemoryFault fault(0);
    EXPECT_EQ(nullptr, mk_lock(file_.c_str(), 0));
}

TEST_F(MkLockTest, PathThatCannotBeAllocatedLeavesANegativeDescriptor)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    Capture capture;
    lock_handle* handle = nullptr;
    {
        const support::MemoryFault fault(1);
        handle = mk_lock(file_.c_str(), 0);
    }
    capture.stop();
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(nullptr, handle->path);
    EXPECT_LT(handle->fd, 0);
    EXPECT_EQ(0, rm_lock(handle));
}

// ---- release ---------------------------------------------------------------------------------------------

TEST_F(MkLockTest, RmLockReleasesTheLockAndReturnsZero)
{
    lock_handle* const handle = mk_lock(file_.c_str(), 0);
    EXPECT_EQ(0, rm_lock(handle));
    EXPECT_FALSE(support::isLocked(file_));
}

TEST_F(MkLockTest, RmLockLeavesTheLockFile)
{
    rm_lock(mk_lock(file_.c_str(), 0));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("lock"));
}

TEST_F(MkLockTest, RmLockLeavesNoDescriptor)
{
    const auto before = openFds();
    rm_lock(mk_lock(file_.c_str(), 0));
    EXPECT_EQ(before, openFds());
}

TEST_F(MkLockTest, RmLockOfALockHeldElsewhereReturnsZeroAndClosesNothing)
{
    const Owner held = locked();
    lock_handle* const handle = mk_nonblock_lock(file_.c_str(), 0);
    const auto before = openFds();
    EXPECT_EQ(0, rm_lock(handle));
    EXPECT_EQ(before, openFds());
}

TEST_F(MkLockTest, RmLockOfAFailedLockReturnsZero)
{
    EXPECT_EQ(0, rm_lock(mk_lock_(file_.c_str(), O_RDWR | O_CREAT, 0, 0)));
}

TEST_F(MkLockTest, RmLockOfNullReturnsMinusOneWithoutAReport)
{
    Capture capture;
    const int result = rm_lock(nullptr);
    EXPECT_EQ("", capture.err() + capture.out());
    EXPECT_EQ(-1, result);
}

TEST_F(MkLockTest, FailedCloseIsReportedOnBothStreams)
{
    const std::string report = "An error occured during closing '" + file_ +
                               "' file: Input/output error\n\nSystem error 5: Input/output error\n";
    lock_handle* const handle = mk_lock(file_.c_str(), 0);
    Capture capture;
    {
        const LibcFault fault(LibcCall::Close, EIO, 1);
        rm_lock(handle);
    }
    const std::string err = capture.err();
    const std::string out = capture.out();
    EXPECT_EQ(report, err);
    EXPECT_EQ(report, out);
}

TEST_F(MkLockTest, FailedCloseReturnsMinusOne)
{
    lock_handle* const handle = mk_lock(file_.c_str(), 0);
    Capture capture;
    int result = 0;
    {
        const LibcFault fault(LibcCall::Close, EIO, 1);
        result = rm_lock(handle);
    }
    capture.stop();
    EXPECT_EQ(-1, result);
}

TEST_F(MkLockTest, FreeLockReleasesTheLockAndReturnsZero)
{
    lock_handle* const handle = mk_lock(file_.c_str(), 0);
    EXPECT_EQ(0, free_lock(handle));
    EXPECT_FALSE(support::isLocked(file_));
}

TEST_F(MkLockTest, FreeLockOfNullReturnsMinusOne)
{
    EXPECT_EQ(-1, free_lock(nullptr));
}

// ---- state of a handle -----------------------------------------------------------------------------------

TEST(LockHandleTest, IsLockedMeansADescriptorAboveZero)
{
    lock_handle handle{1, nullptr};
    EXPECT_EQ(1, is_locked(&handle));
    handle.fd = 0;
    EXPECT_EQ(0, is_locked(&handle));
    handle.fd = -1;
    EXPECT_EQ(0, is_locked(&handle));
}

TEST(LockHandleTest, NullIsNotLocked)
{
    EXPECT_EQ(0, is_locked(nullptr));
}

TEST(LockHandleTest, IsAlreadyLockedMeansDescriptorZero)
{
    lock_handle handle{0, nullptr};
    EXPECT_EQ(1, is_already_locked(&handle));
    handle.fd = 1;
    EXPECT_EQ(0, is_already_locked(&handle));
    handle.fd = -1;
    EXPECT_EQ(0, is_already_locked(&handle));
}

TEST(LockHandleTest, NullIsAlreadyLocked)
{
    EXPECT_EQ(1, is_already_locked(nullptr));
}
