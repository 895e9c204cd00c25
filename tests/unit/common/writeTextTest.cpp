// writeText: one text in pieces, written completely and at once; failures are ignored.
#include "common/writeText.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/InterruptedPipe.h"
#include "support/LibcFaults.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

using support::Capture;
using support::LibcCall;
using support::LibcFault;
using zorvo::writeFormatted;
using zorvo::writeText;

TEST(WriteTextTest, PiecesStandOneAfterTheOther)
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

TEST(WriteFormattedTest, WithoutMemoryALongTextIsCutAt1023Characters)
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

TEST(WriteTextToStreamTest, PiecesReachTheDescriptorsAtOnce)
{
    const support::ChildResult result = support::runInChild([] {
        writeText(std::cout, {"a", "", "bc\n"});
        writeText(std::cerr, {"d", "ef\n"});
        writeText(std::clog, {"g"});
        ::_exit(0);
        return 1;
    });
    EXPECT_EQ("abc\n", result.out);
    EXPECT_EQ("def\ng", result.err);
}

TEST(WriteTextToStreamTest, TextComesAfterWhatTheStreamWasGivenBefore)
{
    const support::ChildResult result = support::runInChild([] {
        std::cout << "before\n";
        writeText(std::cout, {"text\n"});
        std::cout << "after\n";
        return 0;
    });
    EXPECT_EQ("before\ntext\nafter\n", result.out);
}

TEST(WriteTextToStreamTest, TiedStreamIsFlushedBefore)
{
    const support::ChildResult result = support::runInChild([] {
        std::cout << "for the tied stream";
        writeText(std::cerr, {"text"});
        ::_exit(0);
        return 1;
    });
    EXPECT_EQ("for the tied stream", result.out);
}

TEST(WriteTextToStreamTest, InterruptedWritesAreRepeated)
{
    const support::ChildResult result = support::runInChild([] {
        support::InterruptedPipe pipe(STDERR_FILENO);
        writeText(std::cerr, {"one", "\n"});
        writeText(std::clog, {"two", "\n"});
        std::cout << pipe.text();
        return 0;
    });
    EXPECT_EQ("one\ntwo\n", result.out);
}

TEST(WriteTextToStreamTest, StreamWithAnotherBufferGetsTheTextThere)
{
    std::ostringstream stream;
    writeText(stream, {"a", "b"});
    EXPECT_EQ("ab", stream.str());
}

TEST(WriteTextToStreamTest, StreamThatIsNotGoodGetsNothing)
{
    const support::ChildResult result = support::runInChild([] {
        std::cerr.setstate(std::ios::failbit);
        writeText(std::cerr, {"text"});
        return 0;
    });
    EXPECT_EQ("", result.err);
}
