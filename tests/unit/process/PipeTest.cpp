// Pipe: whole pipelines with real programs, their data, statuses and failures, and what is left afterwards.
#include "process/Pipe.h"

#include "process/signals.h"
#include "support/Capture.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using faults::Call;
using faults::FailingCall;
using faults::Who;
using support::hasNoChildren;
using support::openFds;
using support::ownSignals;
using support::ScratchDir;
using support::Signals;
using support::signalsIn;
using testing::ElementsAre;
using tools::childSystemError;
using tools::dispositionOf;
using tools::inOwnProcess;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::collectOutput;
using zorvo::process::InputSource;
using zorvo::process::kDevNullFd;
using zorvo::process::kInheritFd;
using zorvo::process::kPipeFd;
using zorvo::process::kSameAsStdoutFd;
using zorvo::process::launchAll;
using zorvo::process::makeStringReceiver;
using zorvo::process::OutputReceiver;
using zorvo::process::Parameters;
using zorvo::process::Pipe;
using zorvo::process::PipeProcessFlags;
using zorvo::process::ProcessLaunch;
using zorvo::process::ProcessSetCatcher;
using zorvo::process::ProcessStatus;

namespace {

using Process = Parameters<PipeProcessFlags>;

Process shell(const std::string& script)
{
    return Process("/bin/sh", "-c", script);
}

/// A source that gives `text` in pieces of `piece` bytes.
InputSource sourceOf(const std::string& text, size_t piece)
{
    return [text, piece, at = size_t{0}](std::vector<char>& buffer) mutable {
        const size_t size = std::min(piece, text.size() - at);
        buffer.insert(buffer.end(), text.begin() + static_cast<std::ptrdiff_t>(at),
                      text.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
        return at < text.size();
    };
}

constexpr uint64_t manyBytes = 50U * 1024U * 1024U;

/// Byte `at` of an endless text without a short period.
char byteAt(uint64_t at)
{
    return static_cast<char>((at * 2654435761U) >> 16U);
}

/// A source of `size` bytes of that text.
InputSource longSource(uint64_t size)
{
    return [size, at = uint64_t{0}](std::vector<char>& buffer) mutable {
        for (int i = 0; i < 100000 && at < size; ++i)
            buffer.push_back(byteAt(at++));
        return at < size;
    };
}

/// Counts the bytes of that text as long as they are right.
struct LongReceiver {
    uint64_t good = 0;
    uint64_t bad = 0;

    OutputReceiver receiver()
    {
        return [this](const std::vector<char>& chunk) {
            for (const char byte : chunk) {
                if (bad == 0 && byte == byteAt(good))
                    ++good;
                else
                    ++bad;
            }
        };
    }
};

/// Whatever a run does, it leaves no child and no descriptor, and signals as they were.
class PipeTest : public tools::NothingLeftTest {
protected:
    PipeTest() : signals_(ownSignals())
    {
        child_ = dispositionOf(SIGCHLD);
        pipe_ = dispositionOf(SIGPIPE);
    }
    ~PipeTest() override { checkNothingIsLeft(); }

    void checkNothingIsLeft() const
    {
        NothingLeftTest::checkNothingIsLeft();
        EXPECT_EQ(ownSignals(), signals_);
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_handler, child_.sa_handler);
        EXPECT_EQ(dispositionOf(SIGPIPE).sa_handler, pipe_.sa_handler);
    }

private:
    Signals signals_;
    struct sigaction child_ = {};
    struct sigaction pipe_ = {};
};

/// Raw wait statuses of all processes of a pipe that has run.
std::vector<int> statusesOf(const Pipe& pipe)
{
    std::vector<int> statuses;
    for (const ProcessStatus& status : pipe.statuses()) {
        EXPECT_EQ(status.reaped, 1);
        EXPECT_GT(status.pid, 0);
        statuses.push_back(status.status);
    }
    return statuses;
}

constexpr int exited(int code)
{
    return code << 8;
}

/// Runs one process; its standard output.
std::string outputOf(const Process& process)
{
    Pipe pipe;
    std::string out;
    pipe.processes().push_back(process);
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    return out;
}

} // namespace

// ---- Parameters

TEST(PipeParametersTest, EmptySecondStringLeavesOneArgument)
{
    EXPECT_THAT(Process("postmap", "").arguments, ElementsAre("postmap"));
}

TEST(PipeParametersTest, FirstEmptyStringEndsTheArguments)
{
    EXPECT_THAT(Process("postmap", "-q", "", "x").arguments, ElementsAre("postmap", "-q"));
}

TEST(PipeParametersTest, FirstStringCountsEvenIfEmpty)
{
    EXPECT_THAT(Process("").arguments, ElementsAre(""));
    EXPECT_THAT(Process("", "x").arguments, ElementsAre("", "x"));
}

TEST(PipeParametersTest, AllTenStringsCount)
{
    const Process process("0", "1", "2", "3", "4", "5", "6", "7", "8", "9");
    EXPECT_THAT(process.arguments, ElementsAre("0", "1", "2", "3", "4", "5", "6", "7", "8", "9"));
}

TEST(PipeParametersTest, CapacityForTenIsReserved)
{
    EXPECT_GE(Process("x").arguments.capacity(), 10U);
}

TEST(PipeParametersTest, NothingIsSetAtFirst)
{
    const Process process("x");
    EXPECT_EQ(process.program, "");
    EXPECT_EQ(process.workingDirectory, "");
    EXPECT_EQ(process.environment, nullptr);
    EXPECT_FALSE(process.closeOtherFds);
    EXPECT_TRUE(process.childHook.empty());
    EXPECT_EQ(process.stderrFd, -1);
    EXPECT_TRUE(process.stderrReceiver.empty());
    EXPECT_TRUE(process.launchCallback.empty());
    const Pipe pipe;
    EXPECT_EQ(pipe.stdinFd, -1);
    EXPECT_TRUE(pipe.stdinSource.empty());
    EXPECT_EQ(pipe.stdoutFd, -1);
    EXPECT_TRUE(pipe.stdoutReceiver.empty());
    EXPECT_TRUE(pipe.statuses().empty());
}

TEST(PipeParametersTest, CopyHasEverything)
{
    Process process("x", "y");
    process.program = "/bin/true";
    process.workingDirectory = "/usr";
    process.closeOtherFds = true;
    process.stderrFd = kDevNullFd;
    const Process copy(process); // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.program, "/bin/true");
    EXPECT_EQ(copy.workingDirectory, "/usr");
    EXPECT_TRUE(copy.closeOtherFds);
    EXPECT_EQ(copy.stderrFd, kDevNullFd);
    EXPECT_THAT(copy.arguments, ElementsAre("x", "y"));
}

TEST(PipeReceiverTest, CollectOutputAppendsAllBytes)
{
    std::string target = "before ";
    collectOutput(target, {'a', '\0', '\n', '\xff'});
    collectOutput(target, {});
    EXPECT_EQ(target, std::string("before a\0\n\xff", 11));
}

TEST(PipeReceiverTest, StringReceiverAppendsToItsTarget)
{
    std::string target;
    const OutputReceiver receiver = makeStringReceiver(target);
    receiver({'a', 'b'});
    receiver({'c'});
    EXPECT_EQ(target, "abc");
}

// ---- Life of a Pipe

TEST_F(PipeTest, WithoutProcessesCannotRun)
{
    Pipe pipe;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }),
              "std::logic_error: No processes to launch were assigned so far");
    pipe.processes().push_back(Process("true"));
    EXPECT_EQ(pipe.run(), 0); // Nothing had been launched.
}

TEST_F(PipeTest, RunsOnce)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::logic_error: the pipe has been launched already");
    EXPECT_THAT(statusesOf(pipe), ElementsAre(0));
}

