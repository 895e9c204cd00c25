// The loops on EINTR: an interruption is not a failure, and a failure is not an interruption.
#include "common/eintr.h"

#include "support/LibcFaults.h"
#include "support/OpenFds.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>

using support::LibcCall;
using support::LibcFault;
using support::openFds;
using support::ShortWrites;
using zorvo::closeRetrying;
using zorvo::readAll;
using zorvo::retryOnEintr;
using zorvo::writeAll;

namespace {

/// A call that fails with `error` the first `failures` times and then gives `result`.
struct Scripted {
    int failures;
    int error;
    long result;
    int calls = 0;

    long operator()()
    {
        ++calls;
        if (calls <= failures) {
            errno = error;
            return -1;
        }
        return result;
    }
};

/// A file in memory, at its beginning.
class TextFile {
public:
    explicit TextFile(const std::string& text) : fd_(::memfd_create("text", MFD_CLOEXEC))
    {
        if (::pwrite(fd_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
            throw std::runtime_error("cannot make a file in memory");
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;
    ~TextFile() { ::close(fd_); }

    int fd() const { return fd_; }

    std::string text() const
    {
        char content[100] = "";
        return {content, static_cast<size_t>(::pread(fd_, content, sizeof content, 0))};
    }

private:
    int fd_;
};

int newDescriptor()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

} // namespace

TEST(RetryOnEintrTest, SuccessIsReturnedAtOnce)
{
    Scripted script{0, 0, 7};
    EXPECT_EQ(7, retryOnEintr([&] { return script(); }));
    EXPECT_EQ(1, script.calls);
}

TEST(RetryOnEintrTest, InterruptedCallIsRepeatedUntilItSucceeds)
{
    Scripted script{1000, EINTR, 7};
    EXPECT_EQ(7, retryOnEintr([&] { return script(); }));
    EXPECT_EQ(1001, script.calls);
}

TEST(RetryOnEintrTest, OtherFailureIsReturnedAtOnceWithItsErrno)
{
    Scripted script{5, EAGAIN, 7};
    EXPECT_EQ(-1, retryOnEintr([&] { return script(); }));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(1, script.calls);
}

TEST(RetryOnEintrTest, OtherFailureAfterAnInterruptionIsReturned)
{
    int calls = 0;
    const int result = retryOnEintr([&] {
        errno = ++calls == 1 ? EINTR : EBADF;
        return -1;
    });
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(2, calls);
}

TEST(RetryOnEintrTest, OldEintrInErrnoDoesNotRepeatASuccess)
{
    int calls = 0;
    retryOnEintr([&] {
        ++calls;
        errno = EINTR;
        return 0;
    });
    EXPECT_EQ(1, calls);
}

TEST(RetryOnEintrTest, OldEintrInErrnoDoesNotRepeatAnotherNegativeResult)
{
    int calls = 0;
    retryOnEintr([&] {
        ++calls;
        errno = EINTR;
        return -2;
    });
    EXPECT_EQ(1, calls);
}

TEST(RetryOnEintrTest, WideResultsAreNotCut)
{
    Scripted script{1, EINTR, 1L << 40};
    EXPECT_EQ(1L << 40, retryOnEintr([&] { return script(); }));
}

TEST(RetryOnEintrTest, ExceptionOfTheCallPassesThrough)
{
    EXPECT_THROW(retryOnEintr([]() -> int { throw 5; }), int);
}

TEST(RetryOnEintrTest, ThrowsNothingOfItsOwn)
{
    const auto call = []() noexcept { return 0; };
    EXPECT_TRUE(noexcept(retryOnEintr(call)));
}

// The signal that interrupts the blocking read(2) also supplies the byte that the repeated one gets.
TEST(RetryOnEintrTest, ReadInterruptedByARealSignalIsRepeated)
{
    static int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = [](int) {
        if (::write(ends[1], "x", 1) != 1)
            ::_exit(99);
    };
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, &old)); // without SA_RESTART
    const itimerval soon{{0, 0}, {0, 1000}};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &soon, nullptr));
    char byte = 0;
    EXPECT_EQ(1, retryOnEintr([&] { return ::read(ends[0], &byte, 1); }));
    EXPECT_EQ('x', byte);
    ::sigaction(SIGALRM, &old, nullptr);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(CloseRetryingTest, ClosesAndReturnsZero)
{
    const auto before = openFds();
    EXPECT_EQ(0, closeRetrying(newDescriptor()));
    EXPECT_EQ(before, openFds());
}

