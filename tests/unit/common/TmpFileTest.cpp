// TmpFile: creation, writing, keeping, and what is left behind.
#include "common/TmpFile.h"

#include "common/SystemError.h"
#include "support/Capture.h"
#include "support/Child.h"
#include "support/LibcFaults.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

using support::Capture;
using support::LibcCall;
using support::LibcFault;
using support::openFds;
using support::ScratchDir;
using testing::IsEmpty;
using testing::MatchesRegex;
using zorvo::TmpFile;

namespace {

class TmpFileTest : public testing::Test {
protected:
    /// The descriptor that is open on `path`; -1 when none is.
    static int descriptorOf(const std::string& path)
    {
        for (const auto& open : openFds())
            if (open.second == path)
                return open.first;
        return -1;
    }

    /// In a child: no file may grow beyond `size` bytes.
    static void limitFileSize(unsigned long size)
    {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{size, size};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            ::_exit(90);
    }

    static void writeLines(TmpFile& tmp, const std::list<std::string>& lines)
    {
        tmp.writeLines(lines.begin(), lines.end());
    }

    ScratchDir scratch_;
    std::string prefix_ = scratch_.file("main.cf");
};

} // namespace

TEST_F(TmpFileTest, PathIsThePrefixAndSixCharacters)
{
    const TmpFile tmp(prefix_, true);
    EXPECT_THAT(tmp.path(), MatchesRegex(prefix_ + "[0-9A-Za-z]{6}"));
}

TEST_F(TmpFileTest, FileExistsFromConstruction)
{
    const TmpFile tmp(prefix_, true);
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, ModeIs0600WhateverTheUmask)
{
    const mode_t old = ::umask(0);
    const TmpFile tmp(prefix_, true);
    ::umask(old);
    EXPECT_EQ(0600U, support::modeOf(tmp.path()));
}

TEST_F(TmpFileTest, DescriptorIsClosedOnExec)
{
    const TmpFile tmp(prefix_, true);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(descriptorOf(tmp.path()), F_GETFD));
}

TEST_F(TmpFileTest, SamePrefixGivesDistinctFiles)
{
    const TmpFile first(prefix_, true);
    const TmpFile second(prefix_, true);
    EXPECT_NE(first.path(), second.path());
    EXPECT_EQ(2U, scratch_.names().size());
}

TEST_F(TmpFileTest, WrittenTextIsInTheFileAfterAFlush)
{
    TmpFile tmp(prefix_, true);
    tmp << "text " << 5 << std::flush;
    EXPECT_EQ("text 5", support::readFile(tmp.path()));
}

// One character at a time: the library passes large blocks on without buffering them.
TEST_F(TmpFileTest, WrittenTextIsBufferedBeforeTheFlush)
{
    TmpFile tmp(prefix_, true);
    for (int i = 0; i < 2000; ++i)
        tmp.put('x');
    EXPECT_EQ(0U, std::filesystem::file_size(tmp.path()));
}

TEST_F(TmpFileTest, BufferHoldsAtMost2048Bytes)
{
    TmpFile tmp(prefix_, true);
    for (int i = 0; i < 2049; ++i)
        tmp.put('x');
    EXPECT_NE(0U, std::filesystem::file_size(tmp.path()));
}

TEST_F(TmpFileTest, EachLineIsInTheFileAtOnceWithALineFeedInOneWrite)
{
    TmpFile tmp(prefix_, true);
    const int before = support::writesMade();
    writeLines(tmp, {"first", "", std::string(10000, 'x')});
    EXPECT_EQ(3, support::writesMade() - before);
    EXPECT_EQ("first\n\n" + std::string(10000, 'x') + "\n", support::readFile(tmp.path()));
    EXPECT_TRUE(tmp.good());
}