TEST_F(PipeTest, SecondRunIsRefusedEvenWithoutProcesses)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.run();
    pipe.processes().clear();
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::logic_error: the pipe has been launched already");
}

TEST_F(PipeTest, RunReturnsTheRawStatusOfTheLastProcess)
{
    Pipe pipe;
    pipe.processes().push_back(shell("exit 3"));
    pipe.processes().push_back(shell("exit 7"));
    EXPECT_EQ(pipe.run(), exited(7));
}

TEST_F(PipeTest, StatusesStandInPipelineOrderWithTheirPids)
{
    Pipe pipe;
    std::vector<int> pids;
    pipe.launchCallback = [&pids](int pid) { pids.push_back(pid); };
    pipe.processes().push_back(shell("exit 3"));
    pipe.processes().push_back(shell("kill -KILL $$"));
    pipe.processes().push_back(shell("exit 5"));
    EXPECT_EQ(pipe.run(), exited(5));
    EXPECT_THAT(statusesOf(pipe), ElementsAre(exited(3), SIGKILL, exited(5)));
    ASSERT_EQ(pids.size(), 3U);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(pipe.statuses()[i].pid, pids[i]);
}

// The first process ends last: order of the ends does not matter.
TEST_F(PipeTest, StatusesStandInPipelineOrderWhateverEndsFirst)
{
    Pipe pipe;
    pipe.processes().push_back(shell("exec >&-; read x; exit 6"));
    pipe.processes().push_back(shell("exit 4"));
    pipe.stdinFd = kPipeFd;
    int second = -1;
    pipe.launchCallback = [&second](int pid) { second = pid; };
    pipe.stdinSource = [&second](std::vector<char>& buffer) {
        while (::kill(second, 0) == 0) // Until the handler has reaped it.
            ::usleep(1000);
        buffer.push_back('\n');
        return false;
    };
    EXPECT_EQ(pipe.run(), exited(4));
    EXPECT_THAT(statusesOf(pipe), ElementsAre(exited(6), exited(4)));
}

// ---- Standard output

TEST_F(PipeTest, StdoutPipeIsCollected)
{
    EXPECT_EQ(outputOf(shell(R"(printf 'a\000b\n')")), std::string("a\0b\n", 4));
}

TEST_F(PipeTest, UnsetStdoutIsInheritedAndReachesNoReceiver)
{
    std::string collected;
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo output"));
    pipe.stdoutReceiver = makeStringReceiver(collected);
    const int status = pipe.run();
    EXPECT_EQ(capture.out(), "output\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(collected, "");
}

TEST_F(PipeTest, InheritedStdoutOfTheLastProcess)
{
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo output"));
    pipe.processes().push_back(Process("tr", "a-z", "A-Z"));
    pipe.stdoutFd = kInheritFd;
    const int status = pipe.run();
    EXPECT_EQ(capture.out(), "OUTPUT\n");
    EXPECT_EQ(status, 0);
}

TEST_F(PipeTest, StdoutCanBeDevNull)
{
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo output; [ /proc/$$/fd/1 -ef /dev/null ] && echo yes >&2"));
    pipe.stdoutFd = kDevNullFd;
    const int status = pipe.run();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "yes\n");
    EXPECT_EQ(status, 0);
}

TEST_F(PipeTest, StdoutAndStderrCanBeACallersDescriptor)
{
    const ScratchDir scratch;
    const int file = ::open(scratch.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Pipe pipe;
    pipe.processes().push_back(shell("echo output; echo error >&2"));
    pipe.stdoutFd = file;
    pipe.stderrFd = kSameAsStdoutFd;
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(::write(file, "open", 4), 4);
    ::close(file);
    EXPECT_EQ(support::readFile(scratch.file("out")), "output\nerror\nopen");
}

TEST_F(PipeTest, StdoutSelectorThatDoesNotExistIsRefused)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.stdoutFd = kSameAsStdoutFd;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::invalid_argument: invalid FD for stdout");
}

TEST_F(PipeTest, StdinSelectorThatDoesNotExistIsRefused)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.stdinFd = kSameAsStdoutFd;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::invalid_argument: invalid FD for stdin");
}

TEST_F(PipeTest, SameAsStdoutWithAPipeFails)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    pipe.stderrFd = kSameAsStdoutFd;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("stderr dup2", EBADF));
}

// The child has written and ended before anything is read, so the chunks are what the reading makes them.
TEST_F(PipeTest, ChunksHaveAtMost1024Bytes)
{
    std::vector<size_t> sizes;
    Pipe pipe;
    pipe.processes().push_back(Process("head", "-c", "5000", "/dev/zero"));
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = [&sizes](const std::vector<char>& chunk) { sizes.push_back(chunk.size()); };
    pipe.launchCallback = [](int pid) { tools::waitUntilEnded(pid); };
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_THAT(sizes, ElementsAre(1024, 1024, 1024, 1024, 904));
}

TEST_F(PipeTest, ReceiverIsNotCalledWithoutOutput)
{
    int calls = 0;
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.stdoutFd = pipe.stderrFd = kPipeFd;
    pipe.stdoutReceiver = pipe.stderrReceiver = [&calls](const std::vector<char>&) { ++calls; };
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(calls, 0);
}

TEST_F(PipeTest, PipeWithoutAReceiverFailsAtTheFirstOutput)
{
    const std::string failure = "boost::bad_function_call: call to empty boost::function";
    Pipe out;
    out.processes().push_back(shell("echo output"));
    out.stdoutFd = kPipeFd;
    EXPECT_EQ(thrownBy([&out] { out.run(); }), failure);
    Pipe err;
    err.processes().push_back(shell("echo error >&2"));
    err.stderrFd = kPipeFd;
    EXPECT_EQ(thrownBy([&err] { err.run(); }), failure);
}

TEST_F(PipeTest, PipeWithoutAReceiverSucceedsWithoutOutput)
{
    Pipe pipe;
    pipe.processes().push_back(shell("exit 3"));
    pipe.stdoutFd = pipe.stderrFd = kPipeFd;
    EXPECT_EQ(pipe.run(), exited(3));
}

TEST_F(PipeTest, ReceiverThatThrowsEndsTheRun)
{
    Pipe pipe;
    pipe.processes().push_back(Process("cat", "/dev/zero")); // Only SIGPIPE ends it.
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = [](const std::vector<char>&) { throw std::range_error("enough"); };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::range_error: enough");
}

TEST_F(PipeTest, ReceiverThatThrowsEndsALongPipeline)
{
    Pipe pipe;
    pipe.processes().push_back(Process("cat", "/dev/zero"));
    pipe.processes().push_back(Process("cat"));
    pipe.processes().push_back(Process("cat"));
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = [](const std::vector<char>&) { throw 42; };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "something else");
}

TEST_F(PipeTest, StderrReceiverThatThrowsEndsTheRun)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(shell("echo error >&2; cat /dev/zero"));
    pipe.stdoutFd = pipe.stderrFd = kPipeFd;
    pipe.stdoutReceiver = [](const std::vector<char>&) {};
    pipe.stderrReceiver = [](const std::vector<char>&) { throw std::runtime_error("enough"); };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::runtime_error: enough");
}

// ---- Standard error

TEST_F(PipeTest, UnsetStderrIsInherited)
{
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo first >&2"));
    pipe.processes().push_back(shell("cat; echo second >&2"));
    const int status = pipe.run();
    EXPECT_EQ(capture.err(), "first\nsecond\n");
    EXPECT_EQ(status, 0);
}

