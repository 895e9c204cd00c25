// ProcessSetCatcher: children that end are entered in the table and wake a reader of the control pipe.
//
// Signals come when a test says so: SIGCHLD is blocked until the children have ended, so the handler runs
// within the call that unblocks it, or the test calls it by hand.
#include "process/ProcessSetCatcher.h"

#include "process/signals.h"
#include "support/OpenFds.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

using faults::Call;
using faults::FailingCall;
using faults::ScriptedWait;
using support::forkChild;
using support::hasNoChildren;
using support::openFds;
using tools::dispositionOf;
using tools::Gate;
using tools::inOwnProcess;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::ProcessSetCatcher;
using zorvo::process::ProcessStatus;
using zorvo::process::SigBlocker;

namespace {

const std::string alreadyInstalled =
    "std::logic_error: ProcessSetCatcher instance has been installed already";
const std::string stillRunning = "std::logic_error: there're some child processes still running";

void callHandler()
{
    ProcessSetCatcher::childHandler(SIGCHLD, nullptr, nullptr);
}

void ownHandler(int) {}

bool isOwnHandlerInForce()
{
    return dispositionOf(SIGCHLD).sa_handler == ownHandler;
}

bool isCatcherInForce()
{
    return dispositionOf(SIGCHLD).sa_sigaction == ProcessSetCatcher::childHandler;
}

/// A child that ends at once with `code`; it has ended when this returns. SIGCHLD has to be blocked.
pid_t endedChild(int code)
{
    const pid_t child = forkChild([code] { return code; });
    tools::waitUntilEnded(child);
    return child;
}

/// Within its scope SIGCHLD waits and the old disposition is a handler that can be recognised.
class ProcessSetCatcherTest : public tools::NothingLeftTest {
protected:
    ProcessSetCatcherTest()
    {
        struct sigaction action = {};
        action.sa_handler = ownHandler;
        action.sa_flags = SA_RESTART;
        sigaddset(&action.sa_mask, SIGUSR2);
        ::sigaction(SIGCHLD, &action, &old_);
        blocker_.emplace(SIGCHLD);
    }
    ~ProcessSetCatcherTest() noexcept override
    {
        EXPECT_TRUE(isOwnHandlerInForce());
        ::sigaction(SIGCHLD, &old_, nullptr);
    }

    /// Delivers what is pending: the handler has run when this returns.
    void deliver()
    {
        blocker_.reset();
        blocker_.emplace(SIGCHLD);
    }

private:
    struct sigaction old_ = {};
    std::optional<SigBlocker> blocker_;
};

} // namespace

TEST_F(ProcessSetCatcherTest, NewOneIsNotInstalled)
{
    ProcessSetCatcher catcher;
    EXPECT_EQ(catcher.controlFd(), -1);
    EXPECT_EQ(catcher.finishedCount(), 0U);
    EXPECT_EQ(catcher.eventCount(), 0U);
    EXPECT_TRUE(catcher.children().empty());
    EXPECT_TRUE(isOwnHandlerInForce());
}

TEST_F(ProcessSetCatcherTest, InstallSetsHandlerFlagsAndTheCurrentMask)
{
    const SigBlocker blocker(SIGUSR1);
    ProcessSetCatcher catcher;
    catcher.install();
    const struct sigaction action = dispositionOf(SIGCHLD);
    EXPECT_EQ(action.sa_sigaction, ProcessSetCatcher::childHandler);
    EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_NOCLDSTOP | SA_NOCLDWAIT | SA_ONSTACK | SA_RESTART |
                                 SA_NODEFER | static_cast<int>(SA_RESETHAND)),
              SA_SIGINFO | SA_NOCLDSTOP);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGCHLD), 1);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 0);
}

TEST_F(ProcessSetCatcherTest, UnreadableMaskDoesNotPreventInstallation)
{
    ProcessSetCatcher catcher;
    FailingCall failing(Call::sigprocmask, 1, EINVAL);
    catcher.install();
    failing.stop();
    EXPECT_TRUE(failing.happened());
    EXPECT_TRUE(isCatcherInForce());
}

