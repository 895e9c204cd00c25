// ProcessLaunch and rethrowReport: what one child gets as its descriptors, directory, environment and
// signals, and how its failure before exec comes out in the parent.
#include "process/ProcessLaunch.h"

#include "process/signals.h"
#include "support/Capture.h"
#include "support/InterruptedPipe.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"
#include "unit/process/ExecTestTools.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <boost/function.hpp>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using faults::Call;
using faults::FailingCall;
using faults::ScriptedWait;
using faults::Who;
using support::hasNoChildren;
using support::openFds;
using support::readAll;
using support::ScratchDir;
using support::Signals;
using support::signalsIn;
using tools::childSystemError;
using tools::closeAllButStandard;
using tools::inOwnProcess;
using tools::systemError;
using tools::thrownBy;
using zorvo::SystemError;
using zorvo::process::kDevNullFd;
using zorvo::process::kInheritFd;
using zorvo::process::kPipeFd;
using zorvo::process::kSameAsStdoutFd;
using zorvo::process::ProcessLaunch;
using zorvo::process::rethrowReport;

namespace {

/// The arguments of a launch, each with a default that changes nothing.
struct Launch {
    std::vector<std::string> arguments = {"true"};
    std::string file = "/bin/true";
    const char* directory = nullptr;
    const char* const* environment = nullptr;
    bool closeOtherFds = false;
    bool searchPath = false;
    bool newSession = false;
    boost::function<void()> hook;
    int in = kInheritFd;
    int out = kInheritFd;
    int err = kInheritFd;

    /// A launch of `script` by /bin/sh.
    static Launch shell(const std::string& script)
    {
        Launch launch;
        launch.file = "/bin/sh";
        launch.arguments = {"sh", "-c", script};
        return launch;
    }

    std::unique_ptr<ProcessLaunch> start() const
    {
        std::vector<const char*> argv;
        for (const std::string& argument : arguments)
            argv.push_back(argument.c_str());
        argv.push_back(nullptr);
        return std::make_unique<ProcessLaunch>(argv.data(), file.c_str(), directory, environment,
                                               closeOtherFds, searchPath, newSession, hook, in, out, err);
    }
};

/// Wait status and standard output of a launch that has to succeed.
struct Outcome {
    int status = -1;
    std::string out;
};

Outcome outcomeOf(Launch launch)
{
    launch.out = kPipeFd;
    const auto process = launch.start();
    process->waitExec();
    Outcome outcome;
    outcome.out = readAll(process->stdoutPipe().get());
    outcome.status = process->waitExit();
    return outcome;
}

/// A launch that has to fail in the child, as "what waitExec() throws; exit status". Nothing may be left.
std::string failureOf(const Launch& launch)
{
    const auto fds = openFds();
    std::string failure;
    {
        const auto process = launch.start();
        failure = thrownBy([&process] { process->waitExec(); });
        const int status = process->waitExit();
        failure += WIFEXITED(status) ? "; " + std::to_string(WEXITSTATUS(status)) : "; no exit";
    }
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(openFds(), fds);
    return failure;
}

/// What the constructor throws. No child may be created, and nothing be left.
std::string refusalOf(const Launch& launch)
{
    const auto fds = openFds();
    const FailingCall fork(Call::fork, 1, EAGAIN);
    std::string thrown = thrownBy([&launch] { launch.start(); });
    EXPECT_FALSE(fork.happened());
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(openFds(), fds);
    return thrown;
}

/// Memory that a child's hook can report in.
template <class T>
class Shared {
public:
    Shared()
        : object_(static_cast<T*>(
              ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (static_cast<void*>(object_) == MAP_FAILED)
            throw std::bad_alloc();
        new (object_) T();
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    ~Shared() { ::munmap(object_, sizeof(T)); }

    T* operator->() { return object_; }
    T& operator*() { return *object_; }

private:
    T* object_;
};

/// What a hook finds on the standard descriptors: link texts and access modes.
struct Standard {
    char target[3][64] = {};
    int access[3] = {-1, -1, -1};

    void look()
    {
        const auto fds = openFds();
        for (int fd = 0; fd < 3; ++fd) {
            const auto found = fds.find(fd);
            if (found == fds.end())
                continue;
            found->second.copy(target[fd], sizeof target[fd] - 1);
            access[fd] = ::fcntl(fd, F_GETFL) & O_ACCMODE;
        }
    }
};

/// Which of the first thousand descriptors a hook finds open.
struct Table {
    std::array<bool, 1000> open = {};
    int error = 0;

    void look()
    {
        error = errno;
        for (int fd = 0; fd < static_cast<int>(open.size()); ++fd)
            open[static_cast<size_t>(fd)] = ::fcntl(fd, F_GETFD) != -1;
    }
    std::vector<int> from(int lowest) const
    {
        std::vector<int> numbers;
        for (int fd = lowest; fd < static_cast<int>(open.size()); ++fd)
            if (open[static_cast<size_t>(fd)])
                numbers.push_back(fd);
        return numbers;
    }
};

/// What the bytes of a control pipe make throw.
std::string reportOf(const std::string& bytes)
{
    return thrownBy([&bytes] { rethrowReport(bytes); });
}

/// Collects what goes to std::clog, and counts the flushes.
class ClogCapture : public std::stringbuf {
public:
    ClogCapture() : old_(std::clog.rdbuf(this)) {}
    ClogCapture(const ClogCapture&) = delete;
    ClogCapture& operator=(const ClogCapture&) = delete;
    ~ClogCapture() override { std::clog.rdbuf(old_); }

    int flushes = 0;

protected:
    int sync() override
    {
        ++flushes;
        return 0;
    }

private:
    std::streambuf* old_;
};

std::string records(std::initializer_list<std::string> texts)
{
    std::string bytes;
    for (const std::string& text : texts)
        bytes.append(text).push_back('\0');
    return bytes;
}

/// Writes bytes into the control pipe: in a child with the other descriptors closed it is the only one from 3
/// on. Without a known end of the record the launch adds none.
void writeToControlPipe(const std::string& bytes)
{
    for (int fd = 3; fd < 1000; ++fd)
        if (::fcntl(fd, F_GETFD) != -1) {
            if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
                ::_exit(99);
            return;
        }
    ::_exit(98);
}

} // namespace

// ---- Selectors

TEST(ProcessLaunchSelectorTest, StdinRefusesOtherSelectors)
{
    for (const int selector : {-1, static_cast<int>(kSameAsStdoutFd), -6, std::numeric_limits<int>::min()}) {
        SCOPED_TRACE(selector);
        Launch launch;
        launch.in = selector;
        EXPECT_EQ(refusalOf(launch), "std::invalid_argument: invalid FD for stdin");
    }
}

TEST(ProcessLaunchSelectorTest, StdoutRefusesOtherSelectors)
{
    for (const int selector : {-1, static_cast<int>(kSameAsStdoutFd), -6, std::numeric_limits<int>::min()}) {
        SCOPED_TRACE(selector);
        Launch launch;
        launch.in = kPipeFd; // Made before the refusal, and closed again.
        launch.out = selector;
        EXPECT_EQ(refusalOf(launch), "std::invalid_argument: invalid FD for stdout");
    }
}

TEST(ProcessLaunchSelectorTest, StderrRefusesOtherSelectors)
{
    for (const int selector : {-1, -6, std::numeric_limits<int>::min()}) {
        SCOPED_TRACE(selector);
        Launch launch;
        launch.in = kDevNullFd;
        launch.out = kPipeFd;
        launch.err = selector;
        EXPECT_EQ(refusalOf(launch), "std::invalid_argument: invalid FD for stderr");
    }
}

TEST(ProcessLaunchSelectorTest, StdinIsResolvedBeforeStdoutBeforeStderr)
{
    Launch launch;
    launch.in = launch.out = launch.err = -1;
    EXPECT_EQ(refusalOf(launch), "std::invalid_argument: invalid FD for stdin");
    launch.in = kInheritFd;
    EXPECT_EQ(refusalOf(launch), "std::invalid_argument: invalid FD for stdout");
}

TEST(ProcessLaunchSelectorTest, InheritedOnesAreTheParents)
{
    Shared<Standard> child;
    Standard parent;
    parent.look();
    Launch launch;
    launch.hook = [&child] { child->look(); };
    const auto process = launch.start();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), 0);
    for (int fd = 0; fd < 3; ++fd) {
        EXPECT_STREQ(child->target[fd], parent.target[fd]);
        EXPECT_EQ(child->access[fd], parent.access[fd]);
    }
    EXPECT_FALSE(process->stdinPipe().isOpen());
    EXPECT_FALSE(process->stdoutPipe().isOpen());
    EXPECT_FALSE(process->stderrPipe().isOpen());
}