TEST_F(TmpFileTest, LineComesBehindWhatWasInsertedBefore)
{
    TmpFile tmp(prefix_, true);
    tmp << "one ";
    writeLines(tmp, {"two"});
    tmp << "three" << std::flush;
    EXPECT_EQ("one two\nthree", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, LineWrittenInPartsArrivesWhole)
{
    TmpFile tmp(prefix_, true);
    const support::ShortWrites shortly(3);
    writeLines(tmp, {"0123456789"});
    EXPECT_EQ("0123456789\n", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, InterruptedLineIsRepeated)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, EINTR, 3);
    writeLines(tmp, {"line"});
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ("line\n", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, FailedLineMakesTheStreamBadWithItsErrno)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    errno = 0;
    writeLines(tmp, {"line"});
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(std::ios::badbit, tmp.rdstate());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, LinesBehindAFailedOneAreNotTried)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    writeLines(tmp, {"first", "second"});
    EXPECT_TRUE(tmp.bad());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, NoLinesWriteNothing)
{
    TmpFile tmp(prefix_, true);
    const int before = support::writesMade();
    writeLines(tmp, {});
    EXPECT_EQ(0, support::writesMade() - before);
    EXPECT_TRUE(tmp.good());
}

TEST_F(TmpFileTest, FailedLineThrowsWhereAskedTo)
{
    TmpFile tmp(prefix_, true);
    tmp.exceptions(std::ios::badbit);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    EXPECT_THROW(writeLines(tmp, {"line"}), std::ios::failure);
}

TEST_F(TmpFileTest, FailedWriteOfWhatWasInsertedBeforeIsAFailureOfTheLine)
{
    TmpFile tmp(prefix_, true);
    tmp << "before";
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    writeLines(tmp, {"line"});
    EXPECT_TRUE(tmp.bad());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, NoLineIsWrittenToAStreamThatHasFailed)
{
    TmpFile tmp(prefix_, true);
    tmp.setstate(std::ios::failbit);
    writeLines(tmp, {"line"});
    EXPECT_EQ(std::ios::failbit, tmp.rdstate());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, DestructorWritesWhatIsBuffered)
{
    std::string path;
    {
        TmpFile tmp(prefix_, false);
        tmp << "text";
        path = tmp.path();
    }
    EXPECT_EQ("text", support::readFile(path));
}

TEST_F(TmpFileTest, TextLargerThanTheBufferArrivesWhole)
{
    std::string text;
    for (int i = 0; i < 20000; ++i)
        text += static_cast<char>(i);
    std::string path;
    {
        TmpFile tmp(prefix_, false);
        tmp << text;
        path = tmp.path();
    }
    EXPECT_EQ(text, support::readFile(path));
}

