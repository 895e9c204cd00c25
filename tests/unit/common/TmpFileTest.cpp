// TmpFile: creation, writing, replacing, and what is left behind.
#include "common/TmpFile.h"

#include "common/SystemError.h"
#include "support/Capture.h"
#include "support/Child.h"
#include "support/InterruptedPipe.h"
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
#include <iostream>
#include <new>
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

    /// The text of the filesystem_error with which replacing fails; nothing else may be thrown.
    std::string replacementFailure(TmpFile& tmp, const std::string& target)
    {
        try {
            tmp.replace(target, 0644);
        } catch (const zorvo::mail::FSError& e) {
            return std::string("FSError ") + e.what();
        } catch (const std::filesystem::filesystem_error& e) {
            return std::string("filesystem_error ") + e.what();
        }
        return "replaced";
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

TEST_F(TmpFileTest, FlushedLineIsInTheFileAtOnceInOneWrite)
{
    TmpFile tmp(prefix_, true);
    const int before = support::writesMade();
    tmp << "first" << std::endl << std::endl;
    EXPECT_EQ(2, support::writesMade() - before);
    EXPECT_EQ("first\n\n", support::readFile(tmp.path()));
    EXPECT_TRUE(tmp.good());
}

TEST_F(TmpFileTest, TextWrittenInPartsArrivesWhole)
{
    TmpFile tmp(prefix_, true);
    const support::ShortWrites shortly(3);
    tmp << "0123456789" << std::endl << std::string(5000, 'x') << std::endl;
    EXPECT_EQ("0123456789\n" + std::string(5000, 'x') + "\n", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, InterruptedWriteIsRepeated)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, EINTR, 3);
    tmp << "line" << std::endl;
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ("line\n", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, InterruptedWriteOfALongLineIsRepeated)
{
    TmpFile tmp(prefix_, true);
    const std::string line(100000, 'x');
    const LibcFault write(LibcCall::Write, EINTR, 3);
    const LibcFault writev(LibcCall::Writev, EINTR, 3);
    tmp << line << std::endl;
    EXPECT_TRUE(line + "\n" == support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, FailedWriteMakesTheStreamBadWithItsErrno)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    errno = 0;
    tmp << "line" << std::endl;
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(std::ios::badbit, tmp.rdstate());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, LinesAfterAFailedOneAreNotTried)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    tmp << "first" << std::endl;
    tmp << "second" << std::endl;
    EXPECT_TRUE(tmp.bad());
    EXPECT_EQ("", support::readFile(tmp.path()));
}

TEST_F(TmpFileTest, FailedWriteThrowsWhereAskedTo)
{
    TmpFile tmp(prefix_, true);
    tmp.exceptions(std::ios::badbit);
    const LibcFault fault(LibcCall::Write, ENOSPC, 1);
    EXPECT_THROW(tmp << "line" << std::endl, std::ios::failure);
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

TEST_F(TmpFileTest, MovedAwayFileIsNotAFailureOfAutoclean)
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

TEST_F(TmpFileTest, FailedRemovalIsReportedOnStandardErrorOnly)
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

TEST_F(TmpFileTest, InterruptedReportOfAFailedRemovalIsWhole)
{
    const support::ChildResult result = support::runInChild([this] {
        support::InterruptedPipe err(STDERR_FILENO);
        {
            const TmpFile tmp(prefix_, true);
            std::filesystem::remove(tmp.path());
            std::filesystem::create_directory(tmp.path());
        }
        std::cout << err.text();
        return 0;
    });
    EXPECT_EQ("TmpFile autoclean failed: Is a directory\n", result.out);
}

TEST_F(TmpFileTest, WithoutAutocleanNothingIsRemovedOrReported)
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

// Each allocation in turn is the one that fails.
TEST_F(TmpFileTest, WithoutMemoryNeitherAFileNorADescriptorIsLeft)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const auto before = openFds();
    int failures = 0;
    for (bool made = false; !made; ++failures) {
        SCOPED_TRACE(failures);
        ASSERT_GT(100, failures);
        try {
            const support::MemoryFault fault(failures);
            const TmpFile tmp(prefix_, true);
            made = true;
        } catch (const std::bad_alloc&) {
        } catch (const zorvo::SystemError& e) {
            EXPECT_STREQ("mkstemp() failed: : Cannot allocate memory", e.what());
        }
        EXPECT_THAT(scratch_.names(), IsEmpty());
        EXPECT_EQ(before, openFds());
    }
    EXPECT_LT(2, failures);
}

// ---- replacing a target ----------------------------------------------------------------------------------