TEST_F(ProcessSetCatcherTest, ControlPipeDoesNotBlockAndIsClosedOnExec)
{
    const auto before = openFds();
    ProcessSetCatcher catcher;
    catcher.install();
    ASSERT_GE(catcher.controlFd(), 3);
    const auto after = openFds();
    EXPECT_EQ(after.size(), before.size() + 2);
    for (const auto& [fd, target] : after) {
        if (before.count(fd) != 0)
            continue;
        EXPECT_EQ(target, after.at(catcher.controlFd()));
        EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    char byte = 0;
    EXPECT_EQ(::read(catcher.controlFd(), &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ProcessSetCatcherTest, SecondInstallOfTheSameOneThrows)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const int controlFd = catcher.controlFd();
    EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }), alreadyInstalled);
    EXPECT_EQ(catcher.controlFd(), controlFd);
    EXPECT_TRUE(isCatcherInForce());
}

TEST_F(ProcessSetCatcherTest, InstallBesideAnInstalledOneThrowsAndLeavesThatOneAtWork)
{
    ProcessSetCatcher first;
    first.install();
    EXPECT_EQ(thrownBy([] {
                  ProcessSetCatcher second;
                  second.install();
              }),
              alreadyInstalled);
    EXPECT_TRUE(isCatcherInForce());
    const pid_t child = endedChild(3);
    first.children()[child] = ProcessStatus();
    deliver();
    EXPECT_EQ(first.finishedCount(), 1U);
    EXPECT_EQ(first.clear_control(), 1);
}

TEST_F(ProcessSetCatcherTest, CanBeInstalledAgainAfterRemoval)
{
    ProcessSetCatcher catcher;
    catcher.install();
    catcher.remove(false);
    EXPECT_TRUE(isOwnHandlerInForce());
    catcher.install();
    EXPECT_TRUE(isCatcherInForce());
    EXPECT_GE(catcher.controlFd(), 0);
}

TEST_F(ProcessSetCatcherTest, FailingSigactionInstallsNothing)
{
    const auto before = openFds();
    ProcessSetCatcher catcher;
    {
        const FailingCall failing(Call::sigaction, 1, EINVAL);
        EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }), systemError("sigaction", EINVAL));
    }
    EXPECT_TRUE(isOwnHandlerInForce());
    EXPECT_EQ(openFds(), before);
    EXPECT_EQ(catcher.controlFd(), -1);
    catcher.install(); // Nothing of the failed one is in the way.
}

TEST_F(ProcessSetCatcherTest, FailingPipeInstallsNothing)
{
    const auto before = openFds();
    ProcessSetCatcher catcher;
    {
        const FailingCall failing(Call::pipe, 1, EMFILE);
        EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }),
                  systemError("process set catcher control pipe", EMFILE));
    }
    EXPECT_TRUE(isOwnHandlerInForce());
    EXPECT_EQ(openFds(), before);
    EXPECT_EQ(catcher.controlFd(), -1);
    catcher.install();
}

// The same with a real lack of descriptors.
TEST_F(ProcessSetCatcherTest, NoFreeDescriptorInstallsNothing)
{
    inOwnProcess([] {
        ProcessSetCatcher catcher;
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = 0;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }),
                  systemError("process set catcher control pipe", EMFILE));
        EXPECT_TRUE(isOwnHandlerInForce());
    });
}

TEST_F(ProcessSetCatcherTest, EitherEndThatCannotBeMadeNonBlockingInstallsNothing)
{
    const auto before = openFds();
    for (int nth = 1; nth <= 2; ++nth) {
        SCOPED_TRACE(nth);
        ProcessSetCatcher catcher;
        FailingCall failing(Call::setFl, nth, EPERM);
        EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }), systemError("control pipe fcntl", EPERM));
        failing.stop();
        EXPECT_TRUE(isOwnHandlerInForce());
        EXPECT_EQ(openFds(), before);
        EXPECT_EQ(catcher.controlFd(), -1);
        catcher.install();
    }
}

TEST_F(ProcessSetCatcherTest, InterruptedCallsOfInstallAndRemoveAreRepeated)
{
    for (const Call call :
         {Call::sigprocmask, Call::sigaction, Call::pipe, Call::setFl, Call::close, Call::closeNever}) {
        SCOPED_TRACE(static_cast<int>(call));
        for (int nth = 1;; ++nth) {
            FailingCall interrupted(call, nth, EINTR);
            {
                ProcessSetCatcher catcher;
                catcher.install();
                EXPECT_GE(catcher.controlFd(), 3);
                catcher.remove(false);
            }
            interrupted.stop();
            EXPECT_TRUE(isOwnHandlerInForce());
            if (!interrupted.happened()) {
                EXPECT_GT(nth, 1);
                break;
            }
        }
    }
}

