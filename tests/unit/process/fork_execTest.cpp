// fork_exec: real programs run by the plain functions: results, captured output, what is reported where,
// and what is left.
#include "process/fork_exec.h"

#include "common/zorvo_log.h"
#include "process/signals.h"
#include "support/Capture.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"
#include "unit/process/ExecTestTools.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace faults;
using namespace support;
using namespace tools;

namespace {

/// What fork_execv_getouterr gives, with the streams of this process beside it.
struct Got {
    int result = -12345;
    std::string out = "(null)";
    std::string err = "(null)";
    std::string ownOut;
    std::string ownErr;
};

Got getouterr(const std::string& text)
{
    Got got;
    char* out = reinterpret_cast<char*>(1); // Both have to be set by the call.
    char* err = reinterpret_cast<char*>(1);
    Arguments arguments = script(text);
    const Seen seen = see([&] { return fork_execv_getouterr(&out, &err, sh, arguments.get()); });
    got.result = seen.result;
    got.out = taken(out);
    got.err = taken(err);
    got.ownOut = seen.out;
    got.ownErr = seen.err;
    return got;
}

/// A child stopped by `signal`.
pid_t stoppedChild(int signal)
{
    const pid_t child = support::forkChild([signal] { return ::raise(signal); });
    tools::waitUntilStopped(child);
    return child;
}

void endStoppedChild(pid_t child)
{
    ::kill(child, SIGKILL);
    support::waitFor(child);
}

class ForkExecWaitpidTest : public NothingLeftTest {};
class ForkExecvPipesTest : public NothingLeftTest {};
class ForkExecvGetouterrTest : public NothingLeftTest {};
class ForkExecvGetoutTest : public NothingLeftTest {};
class ForkExecvLogTest : public NothingLeftTest {};
class ForkExecvFdTest : public NothingLeftTest {};
class ForkExecvTest : public NothingLeftTest {};
class ReadToBufTest : public NothingLeftTest {};
class DoExecTest : public NothingLeftTest {};
class PrepareFdsToExecTest : public NothingLeftTest {};

} // namespace

// ---- fork_exec_waitpid and fork_exec_getres

TEST_F(ForkExecWaitpidTest, ExitGivesItsCodeAndTheRawStatus)
{
    for (const int code : {0, 1, 127, 255}) {
        const pid_t child = support::forkChild([code] { return code; });
        int status = -1;
        const Seen seen = see([&] { return fork_exec_waitpid(child, "name", &status); });
        EXPECT_EQ(seen.result, code);
        EXPECT_EQ(status, code << 8);
        EXPECT_EQ(seen.out, "");
        EXPECT_EQ(seen.err, "");
    }
}

TEST_F(ForkExecWaitpidTest, StatusNeedNotBeAskedFor)
{
    const pid_t child = support::forkChild([] { return 7; });
    EXPECT_EQ(fork_exec_waitpid(child, "name", nullptr), 7);
}

TEST_F(ForkExecWaitpidTest, DeathByASignalIsLoggedAndGivesMinusOne)
{
    for (const int signal : {SIGKILL, SIGTERM, SIGSEGV}) {
        const pid_t child = support::forkChild([signal] {
            const rlimit noCore{0, 0};
            ::setrlimit(RLIMIT_CORE, &noCore);
            ::signal(signal, SIG_DFL); // A sanitizer may have a handler of its own.
            return ::raise(signal);
        });
        int status = -1;
        const Seen seen = see([&] { return fork_exec_waitpid(child, "some name", &status); });
        const std::string pid = std::to_string(child);
        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(status & 0x7f, signal);
        const std::string line = "waitpid(" + pid + ")=" + pid + ": process 'some name' killed by signal " +
                                 std::to_string(signal) + "\n";
        EXPECT_EQ(seen.out, line);
        EXPECT_EQ(seen.err, line);
    }
}

TEST_F(ForkExecWaitpidTest, StopIsLoggedAndGivesMinusOne)
{
    for (const int signal : {SIGSTOP, SIGTSTP}) {
        inOwnProcess([signal] {
            ::setpgid(0, 0); // An orphaned process group ignores SIGTSTP.
            const pid_t child = stoppedChild(signal);
            int status = -1;
            const Seen seen = see([&] { return fork_exec_waitpid(child, "some name", &status); });
            const std::string pid = std::to_string(child);
            EXPECT_EQ(seen.result, -1);
            EXPECT_TRUE(WIFSTOPPED(status));
            const std::string line = "waitpid(" + pid + ")=" + pid +
                                     ": process 'some name' stopped by signal " + std::to_string(signal) +
                                     "\n";
            EXPECT_EQ(seen.out, line);
            EXPECT_EQ(seen.err, line);
            endStoppedChild(child);
        });
    }
}

