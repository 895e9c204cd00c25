// uerr: what reaches standard error and standard output, and when.
#include "common/UtilityErrorStream.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/InterruptedPipe.h"
#include "support/LibcFaults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

using testing::ElementsAre;
using zorvo::UtilityErrorStream;
using zorvo::UtilityErrorStreamBuf;

namespace {

/// Sits in front of a standard stream and records every write and flush in a common list. Meanwhile
/// std::cerr is not tied to std::cout, which would be flushed before each character.
class Recorder : public std::streambuf {
public:
    Recorder(std::ostream& stream, const char* name, std::vector<std::string>& events)
        : stream_(stream),
          name_(name),
          events_(events),
          old_(stream.rdbuf(this)),
          tie_(stream.tie(nullptr)),
          flags_(stream.flags())
    {
        stream_ << std::nounitbuf;
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder() override
    {
        stream_.rdbuf(old_);
        stream_.flags(flags_);
        stream_.tie(tie_);
    }

protected:
    int_type overflow(int_type c) override
    {
        events_.push_back(name_ + ":" + traits_type::to_char_type(c));
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        events_.push_back(name_ + ":" + std::string(text, static_cast<size_t>(size)));
        return size;
    }
    int sync() override
    {
        events_.push_back(name_ + " flushed");
        return 0;
    }

private:
    std::ostream& stream_;
    std::string name_;
    std::vector<std::string>& events_;
    std::streambuf* old_;
    std::ostream* tie_;
    std::ios::fmtflags flags_;
};

class UtilityErrorStreamTest : public testing::Test {
protected:
    std::vector<std::string> events_;
    Recorder err_{std::cerr, "err", events_};
    Recorder out_{std::cout, "out", events_};
};

/// The buffer with its protected members made callable.
class OpenBuf : public UtilityErrorStreamBuf {
public:
    using std::streambuf::epptr;
    using std::streambuf::pbase;
    using UtilityErrorStreamBuf::overflow;
    using UtilityErrorStreamBuf::sync;
};

} // namespace

TEST_F(UtilityErrorStreamTest, TextWithoutFlushReachesStandardErrorOnly)
{
    UtilityErrorStream stream;
    stream << "ab";
    EXPECT_THAT(events_, ElementsAre("err:a", "err:b"));
}

TEST_F(UtilityErrorStreamTest, FlushSendsTheTextToStandardOutputAsOneBlockAfterStandardError)
{
    UtilityErrorStream stream;
    stream << "ab";
    stream.flush();
    EXPECT_THAT(events_, ElementsAre("err:a", "err:b", "err flushed", "out:ab", "out flushed"));
}

TEST_F(UtilityErrorStreamTest, EndlFlushes)
{
    UtilityErrorStream stream;
    stream << "a" << std::endl;
    EXPECT_THAT(events_, ElementsAre("err:a", "err:\n", "err flushed", "out:a\n", "out flushed"));
}

TEST_F(UtilityErrorStreamTest, SecondFlushSendsOnlyTheNewText)
{
    UtilityErrorStream stream;
    stream << "a" << std::flush;
    events_.clear();
    stream << "b" << std::flush;
    EXPECT_THAT(events_, ElementsAre("err:b", "err flushed", "out:b", "out flushed"));
}

TEST_F(UtilityErrorStreamTest, TwoStreamsKeepTheirTextsApart)
{
    UtilityErrorStream first;
    UtilityErrorStream second;
    first << "1";
    second << "2";
    events_.clear();
    first.flush();
    EXPECT_THAT(events_, ElementsAre("err flushed", "out:1", "out flushed"));
}

TEST_F(UtilityErrorStreamTest, OverflowWritesTheCharacterAtOnceAndReturnsIt)
{
    OpenBuf buffer;
    EXPECT_EQ('x', buffer.overflow('x'));
    EXPECT_THAT(events_, ElementsAre("err:x"));
}

TEST_F(UtilityErrorStreamTest, OverflowReturnsEofUnchangedAndWritesNothing)
{
    OpenBuf buffer;
    EXPECT_EQ(EOF, buffer.overflow(EOF));
    EXPECT_THAT(events_, ElementsAre());
}

TEST_F(UtilityErrorStreamTest, EofIsNotKeptForStandardOutput)
{
    OpenBuf buffer;
    buffer.overflow('x');
    buffer.overflow(EOF);
    events_.clear();
    buffer.sync();
    EXPECT_THAT(events_, ElementsAre("err flushed", "out:x", "out flushed"));
}

TEST_F(UtilityErrorStreamTest, SyncReturnsZero)
{
    OpenBuf buffer;
    buffer.overflow('x');
    EXPECT_EQ(0, buffer.sync());
}

TEST_F(UtilityErrorStreamTest, BufferHasNoPutArea)
{
    OpenBuf buffer;
    buffer.sputn("abc", 3);
    EXPECT_EQ(buffer.pbase(), buffer.epptr());
}

TEST_F(UtilityErrorStreamTest, EveryByteReachesBothStreams)
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    UtilityErrorStream stream;
    stream << all << std::flush;
    std::vector<std::string> expected;
    for (const char c : all)
        expected.push_back(std::string("err:") + c);
    expected.insert(expected.end(), {"err flushed", "out:" + all, "out flushed"});
    EXPECT_EQ(expected, events_);
}

TEST_F(UtilityErrorStreamTest, WithoutMemoryOnlyTheCopyOnStandardOutputIsCut)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string kept(std::string().capacity(), 'k');
    UtilityErrorStream stream;
    events_.reserve(100);
    {
        const support::MemoryFault fault(0, 1000);
        stream << kept << "lost";
    }
    stream << std::flush;
    EXPECT_TRUE(stream.good());
    std::vector<std::string> expected(kept.size(), "err:k");
    expected.insert(expected.end(),
                    {"err:l", "err:o", "err:s", "err:t", "err flushed", "out:" + kept, "out flushed"});
    EXPECT_EQ(expected, events_);
}

TEST(UerrTest, ReachesTheDescriptorsOfBothStreams)
{
    support::Capture capture;
    zorvo::uerr << "text" << std::endl;
    const std::string err = capture.err();
    const std::string out = capture.out();
    EXPECT_EQ("text\n", err);
    EXPECT_EQ("text\n", out);
}

TEST(UerrTest, UnflushedTextReachesTheDescriptorOfStandardErrorOnly)
{
    const support::ChildResult result = support::runInChild([] {
        zorvo::uerr << "text";
        ::_exit(0);
        return 1;
    });
    EXPECT_EQ("text", result.err);
    EXPECT_EQ("", result.out);
}

TEST(UerrTest, HasItsOwnBuffer)
{
    EXPECT_NE(nullptr, dynamic_cast<UtilityErrorStreamBuf*>(zorvo::uerr.rdbuf()));
}

TEST(UerrTest, InterruptedWritesToStandardErrorAreRepeated)
{
    const support::ChildResult result = support::runInChild([] {
        support::InterruptedPipe err(STDERR_FILENO);
        zorvo::uerr << "the whole report" << std::endl;
        std::cout << "standard error: " << err.text();
        return zorvo::uerr.good() && std::cerr.good() ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ("the whole report\nstandard error: the whole report\n", result.out);
}

TEST(UerrTest, InterruptedCopyOnStandardOutputIsWhole)
{
    const support::ChildResult result = support::runInChild([] {
        support::InterruptedPipe out(STDOUT_FILENO);
        zorvo::uerr << "the whole report" << std::endl;
        std::cerr << "standard output: " << out.text();
        return zorvo::uerr.good() && std::cout.good() ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ("the whole report\nstandard output: the whole report\n", result.err);
}