TEST_F(ProcessSetCatcherTest, ExitIsStoredCountedAndSignalledByOneByte)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const pid_t child = endedChild(3);
    catcher.children()[child] = ProcessStatus();
    deliver();
    EXPECT_EQ(catcher.children().at(child).reaped, 1);
    EXPECT_EQ(catcher.children().at(child).status, 3 << 8);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_TRUE(hasNoChildren());
    char bytes[8];
    ASSERT_EQ(::read(catcher.controlFd(), bytes, sizeof bytes), 1);
    EXPECT_EQ(bytes[0], 't');
}

TEST_F(ProcessSetCatcherTest, DeathByASignalCountsAsFinished)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const pid_t child = forkChild([] { return ::raise(SIGKILL); });
    tools::waitUntilEnded(child);
    catcher.children()[child] = ProcessStatus();
    deliver();
    EXPECT_EQ(catcher.children().at(child).reaped, 1);
    EXPECT_EQ(catcher.children().at(child).status, SIGKILL);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_EQ(catcher.clear_control(), 1);
}

// As in use: the loop sleeps in select(2), and a child's end wakes it.
TEST_F(ProcessSetCatcherTest, EndOfAChildWakesASelectLoop)
{
    ProcessSetCatcher catcher;
    catcher.install();
    Gate gate;
    const pid_t child = forkChild([&gate] {
        gate.wait();
        return 9;
    });
    catcher.children()[child] = ProcessStatus();
    gate.open();
    tools::unblock(SIGCHLD);
    fd_set readable;
    int ready = -1;
    do {
        FD_ZERO(&readable);
        FD_SET(catcher.controlFd(), &readable);
        ready = ::select(catcher.controlFd() + 1, &readable, nullptr, nullptr, nullptr);
    } while (ready == -1 && errno == EINTR);
    tools::block(SIGCHLD);
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(catcher.clear_control(), 1);
    EXPECT_EQ(catcher.children().at(child).status, 9 << 8);
}

TEST_F(ProcessSetCatcherTest, ManyChildrenAtOnceAreCollectedInOnePass)
{
    ProcessSetCatcher catcher;
    catcher.install();
    std::vector<pid_t> pids;
    for (int code = 0; code < 60; ++code) {
        pids.push_back(endedChild(code));
        catcher.children()[pids.back()] = ProcessStatus();
    }
    callHandler();
    EXPECT_EQ(catcher.finishedCount(), 60U);
    EXPECT_EQ(catcher.eventCount(), 60U);
    for (int code = 0; code < 60; ++code) {
        const ProcessStatus& status = catcher.children().at(pids[static_cast<size_t>(code)]);
        EXPECT_EQ(status.reaped, 1);
        EXPECT_EQ(status.status, code << 8);
    }
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(catcher.clear_control(), 60);
}

TEST_F(ProcessSetCatcherTest, RunningChildIsLeftAlone)
{
    ProcessSetCatcher catcher;
    catcher.install();
    Gate gate;
    const pid_t running = forkChild([&gate] {
        gate.wait();
        return 4;
    });
    const pid_t ended = endedChild(5);
    catcher.children()[running] = ProcessStatus();
    catcher.children()[ended] = ProcessStatus();
    callHandler();
    EXPECT_EQ(catcher.children().at(running).reaped, 0);
    EXPECT_EQ(catcher.children().at(ended).reaped, 1);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    gate.open();
    tools::waitUntilEnded(running);
    callHandler();
    EXPECT_EQ(catcher.children().at(running).status, 4 << 8);
    EXPECT_EQ(catcher.finishedCount(), 2U);
}

// No byte, not finished, no event: waitpid(2) without WUNTRACED does not even tell of it.
TEST_F(ProcessSetCatcherTest, StoppedChildIsNotAnEvent)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const pid_t child = forkChild([] { return ::raise(SIGSTOP); });
    tools::waitUntilStopped(child);
    catcher.children()[child] = ProcessStatus();
    callHandler();
    EXPECT_EQ(catcher.children().at(child).reaped, 0);
    EXPECT_EQ(catcher.finishedCount(), 0U);
    EXPECT_EQ(catcher.eventCount(), 0U);
    EXPECT_EQ(catcher.clear_control(), 0);
    ::kill(child, SIGCONT);
    tools::waitUntilEnded(child);
    callHandler();
    EXPECT_EQ(catcher.finishedCount(), 1U);
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_EQ(catcher.clear_control(), 1);
}