TEST_F(PipeTest, StderrOfThePipeCountsForAllProcesses)
{
    std::string err;
    Pipe pipe;
    pipe.processes().push_back(shell("echo first >&2"));
    pipe.processes().push_back(shell("cat; echo second >&2"));
    pipe.processes().push_back(shell("cat; echo third >&2"));
    pipe.stderrFd = kPipeFd;
    pipe.stderrReceiver = makeStringReceiver(err);
    EXPECT_EQ(pipe.run(), 0);
    std::multiset<std::string> lines;
    for (size_t at = 0; at < err.size(); at = err.find('\n', at) + 1)
        lines.insert(err.substr(at, err.find('\n', at) - at));
    EXPECT_THAT(lines, ElementsAre("first", "second", "third"));
}

TEST_F(PipeTest, EachProcessCanHaveItsOwnStderrReceiver)
{
    std::string out;
    std::string err[3];
    Pipe pipe;
    pipe.processes().push_back(shell("echo a; echo first >&2"));
    pipe.processes().push_back(shell("cat; echo b; echo second >&2"));
    pipe.processes().push_back(shell("cat; echo c; echo third >&2"));
    for (size_t i = 0; i < 3; ++i) {
        pipe.processes()[i].stderrFd = kPipeFd;
        pipe.processes()[i].stderrReceiver = makeStringReceiver(err[i]);
    }
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "a\nb\nc\n");
    EXPECT_EQ(err[0], "first\n");
    EXPECT_EQ(err[1], "second\n");
    EXPECT_EQ(err[2], "third\n");
}

TEST_F(PipeTest, StderrOfAProcessWinsOverThePipes)
{
    std::string common;
    std::string own;
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo first >&2"));
    pipe.processes().push_back(shell("cat; echo second >&2"));
    pipe.processes().push_back(shell("cat; echo third >&2"));
    pipe.processes()[0].stderrFd = kPipeFd;
    pipe.processes()[0].stderrReceiver = makeStringReceiver(own);
    pipe.processes()[2].stderrFd = kInheritFd;
    pipe.stderrFd = kPipeFd;
    pipe.stderrReceiver = makeStringReceiver(common);
    const int status = pipe.run();
    EXPECT_EQ(capture.err(), "third\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(own, "first\n");
    EXPECT_EQ(common, "second\n");
}

// Selector and receiver come together: a receiver alone is replaced with the selector.
TEST_F(PipeTest, StderrReceiverWithoutASelectorIsReplacedWithThePipes)
{
    std::string common;
    std::string own;
    Pipe pipe;
    pipe.processes().push_back(shell("echo error >&2"));
    pipe.processes()[0].stderrReceiver = makeStringReceiver(own);
    pipe.stderrFd = kPipeFd;
    pipe.stderrReceiver = makeStringReceiver(common);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(own, "");
    EXPECT_EQ(common, "error\n");
}

TEST_F(PipeTest, StderrReceiverOfAProcessStaysWhereThePipeHasNoSelector)
{
    std::string own;
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo error >&2"));
    pipe.processes()[0].stderrReceiver = makeStringReceiver(own);
    pipe.stderrReceiver = [](const std::vector<char>&) { throw std::logic_error("never"); };
    const int status = pipe.run();
    EXPECT_EQ(capture.err(), "error\n"); // Without a selector it is inherited.
    EXPECT_EQ(status, 0);
    EXPECT_EQ(own, "");
}

TEST_F(PipeTest, StderrCanBeDevNull)
{
    support::Capture capture;
    Pipe pipe;
    pipe.processes().push_back(shell("echo error >&2"));
    pipe.stderrFd = kDevNullFd;
    const int status = pipe.run();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(status, 0);
}

// ---- Standard input

TEST_F(PipeTest, UnsetStdinIsInheritedAndTheSourceNotCalled)
{
    inOwnProcess([] {
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], "inherited", 9), 9);
        ::close(ends[1]);
        ASSERT_EQ(::dup2(ends[0], 0), 0);
        std::string out;
        Pipe pipe;
        pipe.processes().push_back(Process("cat"));
        pipe.stdinSource = [](std::vector<char>&) -> bool { throw std::logic_error("never"); };
        pipe.stdoutFd = kPipeFd;
        pipe.stdoutReceiver = makeStringReceiver(out);
        EXPECT_EQ(pipe.run(), 0);
        EXPECT_EQ(out, "inherited");
    });
}

TEST_F(PipeTest, StdinCanBeDevNull)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(shell("cat; readlink /proc/self/fd/0"));
    pipe.stdinFd = kDevNullFd;
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "/dev/null\n");
}

TEST_F(PipeTest, StdinCanBeACallersDescriptor)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("in"), "from the file");
    const int file = ::open(scratch.file("in").c_str(), O_RDONLY | O_CLOEXEC);
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(Process("cat"));
    pipe.stdinFd = file;
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(::close(file), 0);
    EXPECT_EQ(out, "from the file");
}

TEST_F(PipeTest, StdinSourceFeedsTheFirstProcess)
{
    for (const size_t piece : {1U, 3U, 100U}) {
        SCOPED_TRACE(piece);
        std::string out;
        Pipe pipe;
        pipe.processes().push_back(Process("cat"));
        pipe.processes().push_back(Process("tr", "a-z", "A-Z"));
        pipe.stdinFd = kPipeFd;
        pipe.stdinSource = sourceOf("some text", piece);
        pipe.stdoutFd = kPipeFd;
        pipe.stdoutReceiver = makeStringReceiver(out);
        EXPECT_EQ(pipe.run(), 0);
        EXPECT_EQ(out, "SOME TEXT");
    }
}