TEST(CloseRetryingTest, InterruptedCloseIsRepeated)
{
    const auto before = openFds();
    const int fd = newDescriptor();
    const LibcFault fault(LibcCall::Close, EINTR, 3);
    EXPECT_EQ(0, closeRetrying(fd));
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ(before, openFds());
}

TEST(CloseRetryingTest, BadDescriptorIsAFailure)
{
    const int fd = newDescriptor();
    ASSERT_EQ(0, closeRetrying(fd));
    errno = 0;
    EXPECT_EQ(-1, closeRetrying(fd));
    EXPECT_EQ(EBADF, errno);
}

TEST(CloseRetryingTest, OtherFailureIsReturnedAtOnce)
{
    const int fd = newDescriptor();
    const LibcFault fault(LibcCall::Close, EIO, 2);
    EXPECT_EQ(-1, closeRetrying(fd));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(1, fault.left());
}

TEST(WriteAllTest, ShortAndInterruptedWritesAreContinued)
{
    const TextFile file("");
    const ShortWrites limit(3);
    const LibcFault fault(LibcCall::Write, EINTR, 2);
    EXPECT_EQ(10U, writeAll(file.fd(), "0123456789"));
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ("0123456789", file.text());
}

TEST(WriteAllTest, NothingToWriteMakesNoCall)
{
    EXPECT_EQ(0U, writeAll(-1, ""));
}

TEST(WriteAllTest, FailureAtOnceReturnsNoneAndItsErrno)
{
    const TextFile file("");
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    EXPECT_EQ(0U, writeAll(file.fd(), "0123456789"));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ("", file.text());
}

TEST(WriteAllTest, FullPipeReturnsWhatItTookAndItsErrno)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    const std::string bytes(1 << 20, 'x');
    const size_t written = writeAll(ends[1], bytes);
    EXPECT_EQ(EAGAIN, errno);
    ::close(ends[1]);
    EXPECT_GT(bytes.size(), written);
    EXPECT_EQ(bytes.substr(0, written), readAll(ends[0]));
    ::close(ends[0]);
}

TEST(ReadAllTest, LongTextIsReadWhole)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(text, readAll(TextFile(text).fd()));
}

TEST(ReadAllTest, EmptyFileIsAnEmptyText)
{
    EXPECT_EQ("", readAll(TextFile("").fd()));
}

TEST(ReadAllTest, NulsAreBytesLikeOthers)
{
    const std::string text("a\0b", 3);
    EXPECT_EQ(text, readAll(TextFile(text).fd()));
}

TEST(ReadAllTest, InterruptedReadIsRepeated)
{
    const TextFile file("text");
    const LibcFault fault(LibcCall::Read, EINTR, 2);
    EXPECT_EQ("text", readAll(file.fd()));
    EXPECT_EQ(0, fault.left());
}

TEST(ReadAllTest, OtherFailureIsEmptyWithItsErrno)
{
    const TextFile file("text");
    const LibcFault fault(LibcCall::Read, EIO, 1);
    EXPECT_EQ(std::nullopt, readAll(file.fd()));
    EXPECT_EQ(EIO, errno);
}

TEST(ReadAllTest, DirectoryCannotBeRead)
{
    const int fd = ::open("/", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(std::nullopt, readAll(fd));
    EXPECT_EQ(EISDIR, errno);
    ::close(fd);
}