TEST_F(TmpFileTest, TargetIsUntouchedWhenTheFileIsNotMadeToReplaceIt)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        tmp << "new" << std::flush;
    }
    EXPECT_EQ("old", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, ReplacedTargetHasTheTextThatWasStillBuffered)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        tmp << "new";
        tmp.replace(prefix_, 0644);
        EXPECT_EQ("new", support::readFile(prefix_));
    }
    EXPECT_EQ("new", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, ReplacedTargetNeedNotExist)
{
    TmpFile tmp(prefix_, true);
    tmp << "new";
    tmp.replace(prefix_, 0644);
    EXPECT_EQ("new", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, ReplacedTargetHasTheModeWhateverTheUmaskOrItsOwn)
{
    support::writeFile(prefix_, "old");
    std::filesystem::permissions(prefix_, std::filesystem::perms::owner_read);
    const mode_t old = ::umask(077);
    TmpFile tmp(prefix_, true);
    tmp.replace(prefix_, 0646);
    ::umask(old);
    EXPECT_EQ(0646U, support::modeOf(prefix_));
}

TEST_F(TmpFileTest, ReplacingClosesTheDescriptor)
{
    const auto before = openFds();
    TmpFile tmp(prefix_, true);
    tmp.replace(prefix_, 0644);
    EXPECT_EQ(before, openFds());
}

TEST_F(TmpFileTest, NothingCanBeWrittenAfterReplacing)
{
    TmpFile tmp(prefix_, true);
    tmp.replace(prefix_, 0644);
    EXPECT_THROW(tmp << "text" << std::flush, std::ios::failure);
    EXPECT_EQ("", support::readFile(prefix_));
}

// Another file may have got the name by the time the destructor runs.
TEST_F(TmpFileTest, AfterReplacingTheDestructorRemovesNothing)
{
    std::string path;
    {
        TmpFile tmp(prefix_, true);
        tmp.replace(prefix_, 0644);
        path = tmp.path();
        support::writeFile(path, "another");
    }
    EXPECT_EQ("another", support::readFile(path));
}

TEST_F(TmpFileTest, InterruptedFsyncIsRepeated)
{
    TmpFile tmp(prefix_, true);
    const LibcFault fault(LibcCall::Fsync, EINTR, 3);
    tmp.replace(prefix_, 0644);
    EXPECT_EQ(0, fault.left());
}

TEST_F(TmpFileTest, FailedFsyncIsNamedAndTheFileRemoved)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        const LibcFault fault(LibcCall::Fsync, EIO, 1);
        EXPECT_EQ("filesystem_error filesystem error: fsync: Input/output error [" + tmp.path() + "]",
                  replacementFailure(tmp, prefix_));
    }
    EXPECT_EQ("old", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, FailedRenameIsNamedAndTheFileRemovedAtOnce)
{
    std::filesystem::create_directory(prefix_);
    TmpFile tmp(prefix_, false);
    EXPECT_EQ("FSError filesystem error: rename for " + prefix_ + " (" + tmp.path() + "): Is a directory [" +
                  tmp.path() + "]",
              replacementFailure(tmp, prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, FailedRenameHasItsErrno)
{
    TmpFile tmp(prefix_, true);
    try {
        tmp.replace(scratch_.file("missing/main.cf"), 0644);
        FAIL() << "expected FSError";
    } catch (const zorvo::mail::FSError& e) {
        EXPECT_EQ(std::error_code(ENOENT, std::system_category()), e.code());
        EXPECT_EQ(tmp.path(), e.path1());
    }
}

// The text is small enough to be written by replace() only.
TEST_F(TmpFileTest, FailedWriteOnReplacingIsTheFailureOfTheStream)
{
    support::writeFile(prefix_, "old");
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp << std::string(100, 'x');
        try {
            tmp.replace(prefix_, 0644);
        } catch (const std::ios::failure&) {
            return tmp.bad() ? 0 : 1;
        }
        return 2;
    });
    EXPECT_TRUE(result.exitedWith(0)) << result.status;
    EXPECT_EQ("old", support::readFile(prefix_));
    EXPECT_THAT(scratch_.names(), testing::ElementsAre("main.cf"));
}

TEST_F(TmpFileTest, StreamThatHasFailedDoesNotReplaceItsTarget)
{
    support::writeFile(prefix_, "old");
    {
        TmpFile tmp(prefix_, true);
        {
            const LibcFault fault(LibcCall::Write, ENOSPC, 1);
            tmp << "first" << std::endl;
        }
        tmp << "second" << std::endl;
        EXPECT_THROW(tmp.replace(prefix_, 0644), std::ios::failure);
    }
    EXPECT_EQ("old", support::readFile(prefix_));
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

TEST_F(TmpFileTest, FailedWriteInTheDestructorDoesNotThrowWhateverExceptionsAskFor)
{
    const support::ChildResult result = support::runInChild([this] {
        limitFileSize(10);
        TmpFile tmp(prefix_, true);
        tmp.exceptions(std::ios::badbit | std::ios::failbit);
        tmp << std::string(100, 'x');
        return 0;
    });
    EXPECT_TRUE(result.exitedWith(0)) << result.status;
    EXPECT_THAT(scratch_.names(), IsEmpty());
}

TEST_F(TmpFileTest, FailedCloseInTheDestructorDoesNotThrowWhateverExceptionsAskFor)
{
    {
        TmpFile tmp(prefix_, true);
        tmp.exceptions(std::ios::badbit | std::ios::failbit);
        ::close(descriptorOf(tmp.path()));
    }
    EXPECT_THAT(scratch_.names(), IsEmpty());
}