TEST_F(PipeTest, StdinSourceGetsAnEmptyBufferEachTimeAndIsNotCalledAfterItsLast)
{
    std::string out;
    std::vector<size_t> sizes;
    Pipe pipe;
    pipe.processes().push_back(Process("cat"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = [&sizes](std::vector<char>& buffer) {
        sizes.push_back(buffer.size());
        if (sizes.size() != 2) // Nothing now does not mean nothing later.
            buffer.push_back(static_cast<char>('0' + sizes.size()));
        return sizes.size() < 4;
    };
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "134");
    EXPECT_THAT(sizes, ElementsAre(0, 0, 0, 0));
}

TEST_F(PipeTest, StdinSourceWithoutDataIsEndOfFile)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(Process("wc", "-c"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = [](std::vector<char>&) { return false; };
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "0\n");
}

TEST_F(PipeTest, StdinSourceThatThrowsEndsTheRun)
{
    Pipe pipe;
    pipe.processes().push_back(Process("cat"));
    pipe.processes().push_back(Process("cat"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = [](std::vector<char>&) -> bool { throw std::range_error("no more"); };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::range_error: no more");
}

// ---- Input that is not taken

namespace {

/// Feeds `text` to a process that runs `script`, after its end where `wait` is set; what it writes on
/// standard error is collected.
struct Fed {
    Fed(const std::string& script, const std::string& text, bool wait)
    {
        pipe.processes().push_back(shell(script));
        pipe.stdinFd = pipe.stderrFd = kPipeFd;
        pipe.stdinSource = sourceOf(text, text.size());
        pipe.stderrReceiver = makeStringReceiver(err);
        if (wait)
            pipe.launchCallback = [](int pid) { tools::waitUntilEnded(pid); };
    }

    Pipe pipe;
    std::string err;
};

} // namespace

// Nine in ten end before the first byte is written, the others at any time.
TEST_F(PipeTest, ProcessThatFailsWithoutReadingIsNotAFailedWrite)
{
    for (int i = 0; i < 100; ++i) {
        Fed fed("echo 'tool: fatal: no space' >&2; exit 1", "short\n", i % 10 != 0);
        int status = -1;
        ASSERT_EQ(thrownBy([&] { status = fed.pipe.run(); }), "nothing");
        ASSERT_EQ(status, exited(1));
        ASSERT_EQ(fed.err, "tool: fatal: no space\n");
        ASSERT_THAT(statusesOf(fed.pipe), ElementsAre(exited(1)));
        checkNothingIsLeft();
    }
}

TEST_F(PipeTest, ProcessThatIsKilledWithoutReadingIsNotAFailedWrite)
{
    for (int i = 0; i < 20; ++i) {
        Fed fed("printf last >&2; kill -KILL $$", "short\n", i % 2 != 0);
        int status = -1;
        ASSERT_EQ(thrownBy([&] { status = fed.pipe.run(); }), "nothing");
        ASSERT_EQ(status, SIGKILL);
        ASSERT_EQ(fed.err, "last");
    }
}

TEST_F(PipeTest, ProcessThatFailsAmidMuchInputIsNotAFailedWrite)
{
    Fed fed("head -c 1 >/dev/null; echo 'tool: fatal: enough' >&2; exit 75", std::string(2000000, 'x'),
            false);
    int status = -1;
    EXPECT_EQ(thrownBy([&] { status = fed.pipe.run(); }), "nothing");
    EXPECT_EQ(status, exited(75));
    EXPECT_EQ(fed.err, "tool: fatal: enough\n");
}

// Its output after it has closed its input is waited for.
TEST_F(PipeTest, OutputOfAProcessThatClosesItsInputIsCollectedToTheEnd)
{
    Fed fed("exec <&-; sleep 0.1; echo early >&2; sleep 0.1; echo late >&2; exit 3", std::string(200000, 'x'),
            false);
    int status = -1;
    EXPECT_EQ(thrownBy([&] { status = fed.pipe.run(); }), "nothing");
    EXPECT_EQ(status, exited(3));
    EXPECT_EQ(fed.err, "early\nlate\n");
}

// Its output and its status are there as well.
TEST_F(PipeTest, ProcessThatSucceedsWithoutReadingIsAFailedWrite)
{
    Fed fed("echo 'all is well' >&2", "text", true);
    EXPECT_EQ(thrownBy([&] { fed.pipe.run(); }), "zorvo::SystemError(32): write: Broken pipe");
    EXPECT_EQ(fed.err, "all is well\n");
    EXPECT_THAT(statusesOf(fed.pipe), ElementsAre(0));
}

// It reads a little and ends while much is still to come.
TEST_F(PipeTest, ProcessThatSucceedsButStopsReadingIsAFailedWrite)
{
    Pipe pipe;
    pipe.processes().push_back(Process("head", "-c", "1"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = longSource(manyBytes);
    pipe.stdoutFd = kDevNullFd;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "zorvo::SystemError(32): write: Broken pipe");
}

// What counts is how the process that was fed ended, not the last one.
TEST_F(PipeTest, InAPipelineTheStatusOfTheFirstProcessDecidesOnRefusedInput)
{
    for (const int code : {0, 4}) {
        SCOPED_TRACE(code);
        Pipe pipe;
        pipe.processes().push_back(shell("exit " + std::to_string(code)));
        pipe.processes().push_back(shell("cat; exit 5"));
        pipe.stdinFd = kPipeFd;
        pipe.stdinSource = sourceOf("text", 4);
        pipe.processes()[0].launchCallback = [](int pid) { tools::waitUntilEnded(pid); };
        int status = -1;
        const std::string thrown = thrownBy([&] { status = pipe.run(); });
        EXPECT_EQ(thrown, code == 0 ? "zorvo::SystemError(32): write: Broken pipe" : "nothing");
        EXPECT_EQ(status, code == 0 ? -1 : exited(5));
        EXPECT_THAT(statusesOf(pipe), ElementsAre(exited(code), exited(5)));
    }
}

TEST_F(PipeTest, SourceIsNotCalledAgainWhenNobodyReads)
{
    int calls = 0;
    Pipe pipe;
    pipe.processes().push_back(shell("exit 1"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = [&calls](std::vector<char>& buffer) {
        buffer.push_back('x');
        return ++calls < 10;
    };
    pipe.launchCallback = [](int pid) { tools::waitUntilEnded(pid); };
    EXPECT_EQ(pipe.run(), exited(1));
    EXPECT_EQ(calls, 1);
}

// ---- Much data

TEST_F(PipeTest, FiftyMebibytesPassThroughTwoProcesses)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(Process("cat"));
    pipe.processes().push_back(Process("wc", "-c"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = longSource(manyBytes);
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "52428800\n");
    EXPECT_THAT(statusesOf(pipe), ElementsAre(0, 0));
}

// Input and output flow at the same time: neither side may wait for the other.
TEST_F(PipeTest, FiftyMebibytesComeBackUnchangedFromThreeProcesses)
{
    LongReceiver receiver;
    Pipe pipe;
    for (int i = 0; i < 3; ++i)
        pipe.processes().push_back(Process("cat"));
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = longSource(manyBytes);
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = receiver.receiver();
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(receiver.good, manyBytes);
    EXPECT_EQ(receiver.bad, 0U);
    EXPECT_THAT(statusesOf(pipe), ElementsAre(0, 0, 0));
}

TEST_F(PipeTest, MuchDataOnAllStreamsAtOnceDoesNotBlock)
{
    const std::string script = "head -c 3000000 /dev/zero >&2; cat; head -c 3000000 /dev/zero >&2";
    uint64_t out = 0;
    uint64_t err[3] = {0, 0, 0};
    Pipe pipe;
    for (uint64_t& count : err) {
        pipe.processes().push_back(shell(script));
        pipe.processes().back().stderrFd = kPipeFd;
        pipe.processes().back().stderrReceiver = [&count](const std::vector<char>& chunk) {
            count += chunk.size();
        };
    }
    pipe.stdinFd = kPipeFd;
    pipe.stdinSource = longSource(5000000);
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = [&out](const std::vector<char>& chunk) { out += chunk.size(); };
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, 5000000U);
    EXPECT_THAT(err, ElementsAre(6000000, 6000000, 6000000));
}

// ---- Ends of children and of pipes, in any order

// The output has ended, the process has not.
TEST_F(PipeTest, ProcessThatClosesItsOutputAndLivesOnIsWaitedFor)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::string out;
    std::string err;
    Pipe pipe;
    pipe.processes().push_back(shell("echo output; exec >&-; echo closed >&2; exec 2>&-; read x; exit 7"));
    pipe.stdinFd = ends[0];
    pipe.stdoutFd = pipe.stderrFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    pipe.stderrReceiver = [&err, &ends](const std::vector<char>& chunk) {
        collectOutput(err, chunk);
        if (err == "closed\n" && ::write(ends[1], "\n", 1) != 1)
            throw std::logic_error("the child cannot be released");
    };
    EXPECT_EQ(pipe.run(), exited(7));
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(out, "output\n");
    EXPECT_EQ(err, "closed\n");
}

// The process has ended and was reaped, but its own child still writes.
TEST_F(PipeTest, OutputOfAGrandchildIsCollectedToTheEnd)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::string out;
    int pid = -1;
    Pipe pipe;
    pipe.processes().push_back(shell("exec 3<&0; (read x <&3; echo late) & echo early; exit 3"));
    pipe.stdinFd = ends[0];
    pipe.stdoutFd = kPipeFd;
    pipe.launchCallback = [&pid](int child) { pid = child; };
    pipe.stdoutReceiver = [&](const std::vector<char>& chunk) {
        collectOutput(out, chunk);
        if (out != "early\n")
            return;
        while (::kill(pid, 0) == 0) // Until the handler has reaped it.
            ::usleep(1000);
        if (::write(ends[1], "\n", 1) != 1)
            throw std::logic_error("the grandchild cannot be released");
    };
    EXPECT_EQ(pipe.run(), exited(3));
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(out, "early\nlate\n");
}

TEST_F(PipeTest, StopAndContinuationOfAProcessAreNotItsEnd)
{
    std::string out;
    Pipe pipe;
    pipe.processes().push_back(shell("(kill -STOP $$; kill -CONT $$) & wait; echo output; exit 3"));
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), exited(3));
    EXPECT_EQ(out, "output\n");
}

TEST_F(PipeTest, ManyRunsLeaveNothing)
{
    for (int i = 0; i < 100; ++i) {
        Pipe pipe;
        std::string out;
        pipe.processes().push_back(shell("echo output"));
        pipe.processes().push_back(Process("cat"));
        pipe.stdoutFd = kPipeFd;
        pipe.stdoutReceiver = makeStringReceiver(out);
        ASSERT_EQ(pipe.run(), 0);
        ASSERT_EQ(out, "output\n");
    }
}

// ---- Program and arguments

TEST_F(PipeTest, ProgramIsTheFirstArgumentUnlessGiven)
{
    Process process("my name", "-c", "tr '\\0' '|' < /proc/$$/cmdline");
    process.program = "/bin/sh";
    EXPECT_EQ(outputOf(process), "my name|-c|tr '\\0' '|' < /proc/$$/cmdline|");
}

TEST_F(PipeTest, ProgramIsSearchedUnlessItBeginsWithDotOrSlash)
{
    const ScratchDir scratch;
    support::writeFile(scratch.file("tool"), "#!/bin/sh\necho found\n");
    std::filesystem::permissions(scratch.file("tool"), std::filesystem::perms::owner_all);
    std::filesystem::create_directory(scratch.file("sub"));
    support::writeFile(scratch.file("sub/tool"), "#!/bin/sh\necho below\n");
    std::filesystem::permissions(scratch.file("sub/tool"), std::filesystem::perms::owner_all);
    inOwnProcess([&scratch] {
        ASSERT_EQ(::setenv("PATH", (scratch.path() + ":/bin:/usr/bin").c_str(), 1), 0);
        ASSERT_EQ(::chdir("/"), 0);
        EXPECT_EQ(outputOf(Process("tool")), "found\n");
        for (const char* const unsearched : {"./tool", "/tool", ".tool"}) {
            SCOPED_TRACE(unsearched);
            EXPECT_EQ(thrownBy([unsearched] { outputOf(Process(unsearched)); }),
                      childSystemError("execv", ENOENT));
        }
        EXPECT_EQ(thrownBy([] { outputOf(Process("no-such-tool")); }), childSystemError("execvp", ENOENT));
        Process process("./tool");
        process.workingDirectory = scratch.path();
        EXPECT_EQ(outputOf(process), "found\n");
        process.arguments = {"sub/tool"}; // execvp(3) does not search for it either, but runs it.
        EXPECT_EQ(outputOf(process), "below\n");
    });
}

TEST_F(PipeTest, MissingToolNamesExecvAndItsReasonTwice)
{
    Pipe pipe;
    pipe.processes().push_back(Process("/usr/sbin/no-such-tool"));
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }),
              "zorvo::SystemError(2): execv: No such file or directory: No such file or directory");
}