TEST(ProcessLaunchSelectorTest, InheritedOnesPassDataThrough)
{
    const auto result = support::runInChild([] {
        int ends[2];
        if (::pipe(ends) != 0 || ::write(ends[1], "input", 5) != 5)
            return 1;
        ::close(ends[1]);
        ::dup2(ends[0], 0);
        const auto process = Launch::shell("cat; echo error >&2").start();
        process->waitExec();
        return process->waitExit();
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "input");
    EXPECT_EQ(result.err, "error\n");
}

TEST(ProcessLaunchSelectorTest, DevNullIsReadOnlyForStdinAndWriteOnlyForTheOthers)
{
    const auto fds = openFds();
    Shared<Standard> child;
    Launch launch;
    launch.in = launch.out = launch.err = kDevNullFd;
    launch.hook = [&child] { child->look(); };
    const auto process = launch.start();
    process->waitExec();
    EXPECT_EQ(openFds().size(), fds.size()); // The parent keeps none of them; the control pipe is closed.
    EXPECT_EQ(process->waitExit(), 0);
    for (const auto& target : child->target)
        EXPECT_STREQ(target, "/dev/null");
    EXPECT_EQ(child->access[0], O_RDONLY);
    EXPECT_EQ(child->access[1], O_WRONLY);
    EXPECT_EQ(child->access[2], O_WRONLY);
}

TEST(ProcessLaunchSelectorTest, PipesConnectTheChildWithTheParent)
{
    Shared<Standard> child;
    Launch launch = Launch::shell("cat; cat /proc/self/fd/0 | wc -c >&2");
    launch.in = launch.out = launch.err = kPipeFd;
    launch.hook = [&child] { child->look(); };
    const auto process = launch.start();
    process->waitExec();
    ASSERT_EQ(::write(process->stdinPipe().get(), "some data", 9), 9);
    process->stdinPipe().close_nothrow();
    EXPECT_EQ(readAll(process->stdoutPipe().get()), "some data");
    EXPECT_EQ(readAll(process->stderrPipe().get()), "0\n");
    EXPECT_EQ(process->waitExit(), 0);
    EXPECT_EQ(child->access[0], O_RDONLY);
    EXPECT_EQ(child->access[1], O_WRONLY);
    EXPECT_EQ(child->access[2], O_WRONLY);
}

TEST(ProcessLaunchSelectorTest, CallersDescriptorsAreDuplicatedAndLeftOpen)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("in"), "from the file");
    const int in = ::open(scratch.file("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = ::open(scratch.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const auto before = openFds();
    {
        Launch launch = Launch::shell("cat; echo error >&2");
        launch.in = in;
        launch.out = out;
        launch.err = err;
        const auto process = launch.start();
        process->waitExec();
        EXPECT_EQ(process->waitExit(), 0);
    }
    EXPECT_EQ(openFds(), before);
    ::close(in);
    ::close(out);
    ::close(err);
    EXPECT_EQ(support::readFile(scratch.file("out")), "from the file");
    EXPECT_EQ(support::readFile(scratch.file("err")), "error\n");
}

// The numbers 0, 1 and 2 in their own place need nothing done.
TEST(ProcessLaunchSelectorTest, CallersDescriptorInItsOwnPlaceIsInherited)
{
    const auto result = support::runInChild([] {
        Launch launch = Launch::shell("echo output; echo error >&2");
        launch.in = 0;
        launch.out = 1;
        launch.err = 2;
        const auto process = launch.start();
        process->waitExec();
        return process->waitExit();
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "output\n");
    EXPECT_EQ(result.err, "error\n");
}

// As in a shell's 2>&1: 1 for standard error means the new standard output, which is set up before it.
TEST(ProcessLaunchSelectorTest, StderrOneIsTheChildsStdout)
{
    Launch launch = Launch::shell("echo output; echo error >&2");
    launch.err = 1;
    const Outcome outcome = outcomeOf(launch);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "output\nerror\n");
}

TEST(ProcessLaunchSelectorTest, StdoutTwoIsTheParentsStderr)
{
    const auto result = support::runInChild([] {
        Launch launch = Launch::shell("echo output; echo error >&2");
        launch.out = 2;
        const auto process = launch.start();
        process->waitExec();
        return process->waitExit();
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "output\nerror\n");
}

TEST(ProcessLaunchSelectorTest, SameAsStdoutFollowsACallersDescriptor)
{
    const ScratchDir scratch;
    const int out = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Launch launch = Launch::shell("echo output; echo error >&2");
    launch.out = out;
    launch.err = kSameAsStdoutFd;
    const auto process = launch.start();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), 0);
    ::close(out);
    EXPECT_EQ(support::readFile(scratch.file("out")), "output\nerror\n");
}

