// writeText: one text in pieces, whole and at once, and silence about every failure.
#include "common/writeText.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/LibcFaults.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <string>

using support::Capture;
using support::LibcCall;
using support::LibcFault;
using zorvo::writeFormatted;
using zorvo::writeText;

namespace {

std::string formatted(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const zorvo::FormattedText text(format, args);
    va_end(args);
    return std::string(text.view());
}

} // namespace

TEST(WriteTextTest, PiecesStandBehindEachOther)
{
    Capture capture;
    writeText(stderr, {"a", "", "bc", "\n"});
    EXPECT_EQ("abc\n", capture.err());
}

TEST(WriteTextTest, OtherStreamGetsNothing)
{
    Capture capture;
    writeText(stderr, {"a"});
    EXPECT_EQ("", capture.out());
}

TEST(WriteTextTest, NothingIsLeftInTheBufferOfStdio)
{
    const support::ChildResult result = support::runInChild([] {
        writeText(stdout, {"a"});
        ::_exit(0);
        return 1;
    });
    EXPECT_EQ("a", result.out);
}

TEST(WriteTextTest, InterruptedWriteIsRepeated)
{
    Capture capture;
    {
        const LibcFault fault(LibcCall::Writev, EINTR, 3);
        writeText(stderr, {"a", "b"});
    }
    EXPECT_EQ("ab", capture.err());
}

TEST(WriteTextTest, ShortWritesAreContinued)
{
    Capture capture;
    {
        const support::ShortWrites fault(3);
        writeText(stderr, {"abcd", "", "efghijk", "l"});
    }
    EXPECT_EQ("abcdefghijkl", capture.err());
}

TEST(WriteTextTest, FailedWriteIsGivenUp)
{
    Capture capture;
    {
        const LibcFault fault(LibcCall::Writev, EIO, 1);
        writeText(stderr, {"a"});
    }
    EXPECT_EQ("", capture.err());
}

TEST(WriteTextTest, FailedWriteKeepsErrno)
{
    const LibcFault fault(LibcCall::Writev, EIO, 1);
    errno = EDOM;
    writeText(stderr, {"a"});
    EXPECT_EQ(EDOM, errno);
}

TEST(WriteTextTest, StreamWithoutADescriptorGetsTheTextToo)
{
    char* text = nullptr;
    size_t size = 0;
    std::FILE* const stream = ::open_memstream(&text, &size);
    writeText(stream, {"a", "b"});
    EXPECT_EQ("ab", std::string(text, size));
    std::fclose(stream);
    std::free(text);
}

TEST(WriteFormattedTest, FormatsAndWrites)
{
    Capture capture;
    writeFormatted(stderr, "%s-%d", "a", 5);
    EXPECT_EQ("a-5", capture.err());
}

TEST(FormattedTextTest, TextsAroundTheSmallBufferAreWhole)
{
    for (const size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string text(length, 't');
        EXPECT_TRUE(text == formatted("%s", text.c_str()));
    }
}

TEST(FormattedTextTest, KeepsErrnoAndShowsIt)
{
    errno = ENOENT;
    const std::string text = formatted("%m");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("No such file or directory", text);
}

TEST(FormattedTextTest, WithoutMemoryALongTextIsCutAt1023Characters)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string text(5000, 't');
    Capture capture;
    {
        const support::MemoryFault fault(0);
        writeFormatted(stderr, "%s", text.c_str());
    }
    EXPECT_EQ(std::string(1023, 't'), capture.err());
}
