// StartState: a process started in an odd state becomes sane, and its children get the state back.
#include "process/StartState.h"

#include "support/OpenFds.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

using faults::Call;
using faults::FailingCall;
using support::openFds;
using tools::bit;
using tools::block;
using tools::dispositionOf;
using tools::inOwnProcess;
using tools::ownSignals;
using tools::Signals;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::ensureStandardDescriptors;
using zorvo::process::LaunchSignals;
using zorvo::process::restoreStartSignals;
using zorvo::process::takeOverSignals;

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

TEST(EnsureStandardDescriptorsTest, ClosedOnesBecomeDevNullAndOthersStay)
{
    for (unsigned closed = 0; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        const auto result = support::runInChild([closed] {
            auto expected = openFds();
            for (int fd = 0; fd < 3; ++fd)
                if ((closed & (1U << fd)) != 0) {
                    ::close(fd);
                    expected[fd] = "/dev/null";
                }
            ensureStandardDescriptors();
            return openFds() == expected ? 0 : 1;
        });
        EXPECT_EQ(result.status, 0);
    }
}

TEST(EnsureStandardDescriptorsTest, FilledDescriptorsSurviveExec)
{
    const auto result = support::runInChild([] {
        ::close(0);
        ensureStandardDescriptors();
        return ::fcntl(0, F_GETFD);
    });
    EXPECT_EQ(result.status, 0);
}

TEST(EnsureStandardDescriptorsTest, FailureThrows)
{
    inOwnProcess([] {
        ::close(0);
        const FailingCall failing(Call::open, 1, ENOENT);
        EXPECT_EQ(thrownBy(ensureStandardDescriptors), systemError("/dev/null open", ENOENT));
    });
}

TEST(EnsureStandardDescriptorsTest, InterruptedOpenIsRepeated)
{
    inOwnProcess([] {
        ::close(0);
        const FailingCall interrupted(Call::open, 1, EINTR);
        ensureStandardDescriptors();
        EXPECT_TRUE(interrupted.happened());
        EXPECT_EQ(openFds().at(0), "/dev/null");
    });
}

TEST(TakeOverSignalsTest, LaunchingWorksAndALostReaderDoesNotKill)
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

TEST(TakeOverSignalsTest, HandlerOfTheStartIsRecordedToo)
{
    inOwnProcess([] {
        ::signal(SIGCHLD, handler);
        takeOverSignals();
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, SIG_DFL);
        restoreStartSignals();
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, handler);
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

TEST(LaunchSignalsTest, ChangesNothingItself)
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