// 0xffff is the wait status of a continued child.
TEST_F(ForkExecWaitpidTest, ContinuationIsLoggedAndGivesMinusOne)
{
    const ScriptedWait continued(4711, 0xffff);
    const Seen seen = see([] { return fork_exec_waitpid(4711, "some name", nullptr); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "waitpid(4711)=4711: process 'some name' continued\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecWaitpidTest, NegativePidIsAFailedFork)
{
    for (const pid_t pid : {-1, -5}) {
        const Seen seen = see([pid] { return fork_exec_waitpid(pid, "some name", nullptr); });
        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.out, "fork before spawning 'some name' failed\n");
        EXPECT_EQ(seen.err, seen.out);
    }
}

TEST_F(ForkExecWaitpidTest, MissingNameIsUnknown)
{
    const Seen seen = see([] { return fork_exec_waitpid(-1, nullptr, nullptr); });
    EXPECT_EQ(seen.out, "fork before spawning '<unknown>' failed\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecWaitpidTest, FailedWaitIsLogged)
{
    const Seen seen = see([] { return fork_exec_waitpid(4711, "some name", nullptr); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "waitpid(4711) for 'some name' process failed: No child processes (10)\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecWaitpidTest, WaitThatReturnsZeroIsLogged)
{
    const ScriptedWait zero(0, 0);
    const Seen seen = see([] { return fork_exec_waitpid(4711, nullptr, nullptr); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "waitpid(4711) for '<unknown>' process returned unexpected 0 code\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecWaitpidTest, InterruptedWaitIsRepeated)
{
    const pid_t child = support::forkChild([] { return 7; });
    const FailingCall interrupted(Call::waitpid, 1, EINTR);
    const Seen seen = see([child] { return fork_exec_waitpid(child, "name", nullptr); });
    EXPECT_TRUE(interrupted.happened());
    EXPECT_EQ(seen.result, 7);
    EXPECT_EQ(seen.out, "");
}

// Priority 3 for failures of this process, 4 for those of the child.
TEST_F(ForkExecWaitpidTest, PrioritiesAreErrorAndWarning)
{
    inOwnProcess([] {
        LogLevel = 3;
        EXPECT_NE(see([] { return fork_exec_waitpid(-1, "name", nullptr); }).err, "");
        EXPECT_NE(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
        {
            const ScriptedWait zero(0, 0);
            EXPECT_NE(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
        }
        for (const int status : {SIGKILL, 0x137f, 0xffff}) { // Killed, stopped, continued.
            {
                const ScriptedWait wait(4711, status);
                EXPECT_EQ(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
            }
            LogLevel = 4;
            {
                const ScriptedWait wait(4711, status);
                EXPECT_NE(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
            }
            LogLevel = 3;
        }
        LogLevel = 2;
        EXPECT_EQ(see([] { return fork_exec_waitpid(-1, "name", nullptr); }).err, "");
        EXPECT_EQ(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
        const ScriptedWait zero(0, 0);
        EXPECT_EQ(see([] { return fork_exec_waitpid(4711, "name", nullptr); }).err, "");
    });
}

TEST_F(ForkExecWaitpidTest, GetresOfMinusOneIsSilent)
{
    const Seen seen = see([] { return fork_exec_getres(-1, "name"); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(ForkExecWaitpidTest, GetresOfAnotherPidWaits)
{
    const pid_t child = support::forkChild([] { return 7; });
    EXPECT_EQ(fork_exec_getres(child, "name"), 7);
    const Seen seen = see([] { return fork_exec_getres(-2, "name"); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, "fork before spawning 'name' failed\n");
}

// ---- fork_execv_pipes and fork_execl_pipes

TEST_F(ForkExecvPipesTest, StandardNumbersAreInherited)
{
    const ChildResult result = runInChild([] {
        int ends[2];
        if (::pipe(ends) != 0 || ::write(ends[1], "input", 5) != 5)
            return 99;
        ::close(ends[1]);
        ::dup2(ends[0], 0);
        Arguments arguments = script("cat; echo error >&2; exit 7");
        return fork_exec_waitpid(fork_execv_pipes(0, 1, 2, sh, arguments.get()), sh, nullptr);
    });
    EXPECT_TRUE(result.exitedWith(7));
    EXPECT_EQ(result.out, "input");
    EXPECT_EQ(result.err, "error\n");
}

TEST_F(ForkExecvPipesTest, GivenDescriptorsAreUsedAndStayOpen)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("in"), "input");
    const int in = ::open(scratch.file("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = ::open(scratch.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Arguments arguments = script("cat; echo error >&2");
    EXPECT_EQ(fork_exec_waitpid(fork_execv_pipes(in, out, err, sh, arguments.get()), sh, nullptr), 0);
    EXPECT_EQ(::close(in), 0);
    EXPECT_EQ(::close(out), 0);
    EXPECT_EQ(::close(err), 0);
    EXPECT_EQ(support::readFile(scratch.file("out")), "input");
    EXPECT_EQ(support::readFile(scratch.file("err")), "error\n");
}

// Each is closed at its old number before the next one is moved.
TEST_F(ForkExecvPipesTest, DescriptorGivenTwiceIsABadOneAtItsSecondUse)
{
    const ScratchDir scratch;
    Arguments arguments = script("echo > " + scratch.file("ran"));
    for (int place = 0; place < 3; ++place) { // The one that gets another descriptor.
        const Seen seen = see([&] {
            const int file = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            const int result =
                fork_exec_waitpid(fork_execv_pipes(place == 0 ? 0 : file, place == 1 ? 1 : file,
                                                   place == 2 ? 2 : file, sh, arguments.get()),
                                  sh, nullptr);
            EXPECT_EQ(::close(file), 0);
            return result;
        });
        EXPECT_EQ(seen.result, 255);
        EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
    }
    EXPECT_EQ(scratch.names(), std::set<std::string>());
}

TEST_F(ForkExecvPipesTest, StandardDescriptorInAnothersPlaceIsClosedInItsOwn)
{
    const ScratchDir scratch;
    const int file = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Arguments arguments = script("test -e /proc/self/fd/1 && exit 1; echo error >&2; exit 7");
    // Standard error follows standard output, which is closed then.
    EXPECT_EQ(fork_exec_waitpid(fork_execv_pipes(0, file, 1, sh, arguments.get()), sh, nullptr), 7);
    ::close(file);
    EXPECT_EQ(support::readFile(scratch.file("out")), "error\n");
}

TEST_F(ForkExecvPipesTest, MinusOneIsDevNullForReadingAndWriting)
{
    const ScratchDir scratch;
    Arguments arguments = script("for fd in 0 1 2; do text=\"$text$(readlink /proc/$$/fd/$fd) "
                                 "$(grep flags /proc/$$/fdinfo/$fd)|\"; done; echo \"$text\" > " +
                                 scratch.file("report"));
    EXPECT_EQ(fork_exec_waitpid(fork_execv_pipes(-1, -1, -1, sh, arguments.get()), sh, nullptr), 0);
    EXPECT_THAT(support::readFile(scratch.file("report")),
                testing::MatchesRegex("/dev/null flags:\t0[0-9]*2\\|/dev/null flags:\t0[0-9]*2\\|"
                                      "/dev/null flags:\t0[0-9]*2\\|\n"));
}

TEST_F(ForkExecvPipesTest, ProgramHasNoFurtherDescriptor)
{
    const int extra = ::fcntl(0, F_DUPFD, 300); // Not closed on exec.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Arguments arguments = {"ls", "/proc/self/fd"};
    const pid_t child = fork_execv_pipes(-1, ends[1], -1, "/bin/ls", arguments.get());
    ::close(ends[1]);
    EXPECT_EQ(support::readAll(ends[0]), "0\n1\n2\n3\n"); // 3 is the directory that ls reads.
    ::close(ends[0]);
    ::close(extra);
    EXPECT_EQ(fork_exec_waitpid(child, "ls", nullptr), 0);
}

TEST_F(ForkExecvPipesTest, ReturnsThePidWithoutWaiting)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Arguments arguments = script("read x; exit 7");
    const pid_t child = fork_execv_pipes(ends[0], -1, -1, sh, arguments.get());
    EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(support::waitFor(child), 7 << 8);
}

TEST_F(ForkExecvPipesTest, MissingProgramIsReportedByTheChild)
{
    Arguments arguments = {"program"};
    const Seen seen = see([&arguments] {
        return fork_exec_waitpid(fork_execv_pipes(0, 1, 2, "/no/such/program", arguments.get()), "program",
                                 nullptr);
    });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvPipesTest, BadDescriptorIsReportedByTheChild)
{
    Arguments arguments = script("exit 0");
    for (int place = 0; place < 2; ++place) {
        const Seen seen = see([&arguments, place] {
            return fork_exec_waitpid(
                fork_execv_pipes(place == 0 ? 999 : 0, place == 1 ? 999 : 1, 2, sh, arguments.get()), sh,
                nullptr);
        });
        EXPECT_EQ(seen.result, 255);
        EXPECT_EQ(seen.out, "");
        EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
    }
    const Seen seen = see([&arguments] {
        return fork_exec_waitpid(fork_execv_pipes(0, 1, 999, sh, arguments.get()), sh, nullptr);
    });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "fork_execv: dup() failed: Bad file descriptor\n");
}

TEST_F(ForkExecvPipesTest, DevNullThatCannotBeOpenedIsReportedByTheChild)
{
    Arguments arguments = script("exit 0");
    const FailingCall failing(Call::open, 1, ENOENT, Who::child);
    const Seen seen = see([&arguments] {
        return fork_exec_waitpid(fork_execv_pipes(-1, 1, 2, sh, arguments.get()), sh, nullptr);
    });
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "fork_execv: dup() failed: No such file or directory\n");
}

TEST_F(ForkExecvPipesTest, FailedForkEndsTheProgram)
{
    const ChildResult result = runInChild([] {
        Arguments arguments = script("exit 0");
        const FailingCall failing(Call::fork, 1, EAGAIN);
        fork_execv_pipes(0, 1, 2, sh, arguments.get());
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(1));
    const std::string text =
        "fork_execv_pipes: fork() failed\nSystem error 11: Resource temporarily unavailable\n";
    EXPECT_EQ(result.err, text);
    EXPECT_EQ(result.out, text);
}

TEST_F(ForkExecvPipesTest, InterruptedCallsAreRepeated)
{
    const int err = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const Who who : {Who::parent, Who::child}) {
        int interruptions = 0;
        for (const Call call :
             {Call::fork, Call::open, Call::dup2, Call::close, Call::closeNever, Call::exec})
            for (int nth = 1; nth < 20; ++nth) {
                SCOPED_TRACE(testing::Message() << static_cast<int>(call) << ", occurrence " << nth);
                Arguments arguments = script("exit 7");
                FailingCall interrupted(call, nth, EINTR, who);
                const int result =
                    fork_exec_waitpid(fork_execv_pipes(-1, 1, err, sh, arguments.get()), sh, nullptr);
                interrupted.stop();
                EXPECT_EQ(result, 7);
                if (!interrupted.happened())
                    break;
                ++interruptions;
            }
        EXPECT_GE(interruptions, who == Who::parent ? 1 : 4); // fork; open, two dup2 and exec at least.
    }
    ::close(err);
}

TEST_F(ForkExecvPipesTest, SignalsOfTheStartReachTheProgram)
{
    inOwnProcess([] {
        const Signals start = tools::takeOverOddSignals();
        char* out = nullptr;
        Arguments arguments = {"cat", "/proc/self/status"};
        EXPECT_EQ(fork_execv_getout(&out, "/bin/cat", arguments.get()), 0);
        EXPECT_EQ(signalsIn(taken(out)), start);
    });
}

TEST_F(ForkExecvPipesTest, VariableListIsTheArgumentVector)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = fork_execl_pipes(-1, ends[1], -1, sh, "my name", "-c", "printf '<%s>' \"$0\" \"$@\"",
                                         "zeroth", "", "two words", end);
    ::close(ends[1]);
    EXPECT_EQ(support::readAll(ends[0]), "<zeroth><><two words>");
    ::close(ends[0]);
    EXPECT_EQ(fork_exec_waitpid(child, sh, nullptr), 0);
}

// ---- Variable lists of more than 100 arguments

TEST_F(ForkExecvPipesTest, VariableListIsCutAfterAHundred)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child =
        fork_execl_pipes(-1, ends[1], -1, "/usr/bin/printf", "printf", "%s\\n", HUNDRED, "more", end);
    ::close(ends[1]);
    EXPECT_EQ(support::readAll(ends[0]), numbers(98));
    ::close(ends[0]);
    EXPECT_EQ(fork_exec_waitpid(child, "printf", nullptr), 0);
}

TEST_F(ForkExecvPipesTest, VariableListOfExactlyAHundredIsWhole)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = fork_execl_pipes(-1, ends[1], -1, "/bin/echo", HUNDRED, end);
    ::close(ends[1]);
    std::string expected = numbers(100).substr(3);
    std::replace(expected.begin(), expected.end() - 1, '\n', ' ');
    EXPECT_EQ(support::readAll(ends[0]), expected);
    ::close(ends[0]);
    EXPECT_EQ(fork_exec_waitpid(child, "echo", nullptr), 0);
}

TEST_F(ForkExecvGetoutTest, VariableListIsCutAfterAHundred)
{
    char* out = nullptr;
    EXPECT_EQ(fork_execl_getout(&out, "/usr/bin/printf", "printf", "%s\\n", HUNDRED, "more", end), 0);
    EXPECT_EQ(taken(out), numbers(98));
}

TEST_F(ForkExecvGetouterrTest, VariableListIsCutAfterAHundred)
{
    char* out = nullptr;
    char* err = nullptr;
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/usr/bin/printf", "printf", "%s\\n", HUNDRED, "more", end),
              0);
    EXPECT_EQ(taken(out), numbers(98));
    EXPECT_EQ(taken(err), "(null)");
}

TEST_F(ForkExecvLogTest, VariableListIsCutAfterAHundred)
{
    const Seen seen = see([] {
        return fork_execl_log(0, sh, "sh", "-c", "printf '%s\\n' \"$@\"; exit 3", "name", HUNDRED, "more",
                              end);
    });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.err, numbers(96) + "/bin/sh execution failed (no output)\n");
}

// ---- fork_execv_getouterr

TEST_F(ForkExecvGetouterrTest, BothStreamsAreCaptured)
{
    const Got got = getouterr("echo output; echo error >&2; exit 7");
    EXPECT_EQ(got.result, 7);
    EXPECT_EQ(got.out, "output\n");
    EXPECT_EQ(got.err, "error\n");
    EXPECT_EQ(got.ownOut, "");
    EXPECT_EQ(got.ownErr, "");
}

TEST_F(ForkExecvGetouterrTest, NoOutputGivesNull)
{
    const Got got = getouterr("exit 0");
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.out, "(null)");
    EXPECT_EQ(got.err, "(null)");
}

TEST_F(ForkExecvGetouterrTest, StreamWithoutOutputGivesNull)
{
    Got got = getouterr("echo output");
    EXPECT_EQ(got.out, "output\n");
    EXPECT_EQ(got.err, "(null)");
    got = getouterr("echo error >&2");
    EXPECT_EQ(got.out, "(null)");
    EXPECT_EQ(got.err, "error\n");
}

TEST_F(ForkExecvGetouterrTest, StdinIsInherited)
{
    inOwnProcess([] {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], "input", 5), 5);
        ::close(ends[1]);
        ASSERT_EQ(::dup2(ends[0], 0), 0);
        ::close(ends[0]);
        EXPECT_EQ(getouterr("cat").out, "input");
    });
}

TEST_F(ForkExecvGetouterrTest, DeathByASignalIsLoggedAndGivesMinusOne)
{
    for (const auto& [name, number] :
         std::initializer_list<std::pair<std::string, int>>{{"KILL", 9}, {"TERM", 15}, {"SEGV", 11}}) {
        SCOPED_TRACE(name);
        const Got got = getouterr("ulimit -c 0; printf $$; printf error >&2; kill -" + name + " $$");
        EXPECT_EQ(got.result, -1);
        EXPECT_EQ(got.err, "error");
        const std::string& pid = got.out;
        const std::string line = "waitpid(" + pid + ")=" + pid + ": process '/bin/sh' killed by signal " +
                                 std::to_string(number) + "\n";
        EXPECT_EQ(got.ownOut, line);
        EXPECT_EQ(got.ownErr, line);
    }
}

TEST_F(ForkExecvGetouterrTest, StopAfterTheEndOfOutputIsLoggedAndGivesMinusOne)
{
    const Got got = getouterr("printf $$; exec >&- 2>&-; kill -STOP $$");
    EXPECT_EQ(got.result, -1);
    const std::string& pid = got.out;
    EXPECT_EQ(got.ownOut, "waitpid(" + pid + ")=" + pid + ": process '/bin/sh' stopped by signal 19\n");
    EXPECT_EQ(got.ownErr, got.ownOut);
    endStoppedChild(std::stoi(pid));
}

// The output has ended, the child has not: its code still counts. The helper process releases it.
TEST_F(ForkExecvGetouterrTest, ChildThatClosesItsOutputAndLivesOnIsWaitedFor)
{
    const ScratchDir scratch;
    const std::string closed = scratch.file("closed");
    const std::string release = scratch.file("release");
    ASSERT_EQ(::mkfifo(closed.c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(release.c_str(), 0600), 0);
    const pid_t helper = support::forkChild([&closed, &release] {
        support::readFile(closed);
        support::writeFile(release, "\n");
        return 0;
    });
    const Got got =
        getouterr("echo output; exec >&- 2>&-; echo > " + closed + "; read x < " + release + "; exit 9");
    EXPECT_EQ(support::waitFor(helper), 0);
    EXPECT_EQ(got.result, 9);
    EXPECT_EQ(got.out, "output\n");
    EXPECT_EQ(got.err, "(null)");
    EXPECT_EQ(got.ownErr, "");
}

/// A script that leaves a process behind, which keeps the pipes open until the fifo is opened for writing.
static std::string leaving(const std::string& fifo, const std::string& after)
{
    return "cat " + fifo + " & echo output; echo error >&2; " + after;
}

static void release(const std::string& fifo)
{
    const int fd = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC); // Returns when the reader has opened it.
    ::close(fd);
}

TEST_F(ForkExecvGetouterrTest, GrandchildThatHoldsThePipesIsNotWaitedFor)
{
    const ScratchDir scratch;
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const Got got = getouterr(leaving(fifo, "exit 9"));
    release(fifo);
    EXPECT_EQ(got.result, 9);
    EXPECT_EQ(got.out, "output\n");
    EXPECT_EQ(got.err, "error\n");
    EXPECT_EQ(got.ownErr, "");
}

TEST_F(ForkExecvGetouterrTest, DeathByASignalBesideSuchAGrandchildGivesMinusOne)
{
    const ScratchDir scratch;
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const Got got = getouterr(leaving(fifo, "kill -KILL $$"));
    release(fifo);
    EXPECT_EQ(got.result, -1);
    EXPECT_EQ(got.out, "output\n");
    EXPECT_EQ(got.err, "error\n");
    EXPECT_EQ(got.ownErr, "");
}

// Longer than the second after which the child is looked for: it is alive, so the reading goes on.
TEST_F(ForkExecvGetouterrTest, SilentChildIsWaitedForLongerThanASecond)
{
    const Got got = getouterr("echo early; sleep 2.2; echo late; exit 7");
    EXPECT_EQ(got.result, 7);
    EXPECT_EQ(got.out, "early\nlate\n");
}

TEST_F(ForkExecvGetouterrTest, TenMebibytesOnBothStreamsAtOnce)
{
    const size_t size = 10U * 1024U * 1024U;
    const Got got = getouterr("head -c 10485760 /dev/zero | tr '\\0' o & "
                              "head -c 10485760 /dev/zero | tr '\\0' e >&2; wait; exit 7");
    EXPECT_EQ(got.result, 7);
    EXPECT_TRUE(got.out == std::string(size, 'o')) << got.out.size();
    EXPECT_TRUE(got.err == std::string(size, 'e')) << got.err.size();
}

TEST_F(ForkExecvGetouterrTest, OutputOfEverySizeAroundTheGrowthIsWhole)
{
    for (const size_t size : {1U, 2047U, 2048U, 2049U, 4094U, 4095U, 4096U, 4097U, 8191U, 8192U, 70000U}) {
        SCOPED_TRACE(size);
        const Got got = getouterr("head -c " + std::to_string(size) + " /dev/zero | tr '\\0' o");
        EXPECT_EQ(got.result, 0);
        EXPECT_TRUE(got.out == std::string(size, 'o')) << got.out.size();
    }
}

TEST_F(ForkExecvGetouterrTest, MissingProgramGives255AndTheText)
{
    char* out = nullptr;
    char* err = nullptr;
    Arguments arguments = {"program"};
    EXPECT_EQ(fork_execv_getouterr(&out, &err, "/no/such/program", arguments.get()), 255);
    EXPECT_EQ(taken(out), "(null)");
    EXPECT_EQ(taken(err), "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvGetouterrTest, FailedPipeEndsTheProgram)
{
    for (int nth = 1; nth <= 2; ++nth) {
        const ChildResult result = runInChild([nth] {
            const FailingCall failing(Call::pipe, nth, EMFILE);
            getouterr("exit 0");
            return 99;
        });
        EXPECT_TRUE(result.exitedWith(1));
    }
    const ChildResult result = runInChild([] {
        char* out = nullptr;
        char* err = nullptr;
        Arguments arguments = script("exit 0");
        const FailingCall failing(Call::pipe, 2, EMFILE);
        fork_execv_getouterr(&out, &err, sh, arguments.get());
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(1));
    const std::string text = "fork_execv_getouterr: pipe() failed\nSystem error 24: Too many open files\n";
    EXPECT_EQ(result.err, text);
    EXPECT_EQ(result.out, text);
}

TEST_F(ForkExecvGetouterrTest, PipeThatCannotBeMadeNonBlockingEndsTheProgram)
{
    for (int nth = 1; nth <= 2; ++nth) {
        const ChildResult result = runInChild([nth] {
            char* out = nullptr;
            char* err = nullptr;
            Arguments arguments = script("exit 0");
            const FailingCall failing(Call::setFl, nth, EPERM);
            fork_execv_getouterr(&out, &err, sh, arguments.get());
            return 99;
        });
        EXPECT_TRUE(result.exitedWith(1));
        const std::string text =
            "fork_execv_getouterr: fcntl(O_NONBLOCK) failed\nSystem error 1: Operation not permitted\n";
        EXPECT_EQ(result.err, text);
        EXPECT_EQ(result.out, text);
    }
}

// The program of the child is /bin/true; its absence in the wait of the loop is -1.
TEST_F(ForkExecvGetouterrTest, ChildThatCannotBeWaitedForIsLogged)
{
    char* out = nullptr;
    char* err = nullptr;
    Arguments arguments = script("printf $$");
    const FailingCall failing(Call::waitpid, 1, ECHILD);
    const Seen seen = see([&] { return fork_execv_getouterr(&out, &err, sh, arguments.get()); });
    const std::string pid = taken(out);
    EXPECT_EQ(taken(err), "(null)");
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, "waitpid(" + pid + ") for '/bin/sh' process failed: No child processes (10)\n");
    EXPECT_EQ(support::waitFor(std::stoi(pid)), 0);
}

TEST_F(ForkExecvGetouterrTest, InterruptedCallsAreRepeated)
{
    for (const Call call : {Call::pipe, Call::setFl, Call::fork, Call::close, Call::closeNever, Call::select,
                            Call::read, Call::waitpid})
        for (int nth = 1; nth < 100; ++nth) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(call) << ", occurrence " << nth);
            char* out = nullptr;
            char* err = nullptr;
            Arguments arguments = script("echo output; echo error >&2; exit 7");
            FailingCall interrupted(call, nth, EINTR);
            const int result = fork_execv_getouterr(&out, &err, sh, arguments.get());
            interrupted.stop();
            EXPECT_EQ(result, 7);
            EXPECT_EQ(taken(out), "output\n");
            EXPECT_EQ(taken(err), "error\n");
            if (!interrupted.happened() || HasFailure())
                break;
        }
}

// ---- fork_execv_getout

TEST_F(ForkExecvGetoutTest, StdoutIsCapturedAndStderrPassesThrough)
{
    char* out = reinterpret_cast<char*>(1);
    Arguments arguments = script("echo output; echo error >&2; exit 7");
    const Seen seen = see([&] { return fork_execv_getout(&out, sh, arguments.get()); });
    EXPECT_EQ(seen.result, 7);
    EXPECT_EQ(taken(out), "output\n");
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(ForkExecvGetoutTest, NoOutputGivesNull)
{
    char* out = reinterpret_cast<char*>(1);
    Arguments arguments = script("exit 0");
    EXPECT_EQ(fork_execv_getout(&out, sh, arguments.get()), 0);
    EXPECT_EQ(taken(out), "(null)");
}

TEST_F(ForkExecvGetoutTest, DeathByASignalIsLoggedAndGivesMinusOne)
{
    char* out = nullptr;
    Arguments arguments = script("printf $$; kill -KILL $$");
    const Seen seen = see([&] { return fork_execv_getout(&out, sh, arguments.get()); });
    const std::string pid = taken(out);
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, "waitpid(" + pid + ")=" + pid + ": process '/bin/sh' killed by signal 9\n");
    EXPECT_EQ(seen.out, seen.err);
}

TEST_F(ForkExecvGetoutTest, GrandchildThatHoldsThePipeIsNotWaitedFor)
{
    const ScratchDir scratch;
    const std::string fifo = scratch.file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    char* out = nullptr;
    Arguments arguments = script("cat " + fifo + " & echo output; exit 9");
    EXPECT_EQ(fork_execv_getout(&out, sh, arguments.get()), 9);
    release(fifo);
    EXPECT_EQ(taken(out), "output\n");
}

TEST_F(ForkExecvGetoutTest, MissingProgramIsReportedOnStderr)
{
    char* out = nullptr;
    const Seen seen = see([&] { return fork_execl_getout(&out, "/no/such/program", "program", end); });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(taken(out), "(null)");
    EXPECT_EQ(seen.err, "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvGetoutTest, MuchOutputIsWhole)
{
    char* out = nullptr;
    EXPECT_EQ(fork_execl_getout(&out, sh, "sh", "-c", "head -c 10485760 /dev/zero | tr '\\0' o", end), 0);
    EXPECT_TRUE(taken(out) == std::string(10U * 1024U * 1024U, 'o'));
}

TEST_F(ForkExecvGetouterrTest, VariableListIsTheArgumentVector)
{
    char* out = nullptr;
    char* err = nullptr;
    EXPECT_EQ(
        fork_execl_getouterr(&out, &err, sh, "my name", "-c", "echo \"$0|$1\"; exit 7", "a", "b c", end), 7);
    EXPECT_EQ(taken(out), "a|b c\n");
    EXPECT_EQ(taken(err), "(null)");
}

// ---- fork_execv_log

TEST_F(ForkExecvLogTest, SuccessIsSilentWhateverWasWritten)
{
    Arguments arguments = script("echo output; echo error >&2");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(ForkExecvLogTest, FailureShowsStdoutOnStderrAndReportsStderr)
{
    Arguments arguments = script("echo output; echo error >&2; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "/bin/sh execution failed:\nerror\n");
    EXPECT_EQ(seen.err, "output\n/bin/sh execution failed:\nerror\n");
}

TEST_F(ForkExecvLogTest, FailureWithStderrOnlyReportsIt)
{
    Arguments arguments = script("printf error >&2; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "/bin/sh execution failed:\nerror\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecvLogTest, FailureWithoutStderrReportsNoOutput)
{
    Arguments arguments = script("printf output; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "/bin/sh execution failed (no output)\n");
    EXPECT_EQ(seen.err, "output/bin/sh execution failed (no output)\n");
}

TEST_F(ForkExecvLogTest, SilentFailureReportsNoOutput)
{
    Arguments arguments = script("exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.out, "/bin/sh execution failed (no output)\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecvLogTest, QuietFailureIsSilent)
{
    Arguments arguments = script("echo output; echo error >&2; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 1); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(ForkExecvLogTest, MissingProgramIsReportedWithTheChildsText)
{
    Arguments arguments = {"program"};
    const Seen seen = see([&arguments] { return fork_execv_log("/no/such/program", arguments.get(), 0); });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.out, "/no/such/program execution failed:\n"
                        "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
    EXPECT_EQ(seen.err, seen.out);
}

TEST_F(ForkExecvLogTest, QuietMissingProgramIsSilent)
{
    Arguments arguments = {"program"};
    const Seen seen = see([&arguments] { return fork_execv_log("/no/such/program", arguments.get(), 1); });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(ForkExecvLogTest, DeathByASignalIsLoggedEvenIfQuiet)
{
    const ScratchDir scratch;
    Arguments arguments = script("echo $$ > " + scratch.file("pid") + "; kill -TERM $$");
    const auto line = [&scratch] {
        const std::string pid = std::to_string(std::stoi(support::readFile(scratch.file("pid"))));
        return "waitpid(" + pid + ")=" + pid + ": process '/bin/sh' killed by signal 15\n";
    };
    Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 1); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, line());
    EXPECT_EQ(seen.err, line());
    seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, line() + "/bin/sh execution failed (no output)\n");
    EXPECT_EQ(seen.err, seen.out);
}

// The text is data, not a format.
TEST_F(ForkExecvLogTest, PercentSignsAreKept)
{
    Arguments arguments = script("echo 100%s%n >&2; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_EQ(seen.out, "/bin/sh execution failed:\n100%s%n\n");
}

TEST_F(ForkExecvLogTest, LongReportIsWhole)
{
    Arguments arguments = script("head -c 100000 /dev/zero | tr '\\0' e >&2; exit 3");
    const Seen seen = see([&arguments] { return fork_execv_log(sh, arguments.get(), 0); });
    EXPECT_TRUE(seen.out == "/bin/sh execution failed:\n" + std::string(100000, 'e') + "\n");
    EXPECT_TRUE(seen.err == seen.out);
}

TEST_F(ForkExecvLogTest, VariableListIsTheArgumentVector)
{
    const Seen seen = see(
        [] { return fork_execl_log(0, sh, "my name", "-c", "echo \"$0|$1\" >&2; exit 3", "a", "b c", end); });
    EXPECT_EQ(seen.result, 3);
    EXPECT_EQ(seen.out, "/bin/sh execution failed:\na|b c\n");
    const Seen quiet = see([] { return fork_execl_log(1, sh, "sh", "-c", "exit 3", end); });
    EXPECT_EQ(quiet.result, 3);
    EXPECT_EQ(quiet.err, "");
}

// ---- read_to_buf

namespace {

/// A non-blocking pipe with `size` bytes in it, and the state of a reading from it.
struct Reading {
    explicit Reading(size_t bytes = 0)
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::runtime_error("cannot make a pipe");
        fd = ends[0];
        writeEnd = ends[1];
        const std::string data(bytes, 'x');
        if (::write(writeEnd, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
            throw std::runtime_error("cannot fill a pipe");
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    ~Reading()
    {
        if (fd != -1)
            ::close(fd);
        if (writeEnd != -1)
            ::close(writeEnd);
        std::free(buffer);
    }

    void read() { read_to_buf(&fd, &buffer, &size, &used); }

    /// A buffer of `newSize` bytes, `newUsed` of them in use.
    void preset(int newSize, int newUsed)
    {
        buffer = static_cast<char*>(std::calloc(1, static_cast<size_t>(newSize)));
        size = newSize;
        used = newUsed;
    }

    int fd = -1;
    int writeEnd = -1;
    char* buffer = nullptr;
    int size = 0;
    int used = 0;
};

} // namespace

TEST_F(ReadToBufTest, BufferGrowsByAPageUpTo4096AndThenDoubles)
{
    Reading reading(60000);
    const std::vector<std::pair<int, int>> expected = {
        {4096, 4095}, {8192, 8191}, {16384, 16383}, {32768, 32767}, {65536, 60000}};
    for (const auto& [size, used] : expected) {
        reading.read();
        EXPECT_EQ(reading.size, size);
        EXPECT_EQ(reading.used, used);
    }
    EXPECT_EQ(std::string(reading.buffer, 60000), std::string(60000, 'x'));
}

TEST_F(ReadToBufTest, BufferGrowsOnlyWhenAtMost2048BytesAreLeft)
{
    struct Case {
        int size, used, grown;
    };
    for (const Case& c :
         {Case{4096, 2047, 4096}, Case{4096, 2048, 8192}, Case{4096, 2049, 8192}, Case{8192, 6143, 8192},
          Case{8192, 6144, 16384}, Case{2048, 0, 6144}, Case{2049, 0, 2049}, Case{4097, 2048, 4097},
          Case{4097, 2049, 8194}, Case{4096, 4095, 8192}, Case{1, 0, 4097}}) {
        SCOPED_TRACE(testing::Message() << c.size << " bytes, " << c.used << " used");
        Reading reading(1);
        reading.preset(c.size, c.used);
        reading.read();
        EXPECT_EQ(reading.size, c.grown);
        EXPECT_EQ(reading.used, c.used + 1);
        EXPECT_EQ(reading.buffer[c.used], 'x');
    }
}

TEST_F(ReadToBufTest, SpaceForANulIsLeft)
{
    Reading reading(5000);
    reading.preset(4097, 100);
    reading.read();
    EXPECT_EQ(reading.size, 4097);
    EXPECT_EQ(reading.used, 4096);
}

TEST_F(ReadToBufTest, EndOfFileClosesTheDescriptor)
{
    Reading reading(3);
    ::close(reading.writeEnd);
    reading.writeEnd = -1;
    const int fd = reading.fd;
    reading.read();
    EXPECT_EQ(reading.used, 3);
    EXPECT_EQ(reading.fd, fd);
    const Seen seen = see([&reading] {
        reading.read();
        return 0;
    });
    EXPECT_EQ(reading.used, 3);
    EXPECT_EQ(reading.fd, -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(seen.err, "");
}

TEST_F(ReadToBufTest, NothingToReadYetChangesNothing)
{
    Reading reading;
    const int fd = reading.fd;
    const Seen seen = see([&reading] {
        reading.read();
        return 0;
    });
    EXPECT_EQ(reading.used, 0);
    EXPECT_EQ(reading.fd, fd);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "");
}

TEST_F(ReadToBufTest, FailureIsReportedAndClosesTheDescriptorAndClearsErrno)
{
    Reading reading;
    const int fd = reading.fd;
    int error = -1;
    const Seen seen = see([&reading, &error] {
        const FailingCall failing(Call::read, 1, EIO);
        reading.read();
        error = errno;
        return 0;
    });
    EXPECT_EQ(reading.used, 0);
    EXPECT_EQ(reading.fd, -1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "fork_exec*: read(pipe) failed: Input/output error\n");
}

TEST_F(ReadToBufTest, InterruptedReadIsRepeated)
{
    Reading reading(3);
    const FailingCall interrupted(Call::read, 1, EINTR);
    reading.read();
    EXPECT_TRUE(interrupted.happened());
    EXPECT_EQ(reading.used, 3);
}

TEST_F(ReadToBufTest, LackOfMemoryEndsTheProgram)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer ends the program itself";
#endif
    const ChildResult result = runInChild([] {
        const rlimit limit{512U * 1024U * 1024U, 512U * 1024U * 1024U};
        if (::setrlimit(RLIMIT_AS, &limit) != 0)
            return 99;
        Reading reading;
        reading.size = reading.used = 1000000000;
        errno = 0;
        reading.read();
        return 98;
    });
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "Cannot allocate memory\nSystem error 12: Cannot allocate memory\n");
    EXPECT_EQ(result.out, result.err);
}

// ---- fork_execv_fd

TEST_F(ForkExecvFdTest, GivenDescriptorsAreStdinAndStdout)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("in"), "input");
    const int in = ::open(scratch.file("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Arguments arguments = script("cat; echo error >&2; exit 7");
    const Seen seen = see([&] { return fork_execv_fd(in, out, sh, arguments.get()); });
    EXPECT_EQ(seen.result, 7);
    EXPECT_EQ(::close(in), 0);
    EXPECT_EQ(::close(out), 0);
    EXPECT_EQ(support::readFile(scratch.file("out")), "input");
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(ForkExecvFdTest, StandardNumbersAreRefusedInEitherPlace)
{
    const ScratchDir scratch;
    Arguments arguments = script("echo > " + scratch.file("ran"));
    for (int number = 0; number < 3; ++number)
        for (const bool input : {true, false}) {
            const Seen seen = see([&] {
                const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
                const int result =
                    fork_execv_fd(input ? number : fd, input ? fd : number, sh, arguments.get());
                ::close(fd);
                return result;
            });
            EXPECT_EQ(seen.result, -1);
            EXPECT_EQ(seen.out, "");
            EXPECT_EQ(seen.err, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        }
    EXPECT_TRUE(scratch.names().empty());
}

namespace {

/// fork_execv_fd with /dev/null on both sides.
Seen execFd(const char* path, Arguments arguments)
{
    return see([&] {
        const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int out = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        const int result = fork_execv_fd(in, out, path, arguments.get());
        ::close(in);
        ::close(out);
        return result;
    });
}

} // namespace

TEST_F(ForkExecvFdTest, DeathByASignalIsReported)
{
    for (const auto& [name, number] :
         std::initializer_list<std::pair<std::string, int>>{{"KILL", 9}, {"TERM", 15}, {"SEGV", 11}}) {
        const ScratchDir scratch;
        const Seen seen =
            execFd(sh, script("ulimit -c 0; echo $$ > " + scratch.file("pid") + "; kill -" + name + " $$"));
        const int pid = std::stoi(support::readFile(scratch.file("pid")));
        EXPECT_EQ(seen.result, -1);
        EXPECT_EQ(seen.out, "");
        EXPECT_EQ(seen.err, "The child process with pid " + std::to_string(pid) + " killed by signal " +
                                std::to_string(number) + "\n");
    }
}

TEST_F(ForkExecvFdTest, StopIsReported)
{
    const ScratchDir scratch;
    const Seen seen = execFd(sh, script("echo $$ > " + scratch.file("pid") + "; kill -STOP $$"));
    const int pid = std::stoi(support::readFile(scratch.file("pid")));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "The child process with pid " + std::to_string(pid) + " stopped by signal 19\n");
    endStoppedChild(pid);
}

TEST_F(ForkExecvFdTest, MissingProgramIsReported)
{
    const Seen seen = execFd("/no/such/program", {"program"});
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "Error occured during execv():\nNo such file or directory");
}

TEST_F(ForkExecvFdTest, FailedForkIsReported)
{
    const FailingCall failing(Call::fork, 1, EAGAIN);
    const Seen seen = execFd(sh, script("exit 0"));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "Error occured during fork():\nResource temporarily unavailable");
}

TEST_F(ForkExecvFdTest, FailedPipeIsReported)
{
    const FailingCall failing(Call::pipe, 1, EMFILE);
    const Seen seen = execFd(sh, script("exit 0"));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "fork_exec_fd pipe(): Too many open files");
}

TEST_F(ForkExecvFdTest, FailedWaitIsReported)
{
    const ScratchDir scratch;
    const FailingCall failing(Call::waitpid, 1, ECHILD);
    const Seen seen = execFd(sh, script("echo $$ > " + scratch.file("pid")));
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_ALL, 0, &ended, WEXITED), 0);
    const int pid = std::stoi(support::readFile(scratch.file("pid")));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.out, "");
    EXPECT_EQ(seen.err, "Error occured during waiting the child process with pid: " + std::to_string(pid) +
                            ": No child processes\n");
}

TEST_F(ForkExecvFdTest, ProgramHasNoFurtherDescriptor)
{
    const int extra = ::fcntl(0, F_DUPFD, 300); // Not closed on exec.
    const int in = ::open("/dev/null", O_RDONLY);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Arguments arguments = {"ls", "/proc/self/fd"};
    EXPECT_EQ(fork_execv_fd(in, ends[1], "/bin/ls", arguments.get()), 0);
    ::close(extra);
    ::close(in);
    ::close(ends[1]);
    EXPECT_EQ(support::readAll(ends[0]), "0\n1\n2\n3\n"); // 3 is the directory that ls reads.
    ::close(ends[0]);
}

TEST_F(ForkExecvFdTest, MinusOneIsDevNull)
{
    const ScratchDir scratch;
    const int out = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Arguments input = script("cat; text=$(readlink /proc/$$/fd/0); echo $text");
    EXPECT_EQ(fork_execv_fd(-1, out, sh, input.get()), 0);
    ::close(out);
    EXPECT_EQ(support::readFile(scratch.file("out")), "/dev/null\n");
    const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    Arguments output = script("text=$(readlink /proc/$$/fd/1); [ $text = /dev/null ]");
    EXPECT_EQ(fork_execv_fd(in, -1, sh, output.get()), 0);
    ::close(in);
}

// ---- fork_execv

TEST_F(ForkExecvTest, StdinIsDevNullAndTheOthersAreInherited)
{
    Arguments arguments = script("cat; readlink /proc/$$/fd/0; echo error >&2; exit 7");
    const Seen seen = see([&arguments] { return fork_execv(sh, arguments.get()); });
    EXPECT_EQ(seen.result, 7);
    EXPECT_EQ(seen.out, "/dev/null\n");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(ForkExecvTest, DeathByASignalGivesMinusOne)
{
    const ScratchDir scratch;
    Arguments arguments = script("echo $$ > " + scratch.file("pid") + "; kill -KILL $$");
    const Seen seen = see([&arguments] { return fork_execv(sh, arguments.get()); });
    const std::string pid = std::to_string(std::stoi(support::readFile(scratch.file("pid"))));
    EXPECT_EQ(seen.result, -1);
    EXPECT_EQ(seen.err, "waitpid(" + pid + ")=" + pid + ": process '/bin/sh' killed by signal 9\n");
    EXPECT_EQ(seen.out, seen.err);
}

TEST_F(ForkExecvTest, MissingProgramGives255)
{
    Arguments arguments = {"program"};
    const Seen seen = see([&arguments] { return fork_execv("/no/such/program", arguments.get()); });
    EXPECT_EQ(seen.result, 255);
    EXPECT_EQ(seen.err, "fork_execv: execv(\"/no/such/program\") failed: No such file or directory\n");
}

TEST_F(ForkExecvTest, FailedForkEndsTheProgram)
{
    const ChildResult result = runInChild([] {
        Arguments arguments = script("exit 0");
        const FailingCall failing(Call::fork, 1, EAGAIN);
        fork_execv(sh, arguments.get());
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "fork_execv: fork() failed\nSystem error 11: Resource temporarily unavailable\n");
    EXPECT_EQ(result.out, result.err);
}

// ---- do_exec

TEST_F(DoExecTest, RawWaitStatusIsReturned)
{
    Arguments arguments = script("exit 7");
    EXPECT_EQ(do_exec(sh, arguments.get()), 7 << 8);
    Arguments killed = script("kill -TERM $$");
    EXPECT_EQ(do_exec(sh, killed.get()), SIGTERM);
}

TEST_F(DoExecTest, StreamsAreInherited)
{
    Arguments arguments = script("echo output; echo error >&2");
    const Seen seen = see([&arguments] { return do_exec(sh, arguments.get()); });
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.out, "output\n");
    EXPECT_EQ(seen.err, "error\n");
}

TEST_F(DoExecTest, MissingProgramIsAFailure)
{
    Arguments arguments = {"program"};
    const Seen seen = see([&arguments] { return do_exec("/no/such/program", arguments.get()); });
    EXPECT_EQ(seen.result, 255 << 8);
}

TEST_F(DoExecTest, FailedForkEndsTheProgram)
{
    const ChildResult result = runInChild([] {
        Arguments arguments = script("exit 0");
        const FailingCall failing(Call::fork, 1, EAGAIN);
        do_exec(sh, arguments.get());
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "Unable to fork\nSystem error 11: Resource temporarily unavailable\n");
    EXPECT_EQ(result.out, result.err);
}

TEST_F(DoExecTest, FailedWaitIsMinusOne)
{
    Arguments arguments = script("exit 7");
    {
        const FailingCall failing(Call::waitpid, 1, ECHILD);
        EXPECT_EQ(see([&arguments] { return do_exec(sh, arguments.get()); }).result, -1);
    }
    siginfo_t ended{};
    EXPECT_EQ(::waitid(P_ALL, 0, &ended, WEXITED), 0);
}

TEST_F(DoExecTest, InterruptedCallsAreRepeated)
{
    for (const Call call : {Call::fork, Call::waitpid}) {
        Arguments arguments = script("exit 7");
        const FailingCall interrupted(call, 1, EINTR);
        EXPECT_EQ(do_exec(sh, arguments.get()), 7 << 8);
        EXPECT_TRUE(interrupted.happened());
    }
}

// ---- prepare_fds_to_exec

TEST_F(PrepareFdsToExecTest, ThreeDescriptorsAndNoOther)
{
    const ScratchDir scratch;
    const ChildResult result = runInChild([&scratch] {
        const int in = ::open(scratch.file("in").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const int out = ::open(scratch.file("out").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const int err = ::open(scratch.file("err").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (prepare_fds_to_exec(in, out, err) != 0)
            return 1;
        if (openNumbers() != std::vector<int>{0, 1, 2})
            return 2;
        for (int fd = 0; fd < 3; ++fd)
            if (::fcntl(fd, F_GETFD) != 0) // They survive exec.
                return 3;
        return targetOf(0) == scratch.file("in") && targetOf(1) == scratch.file("out") &&
                       targetOf(2) == scratch.file("err")
                   ? 0
                   : 4;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(PrepareFdsToExecTest, StandardNumbersInTheirOwnPlaceStay)
{
    const ChildResult result = runInChild([] {
        const std::string targets[] = {targetOf(0), targetOf(1), targetOf(2)};
        if (prepare_fds_to_exec(0, 1, 2) != 0)
            return 1;
        if (openNumbers() != std::vector<int>{0, 1, 2})
            return 2;
        for (int fd = 0; fd < 3; ++fd)
            if (targetOf(fd) != targets[fd])
                return 3;
        return 0;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(PrepareFdsToExecTest, OneDescriptorMayServeTwice)
{
    const ScratchDir scratch;
    const ChildResult result = runInChild([&scratch] {
        const int file = ::open(scratch.file("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (prepare_fds_to_exec(0, file, file) != 0)
            return 1;
        return targetOf(1) == scratch.file("file") && targetOf(2) == scratch.file("file") ? 0 : 2;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(PrepareFdsToExecTest, BadDescriptorIsAFailureWithErrno)
{
    for (int place = 0; place < 3; ++place)
        for (const int bad : {-1, 999}) {
            SCOPED_TRACE(testing::Message() << bad << " in place " << place);
            const ChildResult result = runInChild([place, bad] {
                int fds[] = {0, 1, 2};
                fds[place] = bad;
                errno = 0;
                return prepare_fds_to_exec(fds[0], fds[1], fds[2]) == -1 && errno == EBADF ? 0 : 1;
            });
            EXPECT_EQ(result.status, 0);
        }
}