TEST(ProcessLaunchSelectorTest, SameAsStdoutFollowsAnInheritedStdout)
{
    const auto result = support::runInChild([] {
        Launch launch = Launch::shell("echo output; echo error >&2");
        launch.err = kSameAsStdoutFd;
        const auto process = launch.start();
        process->waitExec();
        return process->waitExit();
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "output\nerror\n");
    EXPECT_EQ(result.err, "");
}

TEST(ProcessLaunchSelectorTest, SameAsStdoutFailsWithAPipe)
{
    Launch launch;
    launch.out = kPipeFd;
    launch.err = kSameAsStdoutFd;
    EXPECT_EQ(failureOf(launch), childSystemError("stderr dup2", EBADF) + "; 67");
}

TEST(ProcessLaunchSelectorTest, SameAsStdoutFailsWithDevNull)
{
    Launch launch;
    launch.out = kDevNullFd;
    launch.err = kSameAsStdoutFd;
    EXPECT_EQ(failureOf(launch), childSystemError("stderr dup2", EBADF) + "; 67");
}

TEST(ProcessLaunchSelectorTest, ClosedCallersDescriptorFailsInTheChild)
{
    Launch launch;
    launch.in = 997;
    EXPECT_EQ(failureOf(launch), childSystemError("stdin dup2", EBADF) + "; 67");
    launch = Launch();
    launch.out = 998;
    EXPECT_EQ(failureOf(launch), childSystemError("stdout dup2", EBADF) + "; 67");
    launch = Launch();
    launch.err = 999;
    EXPECT_EQ(failureOf(launch), childSystemError("stderr dup2", EBADF) + "; 67");
}

// A parent without standard descriptors: what is made for the child gets their numbers or is kept off them.
TEST(ProcessLaunchSelectorTest, ParentWithoutStandardDescriptorsCanUsePipes)
{
    const auto result = support::runInChild([] {
        for (int fd = 0; fd < 3; ++fd)
            ::close(fd);
        Launch launch = Launch::shell("cat; echo error >&2");
        launch.in = launch.out = launch.err = kPipeFd;
        const auto process = launch.start();
        process->waitExec();
        if (::write(process->stdinPipe().get(), "data", 4) != 4)
            return 1;
        process->stdinPipe().close_nothrow();
        if (readAll(process->stdoutPipe().get()) != "data")
            return 2;
        if (readAll(process->stderrPipe().get()) != "error\n")
            return 3;
        return process->waitExit() == 0 ? 0 : 4;
    });
    EXPECT_EQ(result.status, 0);
}

TEST(ProcessLaunchSelectorTest, ParentWithoutStandardDescriptorsCanUseDevNull)
{
    Shared<Standard> child;
    const auto result = support::runInChild([&child] {
        for (int fd = 0; fd < 3; ++fd)
            ::close(fd);
        Launch launch;
        launch.in = launch.out = launch.err = kDevNullFd;
        launch.hook = [&child] { child->look(); };
        const auto process = launch.start();
        process->waitExec();
        return process->waitExit() == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
    for (const auto& target : child->target)
        EXPECT_STREQ(target, "/dev/null");
    EXPECT_EQ(child->access[0], O_RDONLY);
    EXPECT_EQ(child->access[1], O_WRONLY);
    EXPECT_EQ(child->access[2], O_WRONLY);
}

// ---- Failures in the parent

TEST(ProcessLaunchParentFailureTest, DevNullThatCannotBeOpenedIsNamed)
{
    const std::array<std::string, 3> labels = {"stdin /dev/null open", "stdout /dev/null open",
                                               "stderr /dev/null open"};
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        Launch launch;
        launch.in = launch.out = launch.err = kDevNullFd;
        const FailingCall failing(Call::open, nth, ENOENT);
        EXPECT_EQ(thrownBy([&launch] { launch.start(); }),
                  systemError(labels[static_cast<size_t>(nth - 1)], ENOENT));
    }
    Launch launch;
    launch.in = launch.out = launch.err = kDevNullFd;
    const auto fds = openFds();
    {
        const FailingCall failing(Call::open, 3, EMFILE);
        EXPECT_EQ(thrownBy([&launch] { launch.start(); }), systemError("stderr /dev/null open", EMFILE));
    }
    EXPECT_EQ(openFds(), fds);
    EXPECT_TRUE(hasNoChildren());
}

TEST(ProcessLaunchParentFailureTest, PipeThatCannotBeMadeIsNamed)
{
    const std::array<std::string, 4> labels = {"stdin pipe", "stdout pipe", "stderr pipe", "pipe"};
    const auto fds = openFds();
    for (int nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        Launch launch;
        launch.in = launch.out = launch.err = kPipeFd;
        {
            const FailingCall failing(Call::pipe, nth, EMFILE);
            EXPECT_EQ(thrownBy([&launch] { launch.start(); }),
                      systemError(labels[static_cast<size_t>(nth - 1)], EMFILE));
        }
        EXPECT_EQ(openFds(), fds);
        EXPECT_TRUE(hasNoChildren());
    }
}

// The same labels come from a real lack of descriptors: with space for more and more of them, a later and
// later one fails.
TEST(ProcessLaunchParentFailureTest, LackOfDescriptorsIsNamedStepByStep)
{
    inOwnProcess([] {
        const auto fds = openFds();
        const int highest = fds.rbegin()->first;
        for (int fd = 0; fd < highest; ++fd)
            if (fds.count(fd) == 0)
                ::dup2(0, fd);
        const auto filled = openFds();
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<std::string> thrown;
        for (int spare = 0; spare < 8; ++spare) {
            const rlimit narrow{static_cast<rlim_t>(highest + 1 + spare), limit.rlim_max};
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &narrow), 0);
            Launch launch;
            launch.in = launch.out = launch.err = kPipeFd;
            thrown.push_back(thrownBy([&launch] { launch.start(); }));
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
            EXPECT_EQ(openFds(), filled);
            EXPECT_TRUE(hasNoChildren());
        }
        EXPECT_THAT(thrown, testing::ElementsAre(
                                systemError("stdin pipe", EMFILE), systemError("stdin pipe", EMFILE),
                                systemError("stdout pipe", EMFILE), systemError("stdout pipe", EMFILE),
                                systemError("stderr pipe", EMFILE), systemError("stderr pipe", EMFILE),
                                systemError("pipe", EMFILE), systemError("pipe", EMFILE)));
    });
}