// ---- Defaults of the pipe

TEST_F(PipeTest, DirectoryOfThePipeIsTheDefault)
{
    Pipe pipe;
    std::string err;
    pipe.processes().push_back(shell("pwd >&2"));
    pipe.processes().push_back(shell("cat; pwd >&2"));
    pipe.processes()[1].workingDirectory = "/usr/bin";
    pipe.workingDirectory = "/usr";
    pipe.processes()[1].stderrFd = pipe.processes()[0].stderrFd = kPipeFd;
    std::string directories[2];
    pipe.processes()[0].stderrReceiver = makeStringReceiver(directories[0]);
    pipe.processes()[1].stderrReceiver = makeStringReceiver(directories[1]);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(directories[0], "/usr\n");
    EXPECT_EQ(directories[1], "/usr/bin\n");
}

TEST_F(PipeTest, MissingDirectoryIsNamed)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.workingDirectory = "/no/such/directory";
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("cwd chdir", ENOENT));
}

// Surprising, but so it is: only a process that has an environment of its own gets the pipe's instead.
TEST_F(PipeTest, EnvironmentOfThePipeReplacesOnlyAProcessesOwn)
{
    const char* const ofPipe[] = {"WHOSE=pipe", nullptr};
    const char* const ofProcess[] = {"WHOSE=process", nullptr};
    inOwnProcess([&] {
        ASSERT_EQ(::setenv("WHOSE", "parent", 1), 0);
        for (const bool pipeHasOne : {false, true})
            for (const bool processHasOne : {false, true}) {
                Pipe pipe;
                std::string out;
                pipe.processes().push_back(shell("echo $WHOSE"));
                if (processHasOne)
                    pipe.processes()[0].environment = ofProcess;
                if (pipeHasOne)
                    pipe.environment = ofPipe;
                pipe.stdoutFd = kPipeFd;
                pipe.stdoutReceiver = makeStringReceiver(out);
                EXPECT_EQ(pipe.run(), 0);
                EXPECT_EQ(out, !processHasOne ? "parent\n" : pipeHasOne ? "pipe\n" : "process\n");
            }
    });
}

TEST_F(PipeTest, EnvironmentOfAProcessIsExecutedWithoutASearch)
{
    const char* const environment[] = {"PATH=/bin:/usr/bin", nullptr};
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.processes()[0].environment = environment;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execve", ENOENT));
}

TEST_F(PipeTest, OtherDescriptorsAreClosedWhenThePipeOrTheProcessWantsIt)
{
    const int extra = ::fcntl(0, F_DUPFD, 700); // Not closed on exec.
    ASSERT_EQ(extra, 700);
    for (const bool pipeWants : {false, true})
        for (const bool processWants : {false, true}) {
            Pipe pipe;
            std::string out;
            pipe.processes().push_back(shell("[ -e /proc/self/fd/700 ] && echo open || echo closed"));
            pipe.closeOtherFds = pipeWants;
            pipe.processes()[0].closeOtherFds = processWants;
            pipe.stdoutFd = kPipeFd;
            pipe.stdoutReceiver = makeStringReceiver(out);
            EXPECT_EQ(pipe.run(), 0);
            EXPECT_EQ(out, pipeWants || processWants ? "closed\n" : "open\n");
        }
    ::close(extra);
}

TEST_F(PipeTest, NoDescriptorOfTheRunReachesAProgram)
{
    inOwnProcess([] {
        for (const auto& [fd, target] : openFds())
            if (fd > 2)
                ::close(fd);
        Pipe pipe;
        std::string out;
        std::string err[2];
        pipe.processes().push_back(shell("ls /proc/self/fd >&2"));
        pipe.processes().push_back(shell("cat; ls /proc/self/fd >&2"));
        pipe.processes().push_back(Process("ls", "/proc/self/fd"));
        for (size_t i = 0; i < 2; ++i) {
            pipe.processes()[i].stderrFd = kPipeFd;
            pipe.processes()[i].stderrReceiver = makeStringReceiver(err[i]);
        }
        pipe.stdinFd = pipe.stdoutFd = kPipeFd;
        pipe.stdinSource = [](std::vector<char>&) { return false; };
        pipe.stdoutReceiver = makeStringReceiver(out);
        EXPECT_EQ(pipe.run(), 0);
        EXPECT_EQ(err[0], "0\n1\n2\n3\n"); // 3 is the directory that ls reads.
        EXPECT_EQ(err[1], "0\n1\n2\n3\n");
        EXPECT_EQ(out, "0\n1\n2\n3\n");
    });
}

