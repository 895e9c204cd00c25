// AutocleanOFStream: a file that is removed with its stream.
#include "common/AutocleanOFStream.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <type_traits>

using support::Capture;
using support::openFds;
using support::ScratchDir;
using testing::IsEmpty;
using zorvo::AutocleanOFStream;

namespace {

class AutocleanOFStreamTest : public testing::Test {
protected:
    ScratchDir scratch_;
    std::string file_ = scratch_.file("records");
};

} // namespace

TEST_F(AutocleanOFStreamTest, CreatesItsFile)
{
    const AutocleanOFStream stream(file_);
    EXPECT_TRUE(stream.is_open());
    EXPECT_EQ("", support::readFile(file_));
}

TEST_F(AutocleanOFStreamTest, TruncatesAnExistingFile)
{
    support::writeFile(file_, "old content");
    const AutocleanOFStream stream(file_);
    EXPECT_EQ("", support::readFile(file_));
}

TEST_F(AutocleanOFStreamTest, WrittenTextIsInTheFileAfterAFlush)
{
    AutocleanOFStream stream(file_);
    stream << "key value\n" << std::flush;
    EXPECT_EQ("key value\n", support::readFile(file_));
}

TEST_F(AutocleanOFStreamTest, WrittenTextIsInTheFileAfterClose)
{
    AutocleanOFStream stream(file_);
    stream << "key value\n";
    stream.close();
    EXPECT_EQ("key value\n", support::readFile(file_));
}