TEST(ProcessLaunchParentFailureTest, FailedForkIsNamed)
{
    Launch launch;
    launch.in = launch.out = launch.err = kPipeFd;
    const auto fds = openFds();
    {
        const FailingCall failing(Call::fork, 1, EAGAIN);
        EXPECT_EQ(thrownBy([&launch] { launch.start(); }), systemError("fork", EAGAIN));
    }
    EXPECT_EQ(openFds(), fds);
    EXPECT_TRUE(hasNoChildren());
}

// The child exists by then, and must not be left either. Each close after the fork fails in turn.
TEST(ProcessLaunchParentFailureTest, FailedCloseIsNamedAndLeavesNoChild)
{
    for (int nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        inOwnProcess([nth] {
            const auto fds = openFds();
            Launch launch = Launch::shell("read x");
            launch.in = launch.out = launch.err = kPipeFd;
            {
                const FailingCall failing(Call::close, nth, EIO);
                EXPECT_EQ(thrownBy([&launch] { launch.start(); }), systemError("close", EIO));
            }
            EXPECT_EQ(openFds(), fds);
            EXPECT_TRUE(hasNoChildren());
        });
    }
}

TEST(ProcessLaunchParentFailureTest, UnreadableReportIsNamed)
{
    const auto process = Launch().start();
    {
        const FailingCall failing(Call::read, 1, EIO);
        EXPECT_EQ(thrownBy([&process] { process->waitExec(); }), systemError("control pipe read", EIO));
    }
    EXPECT_EQ(process->waitExit(), 0);
}

TEST(ProcessLaunchParentFailureTest, ChildThatCannotBeWaitedForIsNamed)
{
    const auto process = Launch().start();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), 0);
    EXPECT_EQ(thrownBy([&process] { process->waitExit(); }),
              systemError("unable to wait for child process exit", ECHILD));
}

TEST(ProcessLaunchParentFailureTest, WaitThatReturnsZeroIsAFailureToo)
{
    const auto process = Launch().start();
    process->waitExec();
    {
        const ScriptedWait zero(0, 0);
        EXPECT_THAT([&process] { process->waitExit(); },
                    testing::ThrowsMessage<SystemError>(
                        testing::StartsWith("unable to wait for child process exit: ")));
    }
    EXPECT_EQ(process->waitExit(), 0);
}

// Every call of a launch that can be interrupted, at each place where it is made, in parent and child.
TEST(ProcessLaunchTest, InterruptedCallsAreRepeated)
{
    const auto fds = openFds();
    for (const Who who : {Who::parent, Who::child}) {
        for (const Call call : {Call::open, Call::pipe, Call::close, Call::closeNever, Call::read, Call::fork,
                                Call::dup2, Call::fcntl, Call::waitpid, Call::exec}) {
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << ", occurrence " << nth
                                                << (who == Who::child ? " in the child" : " in the parent"));
                const ScratchDir scratch;
                Launch launch = Launch::shell("cat; pwd >&2");
                launch.in = kDevNullFd;
                launch.out = launch.err = kPipeFd;
                launch.directory = scratch.path().c_str();
                launch.closeOtherFds = launch.newSession = true;
                bool happened = false;
                {
                    FailingCall interrupted(call, nth, EINTR, who);
                    const auto process = launch.start();
                    process->waitExec();
                    process->stdinPipe().close_nothrow();
                    const int status = process->waitExit();
                    interrupted.stop();
                    happened = interrupted.happened();
                    EXPECT_EQ(status, 0);
                    EXPECT_EQ(readAll(process->stdoutPipe().get()), "");
                    EXPECT_EQ(readAll(process->stderrPipe().get()), scratch.path() + "\n");
                }
                EXPECT_EQ(openFds(), fds);
                // Closing all descriptors in the child makes thousands of calls; their errors do not count.
                if (!happened || nth == 40 || HasFailure())
                    break;
            }
        }
    }
}

TEST(ProcessLaunchTest, InterruptedReportIsRepeatedByTheChild)
{
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        Launch launch;
        launch.file = "/no/such/program";
        const FailingCall interrupted(Call::write, nth, EINTR, Who::child);
        EXPECT_EQ(failureOf(launch), childSystemError("execv", ENOENT) + "; 67");
        EXPECT_TRUE(interrupted.happened());
    }
}

// ---- Failures in the child

TEST(ProcessLaunchChildFailureTest, MissingProgramIsNamedExecv)
{
    Launch launch;
    launch.file = "/no/such/program";
    EXPECT_EQ(failureOf(launch),
              "zorvo::SystemError(2): execv: No such file or directory: No such file or directory; 67");
}