// A traced child's stop is a status, and an event, but neither the end nor a reason to wake the loop.
TEST_F(ProcessSetCatcherTest, StopOfATracedChildIsAnEventWithoutAByte)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const pid_t child = forkChild([] {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            return 1;
        return ::raise(SIGSTOP);
    });
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WSTOPPED | WNOWAIT), 0);
    catcher.children()[child] = ProcessStatus();
    if (info.si_code == CLD_EXITED) {
        callHandler();
        GTEST_SKIP() << "this kernel lets no process be traced";
    }
    callHandler();
    EXPECT_EQ(catcher.children().at(child).reaped, 1);
    EXPECT_TRUE(WIFSTOPPED(catcher.children().at(child).status));
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_EQ(catcher.finishedCount(), 0U);
    EXPECT_EQ(catcher.clear_control(), 0);
    EXPECT_EQ(thrownBy([&catcher] { catcher.remove(false); }), stillRunning);
    ::kill(child, SIGKILL);
    tools::waitUntilEnded(child);
    callHandler();
    EXPECT_EQ(catcher.children().at(child).status, SIGKILL);
    EXPECT_EQ(catcher.eventCount(), 2U);
    EXPECT_EQ(catcher.finishedCount(), 1U);
}

// 0xffff is the wait status of a continued child.
TEST_F(ProcessSetCatcherTest, ContinuedChildIsAnEventWithoutAByte)
{
    ProcessSetCatcher catcher;
    catcher.install();
    catcher.children()[4711] = ProcessStatus();
    {
        const ScriptedWait continued(4711, 0xffff);
        callHandler();
    }
    EXPECT_EQ(catcher.children().at(4711).reaped, 1);
    EXPECT_EQ(catcher.children().at(4711).status, 0xffff);
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_EQ(catcher.finishedCount(), 0U);
    EXPECT_EQ(catcher.clear_control(), 0);
    catcher.remove(true);
}

TEST_F(ProcessSetCatcherTest, UnregisteredChildIsReapedAndDropped)
{
    ProcessSetCatcher catcher;
    catcher.install();
    endedChild(3);
    const pid_t registered = endedChild(4);
    endedChild(5);
    catcher.children()[registered] = ProcessStatus();
    callHandler();
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(catcher.children().size(), 1U);
    EXPECT_EQ(catcher.children().at(registered).status, 4 << 8);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    EXPECT_EQ(catcher.eventCount(), 1U);
    EXPECT_EQ(catcher.clear_control(), 1);
}

TEST_F(ProcessSetCatcherTest, HandlerWithoutACatcherReapsNothing)
{
    const pid_t child = endedChild(3);
    callHandler();
    EXPECT_EQ(support::waitFor(child), 3 << 8);
}

TEST_F(ProcessSetCatcherTest, HandlerKeepsErrno)
{
    errno = EDOM;
    callHandler();
    EXPECT_EQ(errno, EDOM);
    ProcessSetCatcher catcher;
    catcher.install();
    errno = EDOM;
    callHandler(); // waitpid(2) fails: there is no child.
    EXPECT_EQ(errno, EDOM);
    const pid_t child = endedChild(3);
    catcher.children()[child] = ProcessStatus();
    errno = EDOM;
    callHandler();
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(catcher.finishedCount(), 1U);
}

TEST_F(ProcessSetCatcherTest, InterruptedCallsOfTheHandlerAreRepeated)
{
    for (const Call call : {Call::waitpid, Call::write}) {
        SCOPED_TRACE(static_cast<int>(call));
        ProcessSetCatcher catcher;
        catcher.install();
        const pid_t child = endedChild(3);
        catcher.children()[child] = ProcessStatus();
        FailingCall interrupted(call, 1, EINTR);
        callHandler();
        interrupted.stop();
        EXPECT_TRUE(interrupted.happened());
        EXPECT_EQ(catcher.finishedCount(), 1U);
        EXPECT_EQ(catcher.clear_control(), 1);
    }
}