TEST_F(PipeTest, HookOfThePipeIsTheDefault)
{
    Pipe pipe;
    std::string err[2];
    for (size_t i = 0; i < 2; ++i) {
        pipe.processes().push_back(shell("cat; echo $WHOSE >&2"));
        pipe.processes()[i].stderrFd = kPipeFd;
        pipe.processes()[i].stderrReceiver = makeStringReceiver(err[i]);
    }
    pipe.stdinFd = kDevNullFd;
    pipe.childHook = [] { ::setenv("WHOSE", "pipe", 1); };
    pipe.processes()[1].childHook = [] { ::setenv("WHOSE", "process", 1); };
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(err[0], "pipe\n");
    EXPECT_EQ(err[1], "process\n");
}

TEST_F(PipeTest, HookThatThrowsEndsTheRunWithItsException)
{
    const auto failureOf = [](const boost::function<void()>& hook) {
        Pipe pipe;
        pipe.processes().push_back(Process("true"));
        pipe.childHook = hook;
        return thrownBy([&pipe] { pipe.run(); });
    };
    EXPECT_EQ(failureOf([] { throw zorvo::SystemError("hook", EPERM); }), childSystemError("hook", EPERM));
    EXPECT_EQ(failureOf([] { throw std::runtime_error("text"); }), "std::runtime_error: text");
    EXPECT_EQ(failureOf([] { throw std::logic_error("text"); }), "std::exception: std::exception");
    EXPECT_EQ(failureOf([] { throw 42; }), "std::runtime_error: unknown error");
}

TEST_F(PipeTest, LaunchCallbackOfThePipeIsTheDefault)
{
    std::vector<std::string> calls;
    Pipe pipe;
    for (int i = 0; i < 3; ++i)
        pipe.processes().push_back(shell("cat"));
    pipe.stdinFd = kDevNullFd;
    pipe.launchCallback = [&calls](int pid) { calls.push_back("pipe " + std::to_string(pid)); };
    pipe.processes()[1].launchCallback = [&calls](int pid) {
        calls.push_back("process " + std::to_string(pid));
    };
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_THAT(calls, ElementsAre("pipe " + std::to_string(pipe.statuses()[0].pid),
                                   "process " + std::to_string(pipe.statuses()[1].pid),
                                   "pipe " + std::to_string(pipe.statuses()[2].pid)));
}

TEST_F(PipeTest, LaunchCallbackThatThrowsEndsTheRun)
{
    Pipe pipe;
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes()[1].launchCallback = [](int) { throw std::range_error("no"); };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::range_error: no");
}

TEST_F(PipeTest, ProcessesAreLaunchedOneAfterTheOther)
{
    const ScratchDir scratch;
    Pipe pipe;
    for (const char* const name : {"a", "b", "c"}) {
        pipe.processes().push_back(Process("true"));
        const std::string file = scratch.file(name);
        const std::set<std::string> expected = *name == 'a'   ? std::set<std::string>{}
                                               : *name == 'b' ? std::set<std::string>{"a"}
                                                              : std::set<std::string>{"a", "b"};
        pipe.processes().back().childHook = [file, expected, &scratch] {
            if (scratch.names() != expected)
                throw std::runtime_error("out of order");
            support::writeFile(file, "");
        };
    }
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(scratch.names(), (std::set<std::string>{"a", "b", "c"}));
}

// ---- Failures of a launch in the middle

TEST_F(PipeTest, SecondProcessThatCannotBeExecutedLeavesNothingOfTheFirst)
{
    int first = -1;
    Pipe pipe;
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes().push_back(Process("/no/such/program"));
    pipe.processes()[0].launchCallback = [&first](int pid) { first = pid; };
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execv", ENOENT));
    EXPECT_EQ(::kill(first, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(PipeTest, ThirdProcessThatCannotBeExecutedLeavesNothingOfTheOthers)
{
    Pipe pipe;
    pipe.processes().push_back(Process("cat", "/dev/zero"));
    pipe.processes().push_back(Process("cat"));
    pipe.processes().push_back(Process("/no/such/program"));
    pipe.stdoutFd = kPipeFd;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execv", ENOENT));
}

TEST_F(PipeTest, FirstProcessThatIgnoresSignalsIsEndedToo)
{
    Pipe pipe;
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes()[0].childHook = [] {
        for (const int signal : {SIGTERM, SIGHUP, SIGINT, SIGPIPE})
            ::signal(signal, SIG_IGN);
    };
    pipe.processes().push_back(Process("/no/such/program"));
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execv", ENOENT));
}

TEST_F(PipeTest, FirstProcessThatHasEndedAlreadyIsReaped)
{
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    pipe.processes()[0].launchCallback = [](int pid) { tools::waitUntilEnded(pid); };
    pipe.processes().push_back(Process("/no/such/program"));
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execv", ENOENT));
}

TEST_F(PipeTest, SecondProcessThatCannotBeForkedLeavesNothingOfTheFirst)
{
    Pipe pipe;
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes().push_back(Process("sleep", "1000"));
    const FailingCall failing(Call::fork, 2, EAGAIN);
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), systemError("fork", EAGAIN));
}

TEST_F(PipeTest, InvalidSelectorOfASecondProcessLeavesNothingOfTheFirst)
{
    Pipe pipe;
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes().push_back(Process("sleep", "1000"));
    pipe.processes()[1].stderrFd = -77;
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), "std::invalid_argument: invalid FD for stderr");
}

// ---- Failing system calls of this process

TEST_F(PipeTest, InstalledCatcherPreventsARun)
{
    ProcessSetCatcher catcher;
    catcher.install();
    Pipe pipe;
    pipe.processes().push_back(Process("true"));
    EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }),
              "std::logic_error: ProcessSetCatcher instance has been installed already");
    EXPECT_TRUE(hasNoChildren());
    EXPECT_EQ(dispositionOf(SIGCHLD).sa_sigaction, ProcessSetCatcher::childHandler);
    catcher.remove(false);
}

/// What a run of two processes with all kinds of pipes throws with one failing call in it.
static std::string thrownWith(Call call, int nth, int error, bool* happened)
{
    std::string out;
    std::string err;
    Pipe pipe;
    pipe.processes().push_back(Process("cat"));
    pipe.processes().push_back(shell("cat; echo error >&2"));
    pipe.stdinFd = pipe.stdoutFd = pipe.stderrFd = kPipeFd;
    pipe.stdinSource = sourceOf(std::string(3000, 'x'), 1000);
    pipe.stdoutReceiver = makeStringReceiver(out);
    pipe.stderrReceiver = makeStringReceiver(err);
    FailingCall failing(call, nth, error);
    std::string thrown = thrownBy([&pipe] { pipe.run(); });
    failing.stop();
    *happened = failing.happened();
    if (thrown == "nothing") {
        EXPECT_EQ(out, std::string(3000, 'x'));
        EXPECT_EQ(err, "error\n");
        EXPECT_THAT(statusesOf(pipe), ElementsAre(0, 0));
    }
    return thrown;
}

/// The labels of all that is thrown when each occurrence of `call` fails in turn, in order, each once; what
/// is left behind is added to them. Every occurrence has a process of its own.
static std::vector<std::string> labelsOf(Call call, int error)
{
    std::vector<std::string> labels;
    const std::string type = "zorvo::SystemError(" + std::to_string(error) + "): ";
    const std::string reason = std::string(": ") + std::strerror(error);
    for (int nth = 1; nth < 1000; ++nth) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot make a pipe");
        const pid_t child = support::forkChild([&] {
            const auto fds = openFds();
            const Signals signals = ownSignals();
            bool happened = false;
            std::string label = thrownWith(call, nth, error, &happened);
            if (label.compare(0, type.size(), type) == 0)
                label.erase(0, type.size());
            if (const size_t at = label.find(reason); at != std::string::npos)
                label.resize(at);
            if (!hasNoChildren())
                label += ", and a child is left";
            if (openFds() != fds)
                label += ", and descriptors are left";
            if (!(ownSignals() == signals))
                label += ", and signals are changed";
            if (::write(ends[1], label.data(), label.size()) != static_cast<ssize_t>(label.size()))
                return 99;
            return happened ? 0 : 1;
        });
        ::close(ends[1]);
        const std::string label = support::readAll(ends[0]);
        ::close(ends[0]);
        const int status = support::waitFor(child);
        if (status == exited(1))
            break;
        EXPECT_EQ(status, 0);
        if (std::find(labels.begin(), labels.end(), label) == labels.end())
            labels.push_back(label);
    }
    return labels;
}