TEST(ProcessLaunchChildFailureTest, ProgramThatMayNotBeExecutedIsNamedExecv)
{
    Launch launch;
    launch.file = "/dev/null";
    EXPECT_EQ(failureOf(launch), childSystemError("execv", EACCES) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, ProgramMissingInThePathIsNamedExecvp)
{
    Launch launch;
    launch.file = "no-such-program-anywhere";
    launch.searchPath = true;
    EXPECT_EQ(failureOf(launch), childSystemError("execvp", ENOENT) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, MissingProgramWithAnEnvironmentIsNamedExecve)
{
    const char* const environment[] = {nullptr};
    Launch launch;
    launch.file = "/no/such/program";
    launch.environment = environment;
    EXPECT_EQ(failureOf(launch), childSystemError("execve", ENOENT) + "; 67");
}

// execve(2) does not search, whatever was asked for.
TEST(ProcessLaunchChildFailureTest, EnvironmentWinsOverThePathSearch)
{
    const char* const environment[] = {"PATH=/bin:/usr/bin", nullptr};
    Launch launch;
    launch.file = "true";
    launch.searchPath = true;
    launch.environment = environment;
    EXPECT_EQ(failureOf(launch), childSystemError("execve", ENOENT) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, MissingDirectoryIsNamed)
{
    Launch launch;
    launch.directory = "/no/such/directory";
    EXPECT_EQ(failureOf(launch), childSystemError("cwd chdir", ENOENT) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, FailedSessionIsNamed)
{
    Launch launch;
    launch.newSession = true;
    const FailingCall failing(Call::setsid, 1, EPERM, Who::child);
    EXPECT_EQ(failureOf(launch), childSystemError("setsid", EPERM) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, FailedCloseOnExecIsNamed)
{
    const FailingCall failing(Call::setFd, 1, EINVAL, Who::child);
    EXPECT_EQ(failureOf(Launch()), childSystemError("control pipe close-on-exec fcntl", EINVAL) + "; 67");
}

/// Number of writes that a failing child makes.
static int writesOf(const Launch& launch)
{
    for (int nth = 1;; ++nth) {
        const FailingCall failing(Call::write, nth, EIO, Who::child);
        const auto process = launch.start();
        thrownBy([&process] { process->waitExec(); });
        process->waitExit();
        if (!failing.happened())
            return nth - 1;
    }
}

TEST(ProcessLaunchChildFailureTest, ReportTakesOneWriteForEachRecord)
{
    Launch launch;
    launch.hook = [] { throw SystemError("hook", EPERM); };
    EXPECT_EQ(writesOf(launch), 3);
    launch.hook = [] { throw std::runtime_error("out of luck"); };
    EXPECT_EQ(writesOf(launch), 2);
    launch.hook = [] { throw std::logic_error("wrong"); };
    EXPECT_EQ(writesOf(launch), 2);
    launch.hook = [] { throw 42; };
    EXPECT_EQ(writesOf(launch), 2);
}

TEST(ProcessLaunchChildFailureTest, HookThrowingASystemErrorExitsWith67)
{
    Launch launch;
    launch.hook = [] { throw SystemError("hook", EPERM); };
    EXPECT_EQ(failureOf(launch), childSystemError("hook", EPERM) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, HookThrowingATypedSystemErrorComesOutAsThePlainOne)
{
    Launch launch;
    launch.hook = [] { zorvo::throwSystemError("hook", EAGAIN); };
    EXPECT_EQ(failureOf(launch), childSystemError("hook", EAGAIN) + "; 67");
}

TEST(ProcessLaunchChildFailureTest, HookThrowingARuntimeErrorExitsWith66)
{
    Launch launch;
    launch.hook = [] { throw std::runtime_error("out of luck"); };
    EXPECT_EQ(failureOf(launch), "std::runtime_error: out of luck; 66");
    launch.hook = [] { throw std::range_error("out of range"); };
    EXPECT_EQ(failureOf(launch), "std::runtime_error: out of range; 66");
}

// The text is lost: a plain std::exception carries none.
TEST(ProcessLaunchChildFailureTest, HookThrowingAnotherExceptionExitsWith66)
{
    Launch launch;
    launch.hook = [] { throw std::logic_error("wrong"); };
    EXPECT_EQ(failureOf(launch), "std::exception: std::exception; 66");
}

TEST(ProcessLaunchChildFailureTest, HookThrowingSomethingElseExitsWith65)
{
    Launch launch;
    launch.hook = [] { throw 42; };
    EXPECT_EQ(failureOf(launch), "std::runtime_error: unknown error; 65");
}

TEST(ProcessLaunchChildFailureTest, EmptyTextBecomesAStandardOne)
{
    Launch launch;
    launch.hook = [] { throw std::runtime_error(""); };
    EXPECT_EQ(failureOf(launch), "std::runtime_error: an error in child process; 66");
}

// Longer than what the control pipe holds at a time.
TEST(ProcessLaunchChildFailureTest, LongTextArrivesWhole)
{
    std::string text;
    while (text.size() < 300000)
        text += "line " + std::to_string(text.size()) + "\n";
    Launch launch;
    launch.hook = [&text] { throw std::runtime_error(text); };
    const std::string failure = failureOf(launch);
    EXPECT_EQ(failure.size(), text.size() + std::string("std::runtime_error: ; 66").size());
    EXPECT_TRUE(failure == "std::runtime_error: " + text + "; 66");
}

TEST(ProcessLaunchChildFailureTest, HookThatEndsTheChildIsNotAFailureOfTheLaunch)
{
    Launch launch;
    launch.hook = [] { ::_exit(5); };
    EXPECT_EQ(failureOf(launch), "nothing; 5");
}

// ---- The child's surroundings

TEST(ProcessLaunchTest, SuccessfulExecIsSilent)
{
    const ClogCapture clog;
    EXPECT_EQ(failureOf(Launch()), "nothing; 0");
    EXPECT_EQ(clog.str(), "");
}

TEST(ProcessLaunchTest, PidIsTheChilds)
{
    Launch launch = Launch::shell("echo $$");
    launch.out = kPipeFd;
    const auto process = launch.start();
    process->waitExec();
    EXPECT_EQ(readAll(process->stdoutPipe().get()), std::to_string(process->pid()) + "\n");
    EXPECT_EQ(process->waitExit(), 0);
}

TEST(ProcessLaunchTest, WaitExitReturnsTheRawStatus)
{
    auto process = Launch::shell("exit 9").start();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), 9 << 8);
    process = Launch::shell("kill -TERM $$").start();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), SIGTERM);
}

TEST(ProcessLaunchTest, EndKillsAndReapsEvenWhatIgnoresSignals)
{
    Launch launch;
    launch.file = "/bin/sleep";
    launch.arguments = {"sleep", "1000"};
    launch.hook = [] { ::signal(SIGTERM, SIG_IGN); };
    const auto process = launch.start();
    process->waitExec();
    process->end();
    EXPECT_TRUE(hasNoChildren());
}

TEST(ProcessLaunchTest, ConstructorDoesNotWaitForExec)
{
    tools::Gate gate;
    Launch launch;
    launch.hook = [&gate] { gate.wait(); };
    const auto process = launch.start(); // Would never return if it waited.
    gate.open();
    process->waitExec();
    EXPECT_EQ(process->waitExit(), 0);
}

TEST(ProcessLaunchTest, ArgumentsAndNameArriveAsTheyAre)
{
    Launch launch;
    launch.file = "/bin/sh";
    launch.arguments = {"my own name", "-c",    R"(printf '<%s>' "$0" "$@")", "zeroth", "", "two words",
                        "-x",          "\xff\n"};
    const Outcome outcome = outcomeOf(launch);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "<zeroth><><two words><-x><\xff\n>");
    launch.arguments = {"my own name", "-c", "tr '\\0' '|' < /proc/$$/cmdline"};
    EXPECT_EQ(outcomeOf(launch).out, "my own name|-c|tr '\\0' '|' < /proc/$$/cmdline|");
}

TEST(ProcessLaunchTest, PathIsSearchedOnlyOnRequest)
{
    Launch launch;
    launch.file = "true";
    launch.searchPath = true;
    EXPECT_EQ(failureOf(launch), "nothing; 0");
    launch.searchPath = false;
    launch.directory = "/";
    EXPECT_EQ(failureOf(launch), childSystemError("execv", ENOENT) + "; 67");
}

TEST(ProcessLaunchTest, EnvironmentIsTheParentsUnlessGiven)
{
    Launch launch;
    launch.file = "/usr/bin/env";
    launch.arguments = {"env"};
    inOwnProcess([launch] {
        ::clearenv();
        ::setenv("INHERITED", "yes", 1);
        EXPECT_EQ(outcomeOf(launch).out, "INHERITED=yes\n");
        Launch own = launch;
        const char* const environment[] = {"FIRST=1", "SECOND=two words", nullptr};
        own.environment = environment;
        EXPECT_EQ(outcomeOf(own).out, "FIRST=1\nSECOND=two words\n");
        const char* const empty[] = {nullptr};
        own.environment = empty;
        EXPECT_EQ(outcomeOf(own).out, "");
    });
}

TEST(ProcessLaunchTest, DirectoryIsTheParentsUnlessGiven)
{
    const ScratchDir scratch;
    Launch launch;
    launch.file = "/bin/pwd";
    launch.arguments = {"pwd", "-P"};
    inOwnProcess([launch, &scratch] {
        ASSERT_EQ(::chdir("/usr"), 0);
        EXPECT_EQ(outcomeOf(launch).out, "/usr\n");
        Launch elsewhere = launch;
        elsewhere.directory = scratch.path().c_str();
        EXPECT_EQ(outcomeOf(elsewhere).out, scratch.path() + "\n");
        char here[4096];
        EXPECT_STREQ(::getcwd(here, sizeof here), "/usr");
    });
}

// A relative program is looked up in the new directory: chdir(2) comes first.
TEST(ProcessLaunchTest, RelativeProgramIsFoundInTheNewDirectory)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("tool"), "#!/bin/sh\necho tool\n");
    ASSERT_EQ(::chmod(scratch.file("tool").c_str(), 0700), 0);
    Launch launch;
    launch.file = "./tool";
    launch.directory = scratch.path().c_str();
    EXPECT_EQ(outcomeOf(launch).out, "tool\n");
}

