// SigBlocker and SigIgnorer: a signal is blocked or ignored within a scope, and all is as before after it.
#include "process/signals.h"

#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

using faults::Call;
using faults::FailingCall;
using tools::bit;
using tools::dispositionOf;
using tools::inOwnProcess;
using tools::isBlocked;
using tools::ownSignals;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::SigBlocker;
using zorvo::process::SigIgnorer;

namespace {

volatile sig_atomic_t received = 0;

void receive(int)
{
    received = received + 1;
}

} // namespace

TEST(SigBlockerTest, BlocksWithinItsScopeOnly)
{
    const auto before = ownSignals();
    ASSERT_FALSE(isBlocked(SIGCHLD));
    {
        const SigBlocker blocker(SIGCHLD);
        EXPECT_EQ(ownSignals().blocked, before.blocked | bit(SIGCHLD));
    }
    EXPECT_EQ(ownSignals(), before);
}

TEST(SigBlockerTest, SignalBlockedBeforeStaysBlocked)
{
    inOwnProcess([] {
        tools::block(SIGCHLD);
        tools::block(SIGUSR2);
        const auto before = ownSignals();
        {
            const SigBlocker blocker(SIGCHLD);
            EXPECT_EQ(ownSignals(), before);
        }
        EXPECT_EQ(ownSignals(), before);
    });
}

TEST(SigBlockerTest, ScopesNest)
{
    const auto before = ownSignals();
    {
        const SigBlocker outer(SIGUSR1);
        {
            const SigBlocker inner(SIGUSR1);
        }
        EXPECT_TRUE(isBlocked(SIGUSR1));
    }
    EXPECT_EQ(ownSignals(), before);
}

TEST(SigBlockerTest, SignalIsDeliveredAfterTheScope)
{
    inOwnProcess([] {
        struct sigaction action {};
        action.sa_handler = receive;
        ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
        {
            const SigBlocker blocker(SIGUSR1);
            ::raise(SIGUSR1);
            EXPECT_EQ(received, 0);
        }
        EXPECT_EQ(received, 1);
    });
}

TEST(SigBlockerTest, ImpossibleSignalThrowsAndKeepsTheMask)
{
    const auto before = ownSignals();
    EXPECT_EQ(thrownBy([] { const SigBlocker blocker(4711); }), systemError("sigaddset", EINVAL));
    EXPECT_EQ(ownSignals(), before);
}

TEST(SigBlockerTest, UnreadableMaskThrows)
{
    const auto before = ownSignals();
    const FailingCall failing(Call::sigprocmask, 1, EINVAL);
    EXPECT_EQ(thrownBy([] { const SigBlocker blocker(SIGCHLD); }), systemError("get sigprocmask", EINVAL));
    EXPECT_EQ(ownSignals(), before);
}

TEST(SigBlockerTest, MaskThatCannotBeSetThrows)
{
    const auto before = ownSignals();
    const FailingCall failing(Call::sigprocmask, 2, EINVAL);
    EXPECT_EQ(thrownBy([] { const SigBlocker blocker(SIGCHLD); }), systemError("set sigprocmask", EINVAL));
    EXPECT_EQ(ownSignals(), before);
}

TEST(SigBlockerTest, MaskThatCannotBeRestoredThrows)
{
    inOwnProcess([] {
        const std::string thrown = thrownBy([] {
            const FailingCall failing(Call::sigprocmask, 3, EINVAL);
            const SigBlocker blocker(SIGCHLD);
        });
        EXPECT_EQ(thrown, systemError("restore sigprocmask", EINVAL));
    });
}

TEST(SigBlockerTest, MaskThatCannotBeRestoredIsSilentWhileAnExceptionIsInFlight)
{
    inOwnProcess([] {
        const std::string thrown = thrownBy([] {
            const FailingCall failing(Call::sigprocmask, 3, EINVAL);
            const SigBlocker blocker(SIGCHLD);
            throw std::runtime_error("the first failure");
        });
        EXPECT_EQ(thrown, "std::runtime_error: the first failure");
        EXPECT_TRUE(isBlocked(SIGCHLD));
    });
}

// Each of the calls in turn is interrupted once.
TEST(SigBlockerTest, InterruptedCallsAreRepeated)
{
    const auto before = ownSignals();
    int interrupted = 0;
    for (int nth = 1; nth <= 3; ++nth) {
        const FailingCall failing(Call::sigprocmask, nth, EINTR);
        {
            const SigBlocker blocker(SIGCHLD);
            EXPECT_TRUE(ownSignals().blocked & bit(SIGCHLD));
        }
        EXPECT_EQ(ownSignals(), before);
        interrupted += failing.happened() ? 1 : 0;
    }
    EXPECT_EQ(interrupted, 3);
}

TEST(SigIgnorerTest, IgnoresWithinItsScopeAndPutsTheDispositionBack)
{
    inOwnProcess([] {
        struct sigaction action {};
        action.sa_handler = receive;
        action.sa_flags = SA_RESTART;
        sigaddset(&action.sa_mask, SIGUSR2);
        ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
        {
            const SigIgnorer ignorer(SIGUSR1);
            EXPECT_EQ(dispositionOf(SIGUSR1).sa_handler, SIG_IGN);
            ::raise(SIGUSR1);
        }
        const struct sigaction now = dispositionOf(SIGUSR1);
        EXPECT_EQ(now.sa_handler, receive);
        EXPECT_EQ(now.sa_flags & SA_RESTART, SA_RESTART);
        EXPECT_EQ(sigismember(&now.sa_mask, SIGUSR2), 1);
        EXPECT_EQ(received, 0);
        ::raise(SIGUSR1);
        EXPECT_EQ(received, 1);
    });
}

// A signal that comes while it is blocked would wait for its unblocking even if it is ignored.
TEST(SigIgnorerTest, BlockedSignalIsNotLeftPending)
{
    inOwnProcess([] {
        tools::block(SIGPIPE);
        tools::block(SIGUSR2);
        const auto before = ownSignals();
        {
            const SigIgnorer ignorer(SIGPIPE);
            ::raise(SIGPIPE);
        }
        EXPECT_EQ(ownSignals(), before);
        sigset_t pending;
        ASSERT_EQ(::sigpending(&pending), 0);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
        EXPECT_TRUE(isBlocked(SIGPIPE));
    });
}

TEST(SigIgnorerTest, InterruptedCallsAreRepeated)
{
    for (const Call call : {Call::sigprocmask, Call::sigaction})
        for (int nth = 1; nth <= 2; ++nth)
            inOwnProcess([call, nth] {
                tools::block(SIGPIPE);
                const auto before = ownSignals();
                FailingCall interrupted(call, nth, EINTR);
                {
                    const SigIgnorer ignorer(SIGPIPE);
                    EXPECT_EQ(ownSignals().ignored, before.ignored | bit(SIGPIPE));
                }
                interrupted.stop();
                EXPECT_TRUE(interrupted.happened());
                EXPECT_EQ(ownSignals(), before);
            });
}