TEST_F(ProcessSetCatcherTest, FullControlPipeLosesNoStatus)
{
    ProcessSetCatcher catcher;
    catcher.install();
    const std::string path = "/proc/self/fd/" + std::to_string(catcher.controlFd());
    const int writeEnd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(writeEnd, -1);
    int filled = 0;
    while (::write(writeEnd, "x", 1) == 1)
        ++filled;
    ::close(writeEnd);
    const pid_t child = endedChild(3);
    catcher.children()[child] = ProcessStatus();
    errno = EDOM;
    callHandler();
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(catcher.children().at(child).status, 3 << 8);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    EXPECT_EQ(catcher.clear_control(), filled);
}

TEST_F(ProcessSetCatcherTest, ClearControlCountsEmptiesAndKeepsErrno)
{
    ProcessSetCatcher catcher;
    catcher.install();
    errno = EDOM;
    EXPECT_EQ(catcher.clear_control(), 0);
    EXPECT_EQ(errno, EDOM);
    for (int i = 0; i < 3; ++i)
        catcher.children()[endedChild(i)] = ProcessStatus();
    callHandler();
    errno = EDOM;
    EXPECT_EQ(catcher.clear_control(), 3);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(catcher.clear_control(), 0);
}

TEST_F(ProcessSetCatcherTest, ClearControlRepeatsAnInterruptedRead)
{
    ProcessSetCatcher catcher;
    catcher.install();
    catcher.children()[endedChild(0)] = ProcessStatus();
    callHandler();
    FailingCall interrupted(Call::read, 1, EINTR);
    EXPECT_EQ(catcher.clear_control(), 1);
    interrupted.stop();
    EXPECT_TRUE(interrupted.happened());
}

TEST_F(ProcessSetCatcherTest, RemoveForgetsEverythingAndPutsTheOldDispositionBack)
{
    const struct sigaction old = dispositionOf(SIGCHLD);
    const auto before = openFds();
    ProcessSetCatcher catcher;
    catcher.install();
    catcher.children()[endedChild(0)] = ProcessStatus();
    callHandler();
    catcher.remove(false);
    EXPECT_EQ(catcher.controlFd(), -1);
    EXPECT_EQ(openFds(), before);
    EXPECT_TRUE(catcher.children().empty());
    EXPECT_EQ(catcher.finishedCount(), 0U);
    EXPECT_EQ(catcher.eventCount(), 0U);
    const struct sigaction now = dispositionOf(SIGCHLD);
    EXPECT_EQ(now.sa_handler, old.sa_handler);
    EXPECT_EQ(now.sa_flags, old.sa_flags);
    EXPECT_EQ(sigismember(&now.sa_mask, SIGUSR2), 1);
}

TEST_F(ProcessSetCatcherTest, RemoveOfANotInstalledOneDoesNothing)
{
    ProcessSetCatcher catcher;
    catcher.children()[4711] = ProcessStatus();
    catcher.remove(false);
    EXPECT_EQ(catcher.children().size(), 1U);
    EXPECT_TRUE(isOwnHandlerInForce());
}

TEST_F(ProcessSetCatcherTest, RemoveOfANotInstalledOneLeavesAnInstalledOneAtWork)
{
    ProcessSetCatcher installed;
    installed.install();
    ProcessSetCatcher other;
    other.remove(true);
    EXPECT_TRUE(isCatcherInForce());
    EXPECT_EQ(thrownBy([&other] { other.install(); }), alreadyInstalled);
}

TEST_F(ProcessSetCatcherTest, RemoveWithARunningChildThrowsAndStaysInstalled)
{
    ProcessSetCatcher catcher;
    catcher.install();
    Gate gate;
    const pid_t child = forkChild([&gate] {
        gate.wait();
        return 6;
    });
    catcher.children()[child] = ProcessStatus();
    EXPECT_EQ(thrownBy([&catcher] { catcher.remove(false); }), stillRunning);
    EXPECT_TRUE(isCatcherInForce());
    EXPECT_EQ(catcher.controlFd(), -1);
    EXPECT_EQ(thrownBy([&catcher] { catcher.install(); }), alreadyInstalled);
    gate.open();
    tools::waitUntilEnded(child);
    deliver();
    EXPECT_EQ(catcher.children().at(child).status, 6 << 8);
    EXPECT_EQ(catcher.finishedCount(), 1U);
    catcher.remove(false);
    EXPECT_TRUE(isOwnHandlerInForce());
}