TEST_F(PipeTest, EachFailingPipeIsNamedAndLeavesNothing)
{
    EXPECT_THAT(labelsOf(Call::pipe, EMFILE), ElementsAre("process set catcher control pipe", "stdin pipe",
                                                          "stdout pipe", "stderr pipe", "pipe"));
}

TEST_F(PipeTest, EachFailingForkIsNamedAndLeavesNothing)
{
    EXPECT_THAT(labelsOf(Call::fork, EAGAIN), ElementsAre("fork"));
}

TEST_F(PipeTest, EachFailingChangeOfFlagsIsNamedAndLeavesNothing)
{
    EXPECT_THAT(labelsOf(Call::setFl, EPERM), ElementsAre("control pipe fcntl", "fcntl"));
}

TEST_F(PipeTest, EachFailingSelectIsNamedAndLeavesNothing)
{
    EXPECT_THAT(labelsOf(Call::select, EBADF), ElementsAre("select"));
}

// The handler's wake-up byte is a write, too; without it the run still ends.
TEST_F(PipeTest, EachFailingWriteIsNamedAndLeavesNothing)
{
    EXPECT_THAT(labelsOf(Call::write, EIO), ElementsAre("write", "nothing"));
}

// The catcher's own pipe is read, too; failures there are ignored.
TEST_F(PipeTest, EachFailingReadIsNamedAndLeavesNothing)
{
    const std::vector<std::string> labels = labelsOf(Call::read, EIO);
    EXPECT_THAT(labels, testing::IsSupersetOf({"control pipe read", "read"}));
    for (const std::string& label : labels)
        EXPECT_THAT(label, testing::AnyOf("control pipe read", "read", "nothing"));
}

TEST_F(PipeTest, EachFailingCloseLeavesNothing)
{
    for (const std::string& label : labelsOf(Call::close, EIO))
        EXPECT_THAT(label, testing::AnyOf("close", "pipe read-end close", "nothing"));
}

// Without signals nothing can be restored, but what was done before is undone.
TEST_F(PipeTest, EachFailingSignalCallIsNamed)
{
    using testing::Contains;
    using testing::StartsWith;
    const std::vector<std::string> masks = labelsOf(Call::sigprocmask, EINVAL);
    EXPECT_THAT(masks, Contains("get sigprocmask"));
    EXPECT_THAT(masks, Contains("set sigprocmask"));
    EXPECT_THAT(masks, Contains(StartsWith("restore sigprocmask")));
    const std::vector<std::string> actions = labelsOf(Call::sigaction, EINVAL);
    EXPECT_THAT(actions, Contains("sigaction"));
    EXPECT_THAT(actions, Contains(StartsWith("restore sigaction")));
}

// Each occurrence of each call, in this process and in the children.
TEST_F(PipeTest, InterruptedCallsAreRepeated)
{
    for (const Who who : {Who::parent, Who::child})
        for (const Call call : {Call::open, Call::pipe, Call::close, Call::closeNever, Call::read,
                                Call::write, Call::fork, Call::dup2, Call::fcntl, Call::select, Call::waitpid,
                                Call::sigaction, Call::sigprocmask, Call::exec}) {
            int nth = 1;
            for (; nth < 1000; ++nth) {
                SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << ", occurrence " << nth
                                                << (who == Who::child ? " in a child" : " in the parent"));
                std::string out;
                std::string err;
                Pipe pipe;
                pipe.processes().push_back(shell("cat; echo error >&2"));
                pipe.processes().push_back(Process("cat"));
                pipe.processes()[1].stderrFd = kDevNullFd;
                pipe.stdinFd = pipe.stdoutFd = pipe.stderrFd = kPipeFd;
                pipe.stdinSource = sourceOf(std::string(3000, 'x'), 1000);
                pipe.stdoutReceiver = makeStringReceiver(out);
                pipe.stderrReceiver = makeStringReceiver(err);
                FailingCall interrupted(call, nth, EINTR, who);
                const std::string thrown = thrownBy([&pipe] { pipe.run(); });
                interrupted.stop();
                ASSERT_EQ(thrown, "nothing");
                EXPECT_EQ(out, std::string(3000, 'x'));
                EXPECT_EQ(err, "error\n");
                EXPECT_THAT(statusesOf(pipe), ElementsAre(0, 0));
                checkNothingIsLeft();
                ASSERT_FALSE(HasFailure());
                if (!interrupted.happened())
                    break;
            }
            EXPECT_LT(nth, 1000);
        }
}

// ---- Unusual environments

/// SIGCHLD and SIGPIPE as a caller may have them.
static void enterState(unsigned variant)
{
    ::signal(SIGCHLD, (variant & 1U) != 0 ? SIG_IGN : SIG_DFL);
    ::signal(SIGPIPE, (variant & 2U) != 0 ? SIG_IGN : SIG_DFL);
    (variant & 4U) != 0 ? tools::block(SIGCHLD) : tools::unblock(SIGCHLD);
    (variant & 8U) != 0 ? tools::block(SIGPIPE) : tools::unblock(SIGPIPE);
    tools::block(SIGUSR1);
    ::signal(SIGUSR2, SIG_IGN);
}

TEST_F(PipeTest, RunEndsWhateverTheCallersSignalsAreAndKeepsThem)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals before = ownSignals();
            Pipe pipe;
            std::string out;
            pipe.processes().push_back(shell("echo output; exit 3"));
            pipe.processes().push_back(shell("cat; exit 4"));
            pipe.stdoutFd = kPipeFd;
            pipe.stdoutReceiver = makeStringReceiver(out);
            EXPECT_EQ(pipe.run(), exited(4));
            EXPECT_THAT(statusesOf(pipe), ElementsAre(exited(3), exited(4)));
            EXPECT_EQ(out, "output\n");
            EXPECT_EQ(ownSignals(), before);
        });
    }
}

TEST_F(PipeTest, FailedLaunchEndsWhateverTheCallersSignalsAreAndKeepsThem)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals before = ownSignals();
            const auto fds = openFds();
            Pipe pipe;
            pipe.processes().push_back(Process("sleep", "1000"));
            pipe.processes().push_back(Process("/no/such/program"));
            EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), childSystemError("execv", ENOENT));
            EXPECT_EQ(ownSignals(), before);
            EXPECT_EQ(openFds(), fds);
            EXPECT_TRUE(hasNoChildren());
        });
    }
}

TEST_F(PipeTest, RefusedInputIsTheSameWhateverTheCallersSignalsAre)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals before = ownSignals();
            Pipe pipe;
            pipe.processes().push_back(Process("head", "-c", "1"));
            pipe.stdinFd = kPipeFd;
            pipe.stdinSource = longSource(1000000);
            pipe.stdoutFd = kDevNullFd;
            EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), systemError("write", EPIPE));
            EXPECT_EQ(ownSignals(), before);
            // No SIGPIPE is pending that would be delivered when it is unblocked.
            sigset_t pending;
            ASSERT_EQ(::sigpending(&pending), 0);
            EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
        });
    }
}

TEST_F(PipeTest, ProgramsStartWithTheCallersSignals)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals before = ownSignals();
            EXPECT_EQ(signalsIn(outputOf(Process("cat", "/proc/self/status"))), before);
        });
    }
}

