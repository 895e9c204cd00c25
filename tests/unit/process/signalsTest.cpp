// signals: a signal is blocked or ignored for a scope, everything is as before afterwards, and launched
// programs see nothing of it.
#include "process/signals.h"

#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>

using faults::AtCall;
using faults::Call;
using faults::FailingCall;
using support::bit;
using support::ownSignals;
using support::Signals;
using tools::block;
using tools::dispositionOf;
using tools::inOwnProcess;
using tools::isBlocked;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::LaunchSignals;
using zorvo::process::restoreStartSignals;
using zorvo::process::SigBlocker;
using zorvo::process::takeOverSignals;

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
        struct sigaction action = {};
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

TEST(SigBlockerTest, MaskThatCannotBeRestoredIsNotThrownWhileAnExceptionIsInFlight)
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

namespace {

void handler(int) {}

/// Brings SIGCHLD and SIGPIPE into one of 16 states and SIGUSR1 and SIGUSR2 into a third and a fourth.
void enterState(unsigned variant)
{
    ::signal(SIGCHLD, (variant & 1U) != 0 ? SIG_IGN : SIG_DFL);
    ::signal(SIGPIPE, (variant & 2U) != 0 ? SIG_IGN : SIG_DFL);
    (variant & 4U) != 0 ? block(SIGCHLD) : tools::unblock(SIGCHLD);
    (variant & 8U) != 0 ? block(SIGPIPE) : tools::unblock(SIGPIPE);
    block(SIGUSR1);
    ::signal(SIGUSR2, SIG_IGN);
}

/// The signals that a child has after restoreStartSignals().
Signals restoredInChild()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make a pipe");
    const pid_t child = support::forkChild([&ends] {
        restoreStartSignals();
        const Signals signals = ownSignals();
        return ::write(ends[1], &signals, sizeof signals) == sizeof signals ? 0 : 1;
    });
    ::close(ends[1]);
    Signals signals;
    const bool complete = ::read(ends[0], &signals, sizeof signals) == sizeof signals;
    ::close(ends[0]);
    while (::waitpid(child, nullptr, 0) == -1 && errno == EINTR)
        continue; // ECHILD where SIGCHLD is ignored.
    if (!complete)
        throw std::runtime_error("the child did not report");
    return signals;
}

} // namespace

TEST(TakeOverSignalsTest, LaunchingWorksAndTheProcessSurvivesALostReader)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            Signals expected = ownSignals();
            takeOverSignals();
            expected.blocked &= ~(bit(SIGCHLD) | bit(SIGPIPE));
            expected.ignored &= ~bit(SIGCHLD);
            expected.ignored |= bit(SIGPIPE);
            EXPECT_EQ(ownSignals(), expected);
            EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, SIG_DFL);
        });
    }
}

TEST(TakeOverSignalsTest, ChildrenGetTheStateOfTheStart)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals start = ownSignals();
            takeOverSignals();
            EXPECT_EQ(restoredInChild(), start);
        });
    }
}

TEST(TakeOverSignalsTest, OwnHandlersAreRecordedAndTheOneOfSigchldStays)
{
    inOwnProcess([] {
        ::signal(SIGCHLD, handler);
        ::signal(SIGPIPE, handler);
        takeOverSignals();
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, handler);
        EXPECT_EQ(dispositionOf(SIGPIPE).sa_handler, SIG_IGN);
        restoreStartSignals();
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, handler);
        EXPECT_EQ(dispositionOf(SIGPIPE).sa_handler, handler);
    });
}

TEST(TakeOverSignalsTest, EachFailingCallThrowsItsName)
{
    inOwnProcess([] {
        int failed = 0;
        for (const Call call : {Call::sigprocmask, Call::sigaction}) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(nth);
                const FailingCall failing(call, nth, EINVAL);
                const std::string thrown = thrownBy(takeOverSignals);
                if (!failing.happened())
                    break;
                ++failed;
                EXPECT_EQ(thrown,
                          systemError(call == Call::sigprocmask ? "sigprocmask" : "sigaction", EINVAL));
            }
        }
        EXPECT_GE(failed, 3); // One change of the mask and two of dispositions at least.
    });
}

TEST(TakeOverSignalsTest, InterruptedCallsAreRepeated)
{
    for (const Call call : {Call::sigprocmask, Call::sigaction}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(nth);
            bool more = false;
            const pid_t child = support::forkChild([&] {
                enterState(15);
                const Signals start = ownSignals();
                FailingCall interrupted(call, nth, EINTR);
                takeOverSignals();
                interrupted.stop();
                const bool right = restoredInChild() == start &&
                                   (ownSignals().ignored & (bit(SIGPIPE) | bit(SIGCHLD))) == bit(SIGPIPE);
                return !right ? 2 : interrupted.happened() ? 1 : 0;
            });
            const int status = support::waitFor(child);
            ASSERT_TRUE(WIFEXITED(status));
            ASSERT_NE(WEXITSTATUS(status), 2);
            more = WEXITSTATUS(status) == 1;
            if (!more) {
                EXPECT_GT(nth, 1);
                break;
            }
        }
    }
}

TEST(RestoreStartSignalsTest, DoesNothingWithoutARecord)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals before = ownSignals();
            restoreStartSignals();
            EXPECT_EQ(ownSignals(), before);
        });
    }
}

TEST(LaunchSignalsTest, ChildrenGetTheStateOfItsConstruction)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals start = ownSignals();
            const LaunchSignals signals;
            enterState(~variant);
            ::signal(SIGUSR2, SIG_DFL); // Only what launching changes is restored.
            Signals expected = start;
            expected.ignored &= ~bit(SIGUSR2);
            EXPECT_EQ(restoredInChild(), expected);
        });
    }
}