TEST(ProcessLaunchTest, HookRunsInTheChildAfterEverythingElse)
{
    struct Seen {
        pid_t pid = 0;
        pid_t session = 0;
        char directory[16] = {};
        int access = -1;
    };
    Shared<Seen> seen;
    for (const bool newSession : {true, false}) {
        Launch launch;
        launch.in = kDevNullFd;
        launch.directory = "/usr";
        launch.newSession = newSession;
        launch.hook = [&seen] {
            seen->pid = ::getpid();
            seen->session = ::getsid(0);
            if (::getcwd(seen->directory, sizeof seen->directory) == nullptr)
                ::_exit(1);
            seen->access = ::fcntl(0, F_GETFL) & O_ACCMODE;
        };
        const auto process = launch.start();
        process->waitExec();
        EXPECT_EQ(process->waitExit(), 0);
        EXPECT_EQ(seen->pid, process->pid());
        EXPECT_EQ(seen->session, newSession ? process->pid() : ::getsid(0));
        EXPECT_STREQ(seen->directory, "/usr");
        EXPECT_EQ(seen->access, O_RDONLY);
    }
}

TEST(ProcessLaunchTest, OtherDescriptorsAreInheritedUnlessClosed)
{
    Shared<Table> table;
    const int extra = ::fcntl(0, F_DUPFD, 700);
    ASSERT_EQ(extra, 700);
    Launch launch;
    launch.file = "/bin/ls";
    launch.arguments = {"ls", "/proc/self/fd"};
    EXPECT_THAT(outcomeOf(launch).out, testing::HasSubstr("700\n"));
    launch.closeOtherFds = true;
    launch.hook = [&table] { table->look(); };
    EXPECT_EQ(outcomeOf(launch).out, "0\n1\n2\n3\n"); // 3 is the directory that ls reads.
    EXPECT_EQ(table->from(3).size(), 1U);             // The control pipe.
    ::close(extra);
}

