// messlog2 and related functions: the text on both streams, every growth of the buffer, the end of the
// process.
#include "common/messlog2.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/InterruptedPipe.h"
#include "support/LibcFaults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>

using support::Capture;
using support::ChildResult;
using support::runInChild;

namespace {

struct Report {
    int result = -1000;
    std::string out;
    std::string err;
};

/// What `call` returned and wrote, errno being `error` on its entry.
Report reportOf(int error, const std::function<int()>& call)
{
    Report report;
    Capture capture;
    errno = error;
    report.result = call();
    report.err = capture.err();
    report.out = capture.out();
    return report;
}

/// Text reported for `message` with errno `error`, taken from standard error.
std::string errOf(int error, const std::string& message)
{
    return reportOf(error, [&] { return messlog2(0, 0, "%s", message.c_str()); }).err;
}

int throughList(int exitStatus, int flag, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = vmesslog2(exitStatus, flag, format, args);
    va_end(args);
    return result;
}

/// Sets PROGNAME while it lives.
class Progname {
public:
    explicit Progname(const char* name) { PROGNAME = name; }
    Progname(const Progname&) = delete;
    Progname& operator=(const Progname&) = delete;
    ~Progname() { PROGNAME = nullptr; }
};

} // namespace

TEST(Messlog2Test, FormattedMessageReachesBothStreams)
{
    const Report report = reportOf(0, [] { return messlog2(0, 0, "%s has %d lines", "file", 5); });
    EXPECT_EQ("file has 5 lines\n", report.err);
    EXPECT_EQ("file has 5 lines\n", report.out);
}

TEST(Messlog2Test, ReturnsZeroWithoutAnExitStatus)
{
    EXPECT_EQ(0, reportOf(0, [] { return messlog2(0, 0, "x"); }).result);
}

TEST(Messlog2Test, SystemErrorOfErrnoIsAppended)
{
    const Report report = reportOf(ENOENT, [] { return messlog2(0, 0, "x"); });
    EXPECT_EQ("x\nSystem error 2: No such file or directory\n", report.err);
    EXPECT_EQ("x\nSystem error 2: No such file or directory\n", report.out);
}

TEST(Messlog2Test, MessageThatEndsWithANewlineIsFollowedByAnEmptyLineBeforeTheSystemError)
{
    EXPECT_EQ("x\n\nSystem error 13: Permission denied\n", errOf(EACCES, "x\n"));
}

TEST(Messlog2Test, MessageThatEndsWithANewlineGetsNoSecondOne)
{
    EXPECT_EQ("x\n", errOf(0, "x\n"));
}

TEST(Messlog2Test, EmptyMessageIsAnEmptyLine)
{
    EXPECT_EQ("\n", errOf(0, ""));
}

TEST(Messlog2Test, FlagHasNoEffect)
{
    for (const int flag : {0, 1, -1, 0x7fffffff}) {
        SCOPED_TRACE(flag);
        const Report report = reportOf(ENOENT, [&] { return messlog2(0, flag, "x"); });
        EXPECT_EQ("x\nSystem error 2: No such file or directory\n", report.err);
        EXPECT_EQ(report.err, report.out);
        EXPECT_EQ(0, report.result);
    }
}

TEST(Messlog2Test, ListFormReportsTheSame)
{
    const Report report = reportOf(ENOENT, [] { return throughList(0, 0, "%s %d", "file", 5); });
    EXPECT_EQ("file 5\nSystem error 2: No such file or directory\n", report.err);
    EXPECT_EQ(report.err, report.out);
    EXPECT_EQ(0, report.result);
}