TEST_F(ProcessSetCatcherTest, ForcedRemoveWithARunningChildSucceeds)
{
    ProcessSetCatcher catcher;
    catcher.install();
    Gate gate;
    const pid_t child = forkChild([&gate] {
        gate.wait();
        return 6;
    });
    catcher.children()[child] = ProcessStatus();
    catcher.remove(true);
    EXPECT_TRUE(isOwnHandlerInForce());
    EXPECT_TRUE(catcher.children().empty());
    EXPECT_EQ(catcher.controlFd(), -1);
    gate.open();
    EXPECT_EQ(support::waitFor(child), 6 << 8); // It was not reaped.
}

TEST_F(ProcessSetCatcherTest, DispositionThatCannotBeRestoredThrows)
{
    ProcessSetCatcher catcher;
    catcher.install();
    {
        const FailingCall failing(Call::sigaction, 1, EINVAL);
        EXPECT_EQ(thrownBy([&catcher] { catcher.remove(false); }), systemError("restore sigaction", EINVAL));
    }
    EXPECT_TRUE(isCatcherInForce());
    catcher.remove(false);
    EXPECT_TRUE(isOwnHandlerInForce());
}

TEST_F(ProcessSetCatcherTest, DestructionRemoves)
{
    const auto before = openFds();
    {
        ProcessSetCatcher catcher;
        catcher.install();
    }
    EXPECT_TRUE(isOwnHandlerInForce());
    EXPECT_EQ(openFds(), before);
    ProcessSetCatcher next;
    next.install();
}

// The failure is thrown, but no handler that works on a dead object is left in force.
TEST_F(ProcessSetCatcherTest, DestructionWithARunningChildThrowsAndLeavesNoHandler)
{
    Gate gate;
    pid_t child = -1;
    EXPECT_EQ(thrownBy([&] {
                  ProcessSetCatcher catcher;
                  catcher.install();
                  child = forkChild([&gate] {
                      gate.wait();
                      return 7;
                  });
                  catcher.children()[child] = ProcessStatus();
              }),
              stillRunning);
    EXPECT_TRUE(isOwnHandlerInForce());
    gate.open();
    EXPECT_EQ(support::waitFor(child), 7 << 8);
    ProcessSetCatcher next;
    next.install();
}

TEST_F(ProcessSetCatcherTest, DestructionByAnExceptionIsForced)
{
    Gate gate;
    pid_t child = -1;
    EXPECT_EQ(thrownBy([&] {
                  ProcessSetCatcher catcher;
                  catcher.install();
                  child = forkChild([&gate] {
                      gate.wait();
                      return 7;
                  });
                  catcher.children()[child] = ProcessStatus();
                  throw std::runtime_error("the first failure");
              }),
              "std::runtime_error: the first failure");
    EXPECT_TRUE(isOwnHandlerInForce());
    gate.open();
    EXPECT_EQ(support::waitFor(child), 7 << 8);
}

// remove() has closed the pipe before the owners could fail to.
TEST_F(ProcessSetCatcherTest, FailedCloseDoesNotPreventRemoval)
{
    for (int nth = 1; nth <= 2; ++nth) {
        SCOPED_TRACE(nth);
        const auto before = openFds();
        ProcessSetCatcher catcher;
        catcher.install();
        FailingCall failing(Call::close, nth, EIO);
        EXPECT_EQ(thrownBy([&catcher] { catcher.remove(false); }), "nothing");
        failing.stop();
        EXPECT_TRUE(failing.happened());
        EXPECT_TRUE(isOwnHandlerInForce());
        EXPECT_EQ(openFds(), before);
    }
}

TEST_F(ProcessSetCatcherTest, FailedCloseOnDestructionIsNotThrownWhileAnExceptionIsInFlight)
{
    EXPECT_EQ(thrownBy([] {
                  std::optional<FailingCall> failing;
                  ProcessSetCatcher catcher;
                  catcher.install();
                  failing.emplace(Call::close, 1, EIO);
                  throw std::runtime_error("the first failure");
              }),
              "std::runtime_error: the first failure");
    EXPECT_TRUE(isOwnHandlerInForce());
}
