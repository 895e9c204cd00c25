// retryOnEintr: what is repeated and what is not.
#include "common/eintr.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>

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

} // namespace

using zorvo::retryOnEintr;

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
    struct sigaction action {};
    struct sigaction old {};
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