TEST(Messlog2Test, MessagesAroundTheFirstBufferArriveWhole)
{
    for (const size_t length : {4094U, 4095U, 4096U, 4097U, 8191U, 8192U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string message(length, 'm');
        EXPECT_TRUE(message + "\n" == errOf(0, message));
    }
}

TEST(Messlog2Test, MessagesAroundTheFirstBufferArriveWholeOnStandardOutputToo)
{
    for (const size_t length : {4095U, 4096U, 4097U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string message(length, 'm');
        EXPECT_TRUE(message + "\n" == reportOf(0, [&] { return messlog2(0, 0, "%s", message.c_str()); }).out);
    }
}

TEST(Messlog2Test, SystemErrorArrivesWholeWhereverTheFirstBufferEnds)
{
    for (size_t length = 4040; length <= 4100; ++length) {
        SCOPED_TRACE(length);
        const std::string message(length, 'm');
        EXPECT_TRUE(message + "\nSystem error 2: No such file or directory\n" == errOf(ENOENT, message));
    }
}

TEST(Messlog2Test, SystemErrorAfterAVeryLongMessageArrivesWhole)
{
    const std::string message(100000, 'm');
    EXPECT_TRUE(message + "\nSystem error 2: No such file or directory\n" == errOf(ENOENT, message));
}

TEST(Messlog2Test, ProgramNameStandsBeforeTheMessageOnBothStreams)
{
    const Progname name("tool");
    const Report report = reportOf(0, [] { return messlog2(0, 0, "x"); });
    EXPECT_EQ("tool: x\n", report.err);
    EXPECT_EQ("tool: x\n", report.out);
}

TEST(Messlog2Test, OnlyTheLastComponentOfTheProgramNameIsShown)
{
    const Progname name("/usr/local/maru/admin/sbin/tool");
    EXPECT_EQ("tool: x\n", errOf(0, "x"));
}

TEST(Messlog2Test, RelativePathIsCutToItsLastComponentToo)
{
    const Progname name("./bin/tool");
    EXPECT_EQ("tool: x\n", errOf(0, "x"));
}

TEST(Messlog2Test, SystemErrorHasNoPrefixOfItsOwn)
{
    const Progname name("tool");
    EXPECT_EQ("tool: x\nSystem error 2: No such file or directory\n", errOf(ENOENT, "x"));
}

TEST(Messlog2Test, ThereIsNoProgramNameAtTheStart)
{
    EXPECT_EQ(nullptr, PROGNAME);
}

TEST(Messlog2Test, TextIsOutAtOnce)
{
    const ChildResult result = runInChild([] {
        errno = 0;
        messlog2(0, 0, "x");
        ::_exit(0);
        return 1;
    });
    EXPECT_EQ("x\n", result.err);
    EXPECT_EQ("x\n", result.out);
}

TEST(Messlog2Test, TextComesAfterWhatStdioWrote)
{
    const ChildResult result = runInChild([] {
        errno = 0;
        std::fputs("before\n", stdout);
        messlog2(0, 0, "x");
        return 0;
    });
    EXPECT_EQ("before\nx\n", result.out);
}

TEST(Messlog2Test, InterruptedReportIsWholeOnBothStreams)
{
    const ChildResult interruptedErr = runInChild([] {
        support::InterruptedPipe err(STDERR_FILENO);
        errno = ENOENT;
        messlog2(0, 0, "x");
        std::cout << err.text();
        return 0;
    });
    const ChildResult interruptedOut = runInChild([] {
        support::InterruptedPipe out(STDOUT_FILENO);
        errno = ENOENT;
        messlog2(0, 0, "x");
        std::cerr << out.text();
        return 0;
    });
    const std::string report = "x\nSystem error 2: No such file or directory\n";
    EXPECT_EQ(report + report, interruptedErr.out);
    EXPECT_EQ(report + report, interruptedOut.err);
}

TEST(Messlog2Test, WriteErrorsAreIgnored)
{
    const ChildResult result = runInChild([] {
        ::dup2(::open("/dev/full", O_WRONLY), 1);
        errno = 0;
        ::_exit(messlog2(0, 0, "x") == 0 ? 0 : 1);
        return 2;
    });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("x\n", result.err);
}

TEST(Messlog2Test, ClosedStreamsAreIgnored)
{
    const ChildResult result = runInChild([] {
        ::close(1);
        ::close(2);
        ::_exit(messlog2(0, 0, "x") == 0 ? 0 : 1);
        return 2;
    });
    EXPECT_EQ(0, result.status);
}

// ---- the end of the process ------------------------------------------------------------------------------

TEST(Messlog2ExitTest, ExitStatusEndsTheProcess)
{
    for (const int status : {1, 2, 77, 255}) {
        SCOPED_TRACE(status);
        const ChildResult result = runInChild([status] {
            errno = 0;
            messlog2(status, 0, "x");
            return 99;
        });
        EXPECT_TRUE(result.exitedWith(status)) << result.status;
    }
}

TEST(Messlog2ExitTest, MessageIsWrittenBeforeTheEnd)
{
    const ChildResult result = runInChild([] {
        errno = ENOENT;
        messlog2(1, 0, "x");
        return 99;
    });
    EXPECT_EQ("x\nSystem error 2: No such file or directory\n", result.err);
    EXPECT_EQ(result.err, result.out);
}

TEST(Messlog2ExitTest, ProcessEndsThroughExit)
{
    const ChildResult result = runInChild([] {
        std::atexit([] { static_cast<void>(::write(2, "atexit\n", 7) == 7); });
        errno = 0;
        messlog2(1, 0, "x");
        return 99;
    });
    EXPECT_EQ("x\natexit\n", result.err);
}

TEST(Messlog2ExitTest, ListFormEndsTheProcessToo)
{
    EXPECT_TRUE(runInChild([] {
                    throughList(3, 0, "x");
                    return 99;
                }).exitedWith(3));
}

TEST(Messlog2ExitTest, ExMesslogEndsTheProcessToo)
{
    const ChildResult result = runInChild([] {
        ex_messlog("x", 4, 0);
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(4)) << result.status;
    EXPECT_EQ("x\n", result.err);
}

// ---- ex_messlog ------------------------------------------------------------------------------------------

TEST(ExMesslogTest, TextReachesBothStreamsWithANewline)
{
    const Report report = reportOf(0, [] { return ex_messlog("x", 0, 0); });
    EXPECT_EQ("x\n", report.err);
    EXPECT_EQ("x\n", report.out);
}

TEST(ExMesslogTest, TextThatEndsWithANewlineGetsNoSecondOne)
{
    const Report report = reportOf(0, [] { return ex_messlog("x\n", 0, 0); });
    EXPECT_EQ("x\n", report.err);
    EXPECT_EQ("x\n", report.out);
}

TEST(ExMesslogTest, NewlinesInsideDoNotCount)
{
    EXPECT_EQ("a\n\nb\n", reportOf(0, [] { return ex_messlog("a\n\nb", 0, 0); }).err);
}

TEST(ExMesslogTest, PercentSignsAreText)
{
    EXPECT_EQ("100%s%n\n", reportOf(0, [] { return ex_messlog("100%s%n", 0, 0); }).err);
}

TEST(ExMesslogTest, ErrnoIsNotAppended)
{
    EXPECT_EQ("x\n", reportOf(ENOENT, [] { return ex_messlog("x", 0, 0); }).err);
}

TEST(ExMesslogTest, ReturnsZeroWithoutAnExitStatus)
{
    EXPECT_EQ(0, reportOf(0, [] { return ex_messlog("x", 0, 5); }).result);
}

TEST(ExMesslogTest, ProgramNameStandsBeforeTheText)
{
    const Progname name("/usr/sbin/tool");
    const Report report = reportOf(0, [] { return ex_messlog("x", 0, 0); });
    EXPECT_EQ("tool: x\n", report.err);
    EXPECT_EQ("tool: x\n", report.out);
}

// ---- memory ----------------------------------------------------------------------------------------------

TEST(Messlog2MemoryTest, WithoutTheFirstBufferAFixedTextIsReported)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const Report report = reportOf(ENOENT, [] {
        const support::MemoryFault fault(0);
        return messlog2(0, 0, "x");
    });
    EXPECT_EQ("Can't allocate memory for error message\n", report.err);
    EXPECT_EQ("Can't allocate memory for error message\n", report.out);
    EXPECT_EQ(0, report.result);
}

TEST(Messlog2MemoryTest, WithoutALargerBufferTheTextIsCutAt4095Characters)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string message(5000, 'm');
    const Report report = reportOf(0, [&] {
        const support::MemoryFault fault(1);
        return messlog2(0, 0, "%s", message.c_str());
    });
    EXPECT_EQ(std::string(4095, 'm') + "\n", report.err);
}

TEST(Messlog2MemoryTest, WithoutTheFirstBufferTheProcessStillEnds)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    EXPECT_TRUE(runInChild([] {
                    const support::MemoryFault fault(0);
                    messlog2(5, 0, "x");
                    return 99;
                }).exitedWith(5));
}