TEST(LaunchSignalsTest, NothingIsRestoredAfterItsScope)
{
    inOwnProcess([] {
        enterState(5);
        {
            const LaunchSignals signals;
        }
        enterState(10);
        const Signals before = ownSignals();
        EXPECT_EQ(restoredInChild(), before);
    });
}

TEST(LaunchSignalsTest, RecordOfTheStartCountsWithinAndAfterItsScope)
{
    inOwnProcess([] {
        enterState(15);
        const Signals start = ownSignals();
        takeOverSignals();
        {
            const LaunchSignals signals;
            EXPECT_EQ(restoredInChild(), start);
        }
        EXPECT_EQ(restoredInChild(), start);
    });
}

TEST(LaunchSignalsTest, ConstructionChangesNoSignal)
{
    inOwnProcess([] {
        enterState(15);
        const Signals before = ownSignals();
        {
            const LaunchSignals signals;
            EXPECT_EQ(ownSignals(), before);
        }
        EXPECT_EQ(ownSignals(), before);
    });
}

TEST(LaunchSignalsTest, InnerScopeChangesNothingOfTheOuterOnesRecord)
{
    inOwnProcess([] {
        enterState(15);
        const Signals start = ownSignals();
        LaunchSignals outer;
        outer.adapt();
        {
            LaunchSignals inner;
            inner.adapt();
            EXPECT_EQ(restoredInChild(), start);
        }
        EXPECT_EQ(restoredInChild(), start);
    });
}

TEST(LaunchSignalsTest, AdaptedProcessCanLaunchAndSurvivesALostReader)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals start = ownSignals();
            {
                LaunchSignals signals;
                signals.adapt();
                Signals expected = start;
                expected.blocked &= ~(bit(SIGCHLD) | bit(SIGPIPE));
                expected.ignored &= ~bit(SIGCHLD);
                expected.ignored |= bit(SIGPIPE);
                EXPECT_EQ(ownSignals(), expected);
                EXPECT_EQ(restoredInChild(), start);
            }
            EXPECT_EQ(ownSignals(), start);
        });
    }
}

TEST(LaunchSignalsTest, WholeDispositionsArePutBack)
{
    inOwnProcess([] {
        struct sigaction action = {};
        action.sa_handler = receive;
        action.sa_flags = SA_RESTART;
        sigaddset(&action.sa_mask, SIGUSR2);
        ASSERT_EQ(::sigaction(SIGPIPE, &action, nullptr), 0);
        {
            LaunchSignals signals;
            signals.adapt();
            ::raise(SIGPIPE);
            EXPECT_EQ(received, 0);
        }
        const struct sigaction now = dispositionOf(SIGPIPE);
        EXPECT_EQ(now.sa_handler, receive);
        EXPECT_EQ(now.sa_flags & SA_RESTART, SA_RESTART);
        EXPECT_EQ(sigismember(&now.sa_mask, SIGUSR2), 1);
    });
}

// A signal that comes while it is blocked would wait for its unblocking even if it is ignored.
TEST(LaunchSignalsTest, BlockedSigpipeIsNotLeftPending)
{
    inOwnProcess([] {
        block(SIGPIPE);
        const auto before = ownSignals();
        {
            LaunchSignals signals;
            signals.adapt();
            ::raise(SIGPIPE);
        }
        EXPECT_EQ(ownSignals(), before);
        sigset_t pending;
        ASSERT_EQ(::sigpending(&pending), 0);
        EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    });
}

// At every step of restoring, in a process that has SIGPIPE blocked but not ignored.
TEST(LaunchSignalsTest, SigpipeWhileAllIsPutBackDoesNotKill)
{
    int steps = 0;
    for (const Call call : {Call::sigprocmask, Call::sigaction})
        for (int nth = 1; nth < 10; ++nth) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(call) << ", occurrence " << nth);
            const int status = support::waitFor(support::forkChild([call, nth] {
                ::signal(SIGPIPE, SIG_DFL);
                block(SIGPIPE);
                std::optional<LaunchSignals> signals;
                signals.emplace();
                signals->adapt();
                const AtCall raising(call, nth, [] { ::raise(SIGPIPE); });
                signals.reset();
                return raising.happened() ? 0 : 1;
            }));
            if (status == 1 << 8)
                break;
            EXPECT_EQ(status, 0);
            ++steps;
        }
    EXPECT_EQ(steps, 3);
}

TEST(LaunchSignalsTest, EachFailingCallThrowsItsName)
{
    for (const Call call : {Call::sigprocmask, Call::sigaction})
        for (int nth = 1; nth <= 2; ++nth) {
            const std::string label = call == Call::sigprocmask ? "sigprocmask" : "sigaction";
            const FailingCall failing(call, nth, EINVAL);
            EXPECT_EQ(thrownBy([] {
                          LaunchSignals signals;
                          signals.adapt();
                      }),
                      systemError(label, EINVAL));
        }
}

TEST(LaunchSignalsTest, InterruptedCallsAreRepeated)
{
    int interruptions = 0;
    for (const Call call : {Call::sigprocmask, Call::sigaction})
        for (int nth = 1; nth < 20; ++nth) {
            const int status = support::waitFor(support::forkChild([call, nth] {
                enterState(15);
                const Signals before = ownSignals();
                FailingCall interrupted(call, nth, EINTR);
                {
                    LaunchSignals signals;
                    signals.adapt();
                }
                interrupted.stop();
                return !(ownSignals() == before) ? 2 : interrupted.happened() ? 0 : 1;
            }));
            if (status == 1 << 8)
                break;
            EXPECT_EQ(status, 0);
            ++interruptions;
        }
    EXPECT_EQ(interruptions, 3 + 6);
}