TEST_F(AutocleanOFStreamTest, DestructorRemovesTheFile)
{
    {
        AutocleanOFStream stream(file_);
        stream << "text";
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, DestructorRemovesAFileThatWasThereBefore)
{
    support::writeFile(file_, "old content");
    {
        const AutocleanOFStream stream(file_);
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, DestructorRemovesAClosedFile)
{
    {
        AutocleanOFStream stream(file_);
        stream.close();
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, FileIsRemovedWhenAnExceptionLeavesTheScope)
{
    try {
        const AutocleanOFStream stream(file_);
        throw 1;
    } catch (int) {
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, RenamedFileStaysWithItsContent)
{
    {
        AutocleanOFStream stream(file_);
        stream << "text" << std::flush;
        std::filesystem::rename(file_, file_ + ".kept");
    }
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("records.kept"));
    EXPECT_EQ("text", support::readFile(file_ + ".kept"));
}

TEST_F(AutocleanOFStreamTest, TextWrittenAfterARenameReachesTheRenamedFile)
{
    {
        AutocleanOFStream stream(file_);
        std::filesystem::rename(file_, file_ + ".kept");
        stream << "text";
    }
    EXPECT_EQ("text", support::readFile(file_ + ".kept"));
}

TEST_F(AutocleanOFStreamTest, DestructorKeepsErrno)
{
    {
        const AutocleanOFStream stream(file_);
        errno = EDOM;
    }
    EXPECT_EQ(EDOM, errno);
}

TEST_F(AutocleanOFStreamTest, DestructorKeepsErrnoWhenTheFileIsGone)
{
    {
        const AutocleanOFStream stream(file_);
        std::filesystem::remove(file_);
        errno = EDOM;
    }
    EXPECT_EQ(EDOM, errno);
}

TEST_F(AutocleanOFStreamTest, FailedRemovalIsSilent)
{
    Capture capture;
    {
        const AutocleanOFStream stream(file_);
        std::filesystem::remove(file_);
        std::filesystem::create_directory(file_);
    }
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(AutocleanOFStreamTest, LeavesNoDescriptor)
{
    const auto before = openFds();
    {
        AutocleanOFStream stream(file_);
        stream << "text";
    }
    EXPECT_EQ(before, openFds());
}

TEST_F(AutocleanOFStreamTest, CloseClosesTheDescriptor)
{
    const auto before = openFds();
    AutocleanOFStream stream(file_);
    stream.close();
    EXPECT_EQ(before, openFds());
}

TEST_F(AutocleanOFStreamTest, MissingDirectoryLeavesTheFailState)
{
    Capture capture;
    const AutocleanOFStream stream(scratch_.file("missing/records"));
    EXPECT_EQ("", capture.err() + capture.out());
    EXPECT_TRUE(stream.fail());
    EXPECT_FALSE(stream.is_open());
}

TEST_F(AutocleanOFStreamTest, ReadOnlyDirectoryLeavesTheFailState)
{
    ASSERT_EQ(0, ::chmod(scratch_.path().c_str(), 0555));
    const support::ChildResult result = support::runInChild([this] {
        if (::setresuid(65534, 65534, 65534) != 0) // root writes everywhere
            return 90;
        const AutocleanOFStream stream(file_);
        return stream.fail() ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err + result.out);
}

TEST_F(AutocleanOFStreamTest, DestructorOfAFailedStreamDoesNotThrow)
{
    EXPECT_NO_THROW({ const AutocleanOFStream stream(scratch_.file("missing/records")); });
    EXPECT_TRUE(std::is_nothrow_destructible_v<AutocleanOFStream>);
}

TEST_F(AutocleanOFStreamTest, WritingToAFailedStreamCreatesNothing)
{
    {
        AutocleanOFStream stream(scratch_.file("missing/records"));
        stream << "text" << std::flush;
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

// A symbolic link to /dev/full plays the full disk; the link itself is removed.
TEST_F(AutocleanOFStreamTest, CloseOnAFullDiskSetsFailbit)
{
    std::filesystem::create_symlink("/dev/full", file_);
    AutocleanOFStream stream(file_);
    stream << "text";
    ASSERT_TRUE(stream.good());
    stream.close();
    EXPECT_TRUE(stream.fail());
}

TEST_F(AutocleanOFStreamTest, CloseOnAFullDiskThrowsWhereExceptionsAreAskedFor)
{
    std::filesystem::create_symlink("/dev/full", file_);
    AutocleanOFStream stream(file_);
    stream.exceptions(std::ios::failbit);
    stream << "text";
    EXPECT_THROW(stream.close(), std::ios::failure);
}

TEST_F(AutocleanOFStreamTest, CloseOnAFullDiskLeavesNoDescriptor)
{
    std::filesystem::create_symlink("/dev/full", file_);
    const auto before = openFds();
    AutocleanOFStream stream(file_);
    stream << "text";
    stream.close();
    EXPECT_EQ(before, openFds());
}

TEST_F(AutocleanOFStreamTest, FailedWriteInTheDestructorDoesNotThrowWhateverExceptionsAskFor)
{
    std::filesystem::create_symlink("/dev/full", file_);
    const auto before = openFds();
    {
        AutocleanOFStream stream(file_);
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        stream << "text";
    }
    EXPECT_EQ(before, openFds());
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, FailedCloseInTheDestructorDoesNotThrowWhateverExceptionsAskFor)
{
    {
        AutocleanOFStream stream(file_);
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        for (const auto& open : openFds())
            if (open.second == file_)
                ::close(open.first);
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(AutocleanOFStreamTest, SecondCloseSetsFailbit)
{
    AutocleanOFStream stream(file_);
    stream.close();
    stream.close();
    EXPECT_TRUE(stream.fail());
}

// Opening a FIFO blocks until there is a reader: the handler of the third signal opens it for reading.
TEST_F(AutocleanOFStreamTest, InterruptedOpenIsRepeated)
{
    ASSERT_EQ(0, ::mkfifo(file_.c_str(), 0600));
    const support::ChildResult result = support::runInChild([this] {
        static const char* fifo;
        static int signals;
        fifo = file_.c_str();
        struct sigaction action = {};
        action.sa_handler = [](int) {
            if (++signals == 3)
                (void)::open(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        };
        const itimerval often{{0, 200}, {0, 200}};
        if (::sigaction(SIGALRM, &action, nullptr) != 0 || ::setitimer(ITIMER_REAL, &often, nullptr) != 0)
            return 90;
        const AutocleanOFStream stream(file_);
        return signals >= 3 && stream.good() && stream.is_open() ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0)) << result.status;
}

// It would be repeated forever.
TEST_F(AutocleanOFStreamTest, OpenThatFailsOtherwiseIsNotRepeated)
{
    errno = EINTR;
    const AutocleanOFStream stream(scratch_.file("missing/file"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(std::ios::failbit, stream.rdstate());
    EXPECT_FALSE(stream.is_open());
}