TEST_F(PipeTest, ProgramsStartWithTheSignalsOfTheStart)
{
    for (unsigned variant = 0; variant < 16; ++variant) {
        SCOPED_TRACE(variant);
        inOwnProcess([variant] {
            enterState(variant);
            const Signals start = ownSignals();
            zorvo::process::takeOverSignals();
            EXPECT_EQ(signalsIn(outputOf(Process("cat", "/proc/self/status"))), start);
            EXPECT_EQ(signalsIn(outputOf(Process("cat", "/proc/self/status"))), start);
        });
    }
}

TEST_F(PipeTest, ProgramOfALongPipelineIsEndedBySigpipe)
{
    Pipe pipe;
    std::string out;
    pipe.processes().push_back(Process("cat", "/dev/zero"));
    pipe.processes().push_back(Process("head", "-c", "10"));
    pipe.stdoutFd = kPipeFd;
    pipe.stdoutReceiver = makeStringReceiver(out);
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, std::string(10, '\0'));
    EXPECT_THAT(statusesOf(pipe), ElementsAre(SIGPIPE, 0));
}

TEST_F(PipeTest, RunsWithoutStandardDescriptors)
{
    for (unsigned closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        const auto result = support::runInChild([closed] {
            for (int fd = 0; fd < 3; ++fd)
                if ((closed & (1U << fd)) != 0)
                    ::close(fd);
            const auto fds = openFds();
            Pipe pipe;
            std::string out;
            std::string err;
            pipe.processes().push_back(Process("cat"));
            pipe.processes().push_back(shell("cat; echo error >&2"));
            pipe.stdinFd = pipe.stdoutFd = pipe.stderrFd = kPipeFd;
            pipe.stdinSource = sourceOf("text", 1);
            pipe.stdoutReceiver = makeStringReceiver(out);
            pipe.stderrReceiver = makeStringReceiver(err);
            if (pipe.run() != 0)
                return 1;
            if (out != "text" || err != "error\n")
                return 2;
            return openFds() == fds ? 0 : 3;
        });
        EXPECT_EQ(result.status, 0);
    }
}

// select(2) cannot watch descriptors from 1024 on: a clear error instead of a write beyond its sets.
TEST_F(PipeTest, DescriptorNumbersTooLargeForSelectAreAnError)
{
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 2000)
        GTEST_SKIP() << "too few descriptors are allowed";
    limit.rlim_cur = 2000;
    inOwnProcess([&limit] {
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        for (int fd = ::dup(0); fd < 1100; fd = ::dup(0))
            ASSERT_NE(fd, -1);
        const auto fds = openFds();
        Pipe pipe;
        std::string out;
        pipe.processes().push_back(shell("echo output"));
        pipe.processes().push_back(Process("cat"));
        pipe.stdoutFd = kPipeFd;
        pipe.stdoutReceiver = makeStringReceiver(out);
        EXPECT_EQ(thrownBy([&pipe] { pipe.run(); }), systemError("select", EMFILE));
        EXPECT_EQ(openFds(), fds);
        EXPECT_TRUE(hasNoChildren());
    });
}

// ---- launchAll

TEST_F(PipeTest, LaunchAllStartsRegistersAndUnblocks)
{
    const Signals before = ownSignals();
    {
        ProcessSetCatcher catcher;
        boost::scoped_ptr<ProcessLaunch> launches[2];
        std::vector<ProcessStatus> statuses;
        launchAll({Process("cat"), shell("cat; exit 5")}, kPipeFd, kPipeFd, catcher, launches, statuses);
        EXPECT_EQ(ownSignals().blocked, before.blocked);
        EXPECT_EQ(dispositionOf(SIGCHLD).sa_sigaction, ProcessSetCatcher::childHandler);
        ASSERT_EQ(statuses.size(), 2U);
        ASSERT_EQ(catcher.children().size(), 2U);
        for (size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(statuses[i].pid, launches[i]->pid());
            EXPECT_EQ(catcher.children().count(launches[i]->pid()), 1U);
        }
        EXPECT_EQ(catcher.finishedCount(), 0U);
        EXPECT_TRUE(launches[0]->stdinPipe().isOpen());
        EXPECT_TRUE(launches[1]->stdoutPipe().isOpen());
        ASSERT_EQ(::write(launches[0]->stdinPipe().get(), "text", 4), 4);
        launches[0]->stdinPipe().close_nothrow();
        EXPECT_EQ(support::readAll(launches[1]->stdoutPipe().get()), "text");
        while (catcher.finishedCount() < 2) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(catcher.controlFd(), &readable);
            ::select(catcher.controlFd() + 1, &readable, nullptr, nullptr, nullptr);
            catcher.clear_control();
        }
        EXPECT_EQ(catcher.children().at(launches[0]->pid()).status, 0);
        EXPECT_EQ(catcher.children().at(launches[1]->pid()).status, exited(5));
    }
}

TEST_F(PipeTest, LaunchAllEndsWhatItStartedAfterAFailure)
{
    ProcessSetCatcher catcher;
    boost::scoped_ptr<ProcessLaunch> launches[2];
    std::vector<ProcessStatus> statuses;
    EXPECT_EQ(thrownBy([&] {
                  launchAll({Process("sleep", "1000"), Process("/no/such/program")}, kInheritFd, kInheritFd,
                            catcher, launches, statuses);
              }),
              childSystemError("execv", ENOENT));
    EXPECT_TRUE(hasNoChildren());
    catcher.remove(true);
}

// A caller may use its array again: a slot is replaced in its turn, and not before.
TEST_F(PipeTest, LaunchAllReplacesAnEarlierLaunchOnlyInItsTurn)
{
    boost::scoped_ptr<ProcessLaunch> launches[3];
    const ProcessLaunch* before[3];
    std::vector<ProcessStatus> statuses;
    {
        ProcessSetCatcher catcher;
        launchAll({Process("true"), Process("true"), Process("true")}, kInheritFd, kDevNullFd, catcher,
                  launches, statuses);
        for (size_t i = 0; i < 3; ++i)
            before[i] = launches[i].get();
        while (catcher.finishedCount() < 3)
            ::usleep(1000);
    }
    ProcessSetCatcher catcher;
    std::vector<const ProcessLaunch*> seen;
    Process first("sleep", "1000");
    first.launchCallback = [&](int) {
        for (size_t i = 1; i < 3; ++i)
            seen.push_back(launches[i].get());
    };
    Process second("true");
    second.childHook = [] { throw std::runtime_error("out of luck"); };
    const std::vector<Process> processes = {first, second, Process("true")};
    EXPECT_EQ(thrownBy([&] { launchAll(processes, kInheritFd, kDevNullFd, catcher, launches, statuses); }),
              "std::runtime_error: out of luck");
    EXPECT_THAT(seen, ElementsAre(before[1], before[2]));
    EXPECT_EQ(launches[2].get(), before[2]);
    EXPECT_TRUE(hasNoChildren()); // Only what was started here was ended.
    catcher.remove(true);
}

// scoped_ptr destroys in a noexcept context, where an exception ends the program.
TEST_F(PipeTest, FailedCloseOfALaunchThatNobodyWaitedForIsSilent)
{
    inOwnProcess([] {
        const auto fds = openFds();
        boost::scoped_ptr<ProcessLaunch> launch;
        const char* const argv[] = {"true", nullptr};
        launch.reset(new ProcessLaunch(argv, "/bin/true", nullptr, nullptr, false, false, false, {},
                                       kInheritFd, kInheritFd, kInheritFd));
        const int pid = launch->pid();
        FailingCall failing(Call::close, 1, EIO);
        launch.reset();
        EXPECT_TRUE(failing.happened());
        failing.stop();
        EXPECT_EQ(openFds(), fds);
        support::waitFor(pid);
    });
}