// ---- asprintf_safe ---------------------------------------------------------------------------------------

TEST(AsprintfSafeTest, GivesTheFormattedText)
{
    char* const text = asprintf_safe("%s-%d", "abc", 5);
    EXPECT_STREQ("abc-5", text);
    std::free(text);
}

TEST(AsprintfSafeTest, GivesAnEmptyText)
{
    char* const text = asprintf_safe("%s", "");
    EXPECT_STREQ("", text);
    std::free(text);
}

TEST(AsprintfSafeTest, GivesALongText)
{
    const std::string expected(100000, 't');
    char* const text = asprintf_safe("%s", expected.c_str());
    EXPECT_TRUE(expected == text);
    std::free(text);
}

TEST(AsprintfSafeTest, EveryCallGivesANewText)
{
    char* const first = asprintf_safe("a");
    char* const second = asprintf_safe("b");
    EXPECT_STREQ("a", first);
    EXPECT_STREQ("b", second);
    std::free(first);
    std::free(second);
}

TEST(AsprintfSafeTest, WithoutMemoryTheProcessEndsWithStatus1AndAReport)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const ChildResult result = runInChild([] {
        const support::MemoryFault fault(0);
        asprintf_safe("%s", "x");
        return 99;
    });
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
    EXPECT_EQ("Cannot allocate memory: Cannot allocate memory\nSystem error 12: Cannot allocate memory\n",
              result.err);
    EXPECT_EQ(result.err, result.out);
}