TEST(ProcessLaunchTest, ClosingGoesUpToTheSoftLimitAndKeepsErrno)
{
    inOwnProcess([] {
        closeAllButStandard();
        for (const int fd : {3, 4, 98, 99, 100, 101, 500})
            ASSERT_EQ(::dup2(0, fd), fd);
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = 100;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        Shared<Table> table;
        Launch launch;
        launch.closeOtherFds = true;
        launch.hook = [&table] { table->look(); };
        errno = EDOM;
        const auto process = launch.start();
        process->waitExec();
        EXPECT_EQ(process->waitExit(), 0);
        EXPECT_EQ(table->error, EDOM);
        std::vector<int> left = table->from(3);
        ASSERT_EQ(left.size(), 4U) << testing::PrintToString(left);
        EXPECT_LT(left[0], 98); // The control pipe.
        left.erase(left.begin());
        EXPECT_THAT(left, testing::ElementsAre(100, 101, 500));
    });
}

TEST(ProcessLaunchTest, WithoutAKnownLimitTwentyIsUsed)
{
    inOwnProcess([] {
        for (const int fd : {18, 19, 20, 21})
            ASSERT_EQ(::dup2(0, fd), fd);
        Shared<Table> table;
        Launch launch;
        launch.closeOtherFds = true;
        launch.hook = [&table] { table->look(); };
        FailingCall failing(Call::getrlimit, 1, EINVAL, Who::child);
        errno = EDOM;
        const auto process = launch.start();
        process->waitExec();
        EXPECT_EQ(process->waitExit(), 0);
        ASSERT_TRUE(failing.happened());
        EXPECT_EQ(table->error, EDOM);
        EXPECT_FALSE(table->open[18]);
        EXPECT_FALSE(table->open[19]);
        EXPECT_TRUE(table->open[20]);
        EXPECT_TRUE(table->open[21]);
    });
}

TEST(ProcessLaunchTest, NothingOfTheLaunchReachesTheProgram)
{
    inOwnProcess([] {
        closeAllButStandard();
        Launch launch;
        launch.file = "/bin/ls";
        launch.arguments = {"ls", "/proc/self/fd"};
        launch.in = launch.err = kPipeFd;
        EXPECT_EQ(outcomeOf(launch).out, "0\n1\n2\n3\n");
    });
}

// The parent's ends of the pipes are gone by then, the child's have become 0, 1 and 2.
TEST(ProcessLaunchTest, HookSeesNoDescriptorOfTheLaunchButTheControlPipe)
{
    inOwnProcess([] {
        closeAllButStandard();
        Shared<Table> table;
        Launch launch;
        launch.in = launch.out = launch.err = kPipeFd;
        launch.hook = [&table] { table->look(); };
        const auto process = launch.start();
        process->waitExec();
        EXPECT_EQ(process->waitExit(), 0);
        EXPECT_EQ(table->from(3).size(), 1U);
    });
}

// If the second child held the first one's stdin open, the first would wait forever.
TEST(ProcessLaunchTest, ParentsPipeEndsReachNoOtherChild)
{
    Launch launch;
    launch.file = "/bin/cat";
    launch.arguments = {"cat"};
    launch.in = launch.out = kPipeFd;
    const auto first = launch.start();
    first->waitExec();
    const auto second = launch.start();
    second->waitExec();
    first->stdinPipe().close_nothrow();
    EXPECT_EQ(readAll(first->stdoutPipe().get()), "");
    EXPECT_EQ(first->waitExit(), 0);
    second->stdinPipe().close_nothrow();
    EXPECT_EQ(second->waitExit(), 0);
}

TEST(ProcessLaunchTest, SignalsOfTheStartReachTheProgram)
{
    inOwnProcess([] {
        const Signals start = tools::takeOverOddSignals();
        Launch launch;
        launch.file = "/bin/cat";
        launch.arguments = {"cat", "/proc/self/status"};
        EXPECT_EQ(signalsIn(outcomeOf(launch).out), start);
    });
}

// ---- The report

TEST(RethrowReportTest, NoRecordMeansSuccess)
{
    EXPECT_EQ(reportOf(""), "nothing");
}

TEST(RethrowReportTest, SystemErrorHasTextAndCode)
{
    EXPECT_EQ(reportOf(records({"ET: SystemError", "EM: step: Permission denied", "EC: 13"})),
              "zorvo::SystemError(13): step: Permission denied: Permission denied");
}

TEST(RethrowReportTest, RuntimeErrorHasTheText)
{
    EXPECT_EQ(reportOf(records({"ET: std::runtime_error", "EM: text"})), "std::runtime_error: text");
}

TEST(RethrowReportTest, OtherExceptionIsAPlainOne)
{
    EXPECT_EQ(reportOf(records({"ET: std::exception", "EM: text"})), "std::exception: std::exception");
}

TEST(RethrowReportTest, EmptyOrMissingTextBecomesAStandardOne)
{
    EXPECT_EQ(reportOf(records({"ET: std::runtime_error", "EM: "})),
              "std::runtime_error: an error in child process");
    EXPECT_EQ(reportOf(records({"ET: std::runtime_error"})), "std::runtime_error: an error in child process");
    EXPECT_EQ(reportOf(records({"ET: SystemError", "EC: 2"})),
              "zorvo::SystemError(2): an error in child process: No such file or directory");
}

TEST(RethrowReportTest, RecordsWithoutATypeMeanSuccess)
{
    EXPECT_EQ(reportOf(records({"EM: text", "EC: 13"})), "nothing");
}

TEST(RethrowReportTest, OrderDoesNotMatterAndTheLastOfAKindCounts)
{
    EXPECT_EQ(reportOf(records(
                  {"EC: 13", "EM: first", "ET: std::exception", "EM: second", "EC: 2", "ET: SystemError"})),
              "zorvo::SystemError(2): second: No such file or directory");
}

TEST(RethrowReportTest, TextMayHoldAnythingButNul)
{
    EXPECT_EQ(reportOf(records({"ET: std::runtime_error", "EM: ET: EM: \n\xff EC: 1"})),
              "std::runtime_error: ET: EM: \n\xff EC: 1");
}

TEST(RethrowReportTest, UnterminatedTailIsALastRecord)
{
    EXPECT_EQ(reportOf(records({"ET: SystemError", "EM: step"}) + "EC: 13"),
              "zorvo::SystemError(13): step: Permission denied");
    EXPECT_EQ(reportOf("ET: std::runtime_error"), "std::runtime_error: an error in child process");
    const ClogCapture clog;
    EXPECT_EQ(reportOf("tail"), "nothing");
    EXPECT_EQ(clog.str(), "child output: tail\n");
}