TEST_F(TmpFileTest, DestructorRemovesTheFileWithAutoclean)
{
    {
        TmpFile tmp(prefix_, true);
        tmp << "text";
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(TmpFileTest, DestructorLeavesTheFileWithoutAutoclean)
{
    std::string path;
    {
        const TmpFile tmp(prefix_, false);
        path = tmp.path();
    }
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(TmpFileTest, FileIsRemovedWhenAnExceptionLeavesTheScope)
{
    try {
        TmpFile tmp(prefix_, true);
        throw 1;
    } catch (int) {
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(TmpFileTest, LeavesNoDescriptor)
{
    const auto before = openFds();
    {
        TmpFile removed(prefix_, true);
        TmpFile left(prefix_, false);
    }
    EXPECT_EQ(before, openFds());
}

TEST_F(TmpFileTest, MovedAwayFileIsNoFailureOfAutoclean)
{
    Capture capture;
    {
        const TmpFile tmp(prefix_, true);
        std::filesystem::rename(tmp.path(), prefix_);
    }
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(TmpFileTest, MovedAwayFileStays)
{
    {
        TmpFile tmp(prefix_, true);
        tmp << "text" << std::flush;
        std::filesystem::rename(tmp.path(), prefix_);
    }
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
    EXPECT_EQ("text", support::readFile(prefix_));
}

TEST_F(TmpFileTest, FailedRemovalIsSaidOnStandardErrorOnly)
{
    Capture capture;
    {
        const TmpFile tmp(prefix_, true);
        std::filesystem::remove(tmp.path());
        std::filesystem::create_directory(tmp.path()); // cannot be unlinked
    }
    const std::string err = capture.err();
    const std::string out = capture.out();
    EXPECT_EQ("TmpFile autoclean failed: Is a directory\n", err);
    EXPECT_EQ("", out);
}

TEST_F(TmpFileTest, FailedRemovalWithoutAutocleanCannotHappen)
{
    Capture capture;
    {
        const TmpFile tmp(prefix_, false);
        std::filesystem::remove(tmp.path());
        std::filesystem::create_directory(tmp.path());
    }
    EXPECT_EQ("", capture.err() + capture.out());
}

TEST_F(TmpFileTest, DestructorIsNoexcept)
{
    EXPECT_TRUE(std::is_nothrow_destructible_v<TmpFile>);
}

TEST_F(TmpFileTest, KeptFileStays)
{
    std::string path;
    {
        TmpFile tmp(prefix_, true);
        tmp << "text";
        tmp.keep();
        path = tmp.path();
    }
    EXPECT_EQ("text", support::readFile(path));
}

// ---- creation failures -----------------------------------------------------------------------------------

TEST_F(TmpFileTest, MissingDirectoryThrowsTheTypedErrorOfENOENT)
{
    EXPECT_THROW(TmpFile(scratch_.file("missing/main.cf"), true), zorvo::ExSystemError<ENOENT>);
}

TEST_F(TmpFileTest, MissingDirectoryKeepsTheColonOfTheLabel)
{
    try {
        const TmpFile tmp(scratch_.file("missing/main.cf"), true);
        FAIL() << "expected an exception";
    } catch (const zorvo::SystemError& e) {
        EXPECT_STREQ("mkstemp() failed: : No such file or directory", e.what());
        EXPECT_EQ(ENOENT, e.code());
    }
}

TEST_F(TmpFileTest, FileInPlaceOfTheDirectoryThrowsAPlainSystemError)
{
    support::writeFile(prefix_, "");
    try {
        const TmpFile tmp(prefix_ + "/main.cf", true);
        FAIL() << "expected an exception";
    } catch (const zorvo::SystemError& e) {
        EXPECT_EQ(typeid(zorvo::SystemError), typeid(e));
        EXPECT_STREQ("mkstemp() failed: : Not a directory", e.what());
    }
}

TEST_F(TmpFileTest, FailedCreationLeavesNoDescriptor)
{
    const auto before = openFds();
    EXPECT_THROW(TmpFile(scratch_.file("missing/main.cf"), true), zorvo::SystemError);
    EXPECT_EQ(before, openFds());
}

TEST_F(TmpFileTest, FailedCreationPrintsNothing)
{
    Capture capture;
    EXPECT_THROW(TmpFile(scratch_.file("missing/main.cf"), true), zorvo::SystemError);
    EXPECT_EQ("", capture.err() + capture.out());
}

// mkstemp(3) may have changed the template of a call that failed.
TEST_F(TmpFileTest, InterruptedCreationIsRepeatedWithAFreshTemplate)
{
    const LibcFault fault(LibcCall::Mkstemp, EINTR, 3);
    const TmpFile tmp(prefix_, true);
    EXPECT_EQ(0, fault.left());
    EXPECT_TRUE(std::filesystem::exists(tmp.path()));
    EXPECT_THAT(tmp.path(), MatchesRegex(prefix_ + "[0-9A-Za-z]{6}"));
}

// ---- mode, disk, closing ---------------------------------------------------------------------------------

TEST_F(TmpFileTest, ChmodSetsTheMode)
{
    TmpFile tmp(prefix_, true);
    EXPECT_EQ(0, tmp.chmod(0644));
    EXPECT_EQ(0644U, support::modeOf(tmp.path()));
}

TEST_F(TmpFileTest, ChmodIsNotSubjectToTheUmask)
{
    const mode_t old = ::umask(077);
    TmpFile tmp(prefix_, true);
    tmp.chmod(0666);
    ::umask(old);
    EXPECT_EQ(0666U, support::modeOf(tmp.path()));
}

TEST_F(TmpFileTest, ChmodChangesTheFileAlsoAfterARename)
{
    TmpFile tmp(prefix_, true);
    std::filesystem::rename(tmp.path(), prefix_);
    EXPECT_EQ(0, tmp.chmod(0640));
    EXPECT_EQ(0640U, support::modeOf(prefix_));
}

TEST_F(TmpFileTest, SyncBringsTheBufferedTextIntoTheFile)
{
    TmpFile tmp(prefix_, true);
    tmp << "text";
    EXPECT_EQ(0, tmp.sync());
    EXPECT_EQ("text", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, SyncReportsAFailedFsync)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Fsync, EIO, 1);
    errno = 0;
    EXPECT_EQ(-1, tmp.sync());
    EXPECT_EQ(EIO, errno);
}

TEST_F(TmpFileTest, InterruptedFsyncIsRepeated)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Fsync, EINTR, 3);
    EXPECT_EQ(0, tmp.sync());
    EXPECT_EQ(0, fault.left());
}

TEST_F(TmpFileTest, SyncReportsAFailedWriteWithItsErrno)
{
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp << std::string(100, 'x');
        errno = 0;
        return tmp.sync() == -1 && errno == EFBIG ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
}

TEST_F(TmpFileTest, CloseBringsTheBufferedTextIntoTheFile)
{
    TmpFile tmp(prefix_, true);
    tmp << "text";
    EXPECT_EQ(0, tmp.close());
    EXPECT_EQ("text", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, CloseClosesTheDescriptor)
{
    const auto before = openFds();
    TmpFile tmp(prefix_, true);
    tmp.close();
    EXPECT_EQ(before, openFds());
}

TEST_F(TmpFileTest, CloseReportsAFailedWriteWithItsErrno)
{
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp << std::string(100, 'x');
        errno = 0;
        return tmp.close() == -1 && errno == EFBIG ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
}

TEST_F(TmpFileTest, NothingCanBeWrittenAfterClose)
{
    TmpFile tmp(prefix_, true);
    tmp.close();
    tmp << "text" << std::flush;
    EXPECT_FALSE(tmp.good());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, NoLineCanBeWrittenAfterClose)
{
    TmpFile tmp(prefix_, true);
    EXPECT_EQ(0, tmp.close());
    errno = 0;
    writeLines(tmp, {"line"});
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(std::ios::badbit, tmp.rdstate());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, ClosedFileIsStillRemoved)
{
    {
        TmpFile tmp(prefix_, true);
        tmp.close();
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(TmpFileTest, ChmodAfterCloseFails)
{
    TmpFile tmp(prefix_, true);
    tmp.close();
    errno = 0;
    EXPECT_EQ(-1, tmp.chmod(0644));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(TmpFileTest, SyncAfterCloseFails)
{
    TmpFile tmp(prefix_, true);
    tmp.close();
    EXPECT_EQ(-1, tmp.sync());
}

// The sequence of a file that is replaced: nothing of the target is lost before the rename.
TEST_F(TmpFileTest, TargetIsUntouchedUntilTheRename)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        tmp << "new" << std::flush;
    }
    EXPECT_EQ("old", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, KeptClosedAndRenamedFileReplacesTheTarget)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        tmp << "new";
        tmp.chmod(0644);
        ASSERT_EQ(0, tmp.sync());
        tmp.keep();
        ASSERT_EQ(0, tmp.close());
        std::filesystem::rename(tmp.path(), prefix_);
    }
    EXPECT_EQ("new", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, FailedWriteShowsInTheStreamState)
{
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp << std::string(100, 'x') << std::flush;
        return tmp.bad() ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
}

TEST_F(TmpFileTest, FailedWriteInTheDestructorIsSilent)
{
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp << std::string(100, 'x');
        return 0;
    });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err + result.out);
}