TEST(RethrowReportTest, UnknownRecordsGoToTheLogStreamAndAreNotAnError)
{
    ClogCapture clog;
    EXPECT_EQ(reportOf(records({"hello", "ET:", "et: SystemError", " ET: SystemError", "EX: 1", "E"})),
              "nothing");
    EXPECT_EQ(clog.str(), "child output: hello\n"
                          "child output: ET:\n"
                          "child output: et: SystemError\n"
                          "child output:  ET: SystemError\n"
                          "child output: EX: 1\n"
                          "child output: E\n");
    EXPECT_GE(clog.flushes, 6);
}

TEST(RethrowReportTest, EmptyRecordIsAnUnknownOne)
{
    const ClogCapture clog;
    EXPECT_EQ(reportOf(records({""})), "nothing");
    EXPECT_EQ(clog.str(), "child output: \n");
}

TEST(RethrowReportTest, UnknownRecordBesideAFailureIsLogged)
{
    const ClogCapture clog;
    EXPECT_EQ(reportOf(records({"before", "ET: std::runtime_error", "EM: text", "after"})),
              "std::runtime_error: text");
    EXPECT_EQ(clog.str(), "child output: before\nchild output: after\n");
}

TEST(RethrowReportTest, CodeThatIsNotANumberThrows)
{
    for (const char* const code : {"", "x", "12x", " 12", "12 ", "1.5", "99999999999"}) {
        SCOPED_TRACE(code);
        EXPECT_EQ(reportOf(records({"ET: SystemError", "EM: step", std::string("EC: ") + code})),
                  "boost::bad_lexical_cast: bad lexical cast: source type value could not be interpreted as "
                  "target");
    }
}

TEST(RethrowReportTest, CodeThatIsNotANumberThrowsForAnyTypeAndAsATail)
{
    const std::string failure =
        "boost::bad_lexical_cast: bad lexical cast: source type value could not be interpreted as target";
    EXPECT_EQ(reportOf(records({"EC: x"})), failure);
    EXPECT_EQ(reportOf("EC: x"), failure);
}

TEST(RethrowReportTest, CodeMayBeNegative)
{
    EXPECT_EQ(reportOf(records({"ET: SystemError", "EM: step", "EC: -5"})), systemError("step", -5));
}

// Standard error is unbuffered, and stdio gives up where a signal interrupts its write(2).
TEST(RethrowReportTest, UnknownRecordArrivesWholeInSpiteOfSignals)
{
    inOwnProcess([] {
        const std::string text(3000, 'x');
        const int saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        support::InterruptedPipe interrupted(STDERR_FILENO);
        rethrowReport(records({text, "second"}));
        const std::string written = interrupted.text();
        ::dup2(saved, STDERR_FILENO);
        EXPECT_EQ(written, "child output: " + text + "\nchild output: second\n");
    });
}

// ---- The report on its way through a real control pipe

TEST(ProcessLaunchControlPipeTest, UntaggedRecordIsLoggedAndIsNotAnError)
{
    const ClogCapture clog;
    Launch launch;
    launch.closeOtherFds = true;
    launch.hook = [] { writeToControlPipe(records({"hello from the child"})); };
    EXPECT_EQ(failureOf(launch), "nothing; 0");
    EXPECT_EQ(clog.str(), "child output: hello from the child\n");
}

TEST(ProcessLaunchControlPipeTest, UntaggedRecordBesideAFailureIsLogged)
{
    const ClogCapture clog;
    Launch launch;
    launch.closeOtherFds = true;
    launch.hook = [] {
        writeToControlPipe(records({"hello"}));
        throw std::runtime_error("out of luck");
    };
    EXPECT_EQ(failureOf(launch), "std::runtime_error: out of luck; 66");
    EXPECT_EQ(clog.str(), "child output: hello\n");
}

TEST(ProcessLaunchControlPipeTest, UnterminatedTailIsARecord)
{
    const ClogCapture clog;
    Launch launch;
    launch.closeOtherFds = true;
    launch.hook = [] { writeToControlPipe("tail"); };
    EXPECT_EQ(failureOf(launch), "nothing; 0");
    EXPECT_EQ(clog.str(), "child output: tail\n");
}

// Records longer than the 1024 bytes that are read at a time.
TEST(ProcessLaunchControlPipeTest, RecordsMaySpanChunks)
{
    for (const size_t length : {1000U, 1023U, 1024U, 1025U, 2047U, 2048U, 2049U, 5000U}) {
        SCOPED_TRACE(length);
        const ClogCapture clog;
        const std::string text(length, 'x');
        Launch launch;
        launch.closeOtherFds = true;
        launch.hook = [&text] { writeToControlPipe(records({text, "short"})); };
        EXPECT_EQ(failureOf(launch), "nothing; 0");
        EXPECT_EQ(clog.str(), "child output: " + text + "\nchild output: short\n");
    }
}

// Nothing of the pipe is left open, although interpreting ends at the bad record.
TEST(ProcessLaunchControlPipeTest, ReportIsReadToItsEndBeforeItIsInterpreted)
{
    const ClogCapture clog;
    const auto fds = openFds();
    Launch launch;
    launch.closeOtherFds = true;
    launch.hook = [] { writeToControlPipe(records({"before", "EC: many", "after"})); };
    const auto process = launch.start();
    EXPECT_EQ(
        thrownBy([&process] { process->waitExec(); }),
        "boost::bad_lexical_cast: bad lexical cast: source type value could not be interpreted as target");
    EXPECT_EQ(openFds(), fds);
    EXPECT_EQ(process->waitExit(), 0);
    EXPECT_EQ(clog.str(), "child output: before\n");
}

TEST(ProcessLaunchControlPipeTest, CodeThatIsNotANumberThrows)
{
    Launch launch;
    launch.closeOtherFds = true;
    launch.hook = [] { writeToControlPipe(records({"EC: many"})); };
    EXPECT_EQ(failureOf(launch),
              "boost::bad_lexical_cast: bad lexical cast: source type value could not be interpreted as "
              "target; 0");
}
