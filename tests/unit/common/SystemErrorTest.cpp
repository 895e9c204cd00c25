// The exception family: SystemError, its typed variants and throwSystemError, ZorvoUtilException, FSError.
#include "common/SystemError.h"

#include "support/LibcFaults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

using zorvo::ExSystemError;
using zorvo::SystemError;
using zorvo::throwSystemError;
using zorvo::mail::FSError;

namespace {

/// What throwSystemError threw: its exact dynamic type, code and text.
struct Thrown {
    const std::type_info* type = &typeid(void);
    int code = -1;
    std::string text;
};

Thrown thrownBy(const std::string& message, int code)
{
    Thrown result;
    try {
        throwSystemError(message, code);
    } catch (const SystemError& e) {
        result.type = &typeid(e);
        result.code = e.code();
        result.text = e.what();
    }
    return result;
}

/// The library's own text for a file-system error, which FSError must not change.
std::string libraryText(const std::string& message, const std::filesystem::path& path, int code)
{
    return std::filesystem::filesystem_error(message, path, std::error_code(code, std::system_category()))
        .what();
}

} // namespace

TEST(SystemErrorTest, WhatIsMessageAndReason)
{
    const SystemError error("open failed", ENOENT);
    EXPECT_STREQ("open failed: No such file or directory", error.what());
}

TEST(SystemErrorTest, EmptyMessageLeavesOnlyTheReason)
{
    const SystemError error("", ENOENT);
    EXPECT_STREQ("No such file or directory", error.what());
}

TEST(SystemErrorTest, MessageThatEndsWithAColonKeepsIt)
{
    const SystemError error("mkstemp() failed: ", ENOENT);
    EXPECT_STREQ("mkstemp() failed: : No such file or directory", error.what());
}

TEST(SystemErrorTest, CodeIsKept)
{
    EXPECT_EQ(EACCES, SystemError("x", EACCES).code());
}

TEST(SystemErrorTest, CodeZeroTakesErrno)
{
    errno = ENOENT;
    const SystemError error("x", 0);
    EXPECT_EQ(ENOENT, error.code());
}

TEST(SystemErrorTest, GivenCodeIsTakenWhateverErrnoSays)
{
    errno = ENOENT;
    const SystemError error("x", EACCES);
    EXPECT_EQ(EACCES, error.code());
}

TEST(SystemErrorTest, CodeZeroWithoutErrnoIsSuccess)
{
    errno = 0;
    const SystemError error("x", 0);
    EXPECT_STREQ("x: Success", error.what());
}

TEST(SystemErrorTest, LaterErrnoDoesNotChangeTheText)
{
    errno = ENOENT;
    const SystemError error("x", 0);
    errno = EACCES;
    EXPECT_STREQ("x: No such file or directory", error.what());
}

TEST(SystemErrorTest, UnknownCodeHasTheLibrarysText)
{
    EXPECT_STREQ("x: Unknown error 9999", SystemError("x", 9999).what());
}

TEST(SystemErrorTest, SecondWhatGivesTheSamePointer)
{
    const SystemError error("x", ENOENT);
    EXPECT_EQ(error.what(), error.what());
}

TEST(SystemErrorTest, CopySaysTheSame)
{
    auto original = std::make_unique<SystemError>("open failed", EACCES);
    const SystemError copy = *original;
    original.reset();
    EXPECT_EQ(EACCES, copy.code());
    EXPECT_STREQ("open failed: Permission denied", copy.what());
}

TEST(SystemErrorTest, CopyMadeAfterWhatSaysTheSame)
{
    auto original = std::make_unique<SystemError>("open failed", EACCES);
    original->what();
    const SystemError copy = *original;
    original.reset();
    EXPECT_STREQ("open failed: Permission denied", copy.what());
}

TEST(SystemErrorTest, AssignmentReplacesTextAndCode)
{
    SystemError error("first", ENOENT);
    error.what();
    error = SystemError("second", EACCES);
    EXPECT_EQ(EACCES, error.code());
    EXPECT_STREQ("second: Permission denied", error.what());
}

TEST(SystemErrorTest, IsARuntimeError)
{
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, SystemError>));
}

TEST(SystemErrorTest, WithoutMemoryTheBareMessageIsGiven)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string message(1000, 'm');
    const SystemError error(message, ENOENT);
    const char* text = nullptr;
    {
        const support::MemoryFault fault(0, 1000);
        text = error.what();
    }
    EXPECT_EQ(message, text);
}

TEST(ExSystemErrorTest, HasItsNumberAsCode)
{
    EXPECT_EQ(EPERM, ExSystemError<EPERM>("x").code());
    EXPECT_EQ(ENOENT, ExSystemError<ENOENT>("x").code());
    EXPECT_EQ(EINTR, ExSystemError<EINTR>("x").code());
    EXPECT_EQ(ECHILD, ExSystemError<ECHILD>("x").code());
    EXPECT_EQ(EAGAIN, ExSystemError<EAGAIN>("x").code());
}

TEST(ExSystemErrorTest, TextIsThatOfASystemError)
{
    EXPECT_STREQ("x: Operation not permitted", ExSystemError<EPERM>("x").what());
}

TEST(ThrowSystemErrorTest, FiveCodesThrowTheirOwnTypes)
{
    EXPECT_EQ(typeid(ExSystemError<1>), *thrownBy("x", 1).type);
    EXPECT_EQ(typeid(ExSystemError<2>), *thrownBy("x", 2).type);
    EXPECT_EQ(typeid(ExSystemError<4>), *thrownBy("x", 4).type);
    EXPECT_EQ(typeid(ExSystemError<10>), *thrownBy("x", 10).type);
    EXPECT_EQ(typeid(ExSystemError<11>), *thrownBy("x", 11).type);
}

TEST(ThrowSystemErrorTest, TypedErrorsCarryMessageAndCode)
{
    for (const int code : {1, 2, 4, 10, 11}) {
        SCOPED_TRACE(code);
        const Thrown thrown = thrownBy("step", code);
        EXPECT_EQ(code, thrown.code);
        EXPECT_EQ(SystemError("step", code).what(), thrown.text);
    }
}

TEST(ThrowSystemErrorTest, TypedErrorIsCaughtByItsType)
{
    EXPECT_THROW(throwSystemError("x", 2), ExSystemError<2>);
}

TEST(ThrowSystemErrorTest, TypedErrorIsCaughtAsSystemError)
{
    EXPECT_THROW(throwSystemError("x", 2), SystemError);
}

TEST(ThrowSystemErrorTest, EveryOtherCodeThrowsAPlainSystemError)
{
    for (int code = 1; code < 140; ++code) {
        if (code == 1 || code == 2 || code == 4 || code == 10 || code == 11)
            continue;
        SCOPED_TRACE(code);
        EXPECT_EQ(typeid(SystemError), *thrownBy("x", code).type);
    }
}

TEST(ThrowSystemErrorTest, Code13ThrowsASystemErrorWithCode13)
{
    const Thrown thrown = thrownBy("x", 13);
    EXPECT_EQ(13, thrown.code);
    EXPECT_EQ("x: Permission denied", thrown.text);
}

TEST(ThrowSystemErrorTest, CodeZeroThrowsAPlainSystemErrorEvenForATypedErrno)
{
    errno = ENOENT;
    EXPECT_EQ(typeid(SystemError), *thrownBy("x", 0).type);
}

TEST(ThrowSystemErrorTest, CodeZeroTakesTextAndCodeFromErrno)
{
    errno = ENOENT;
    const Thrown thrown = thrownBy("x", 0);
    EXPECT_EQ(ENOENT, thrown.code);
    EXPECT_EQ("x: No such file or directory", thrown.text);
}

TEST(ZorvoUtilExceptionTest, WhatIsTheMessage)
{
    errno = ENOENT;
    EXPECT_STREQ("complete as it stands", zorvo::ZorvoUtilException("complete as it stands").what());
}

TEST(ZorvoUtilExceptionTest, IsARuntimeError)
{
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, zorvo::ZorvoUtilException>));
}

TEST(FSErrorTest, MessageNamesOperationTargetAndPath)
{
    const FSError error("rename", "/etc/postfix/master.cfAbCdEf", "/etc/postfix/master.cf", ENOENT);
    EXPECT_EQ(libraryText("rename for /etc/postfix/master.cf (/etc/postfix/master.cfAbCdEf)",
                          "/etc/postfix/master.cfAbCdEf", ENOENT),
              error.what());
}

TEST(FSErrorTest, WhatIsTheWholeText)
{
    const FSError error("rename", "/a/tmp", "/a/target", EXDEV);
    EXPECT_STREQ("filesystem error: rename for /a/target (/a/tmp): Invalid cross-device link [/a/tmp]",
                 error.what());
}

TEST(FSErrorTest, PathIsWrittenWithoutQuotesOrEscapes)
{
    const FSError error("chmod", "/a dir/\"tmp\"", "t", EPERM);
    EXPECT_EQ(libraryText("chmod for t (/a dir/\"tmp\")", "/a dir/\"tmp\"", EPERM), error.what());
}

TEST(FSErrorTest, CodeIsASystemError)
{
    const FSError error("rename", "/a/tmp", "/a/target", EXDEV);
    EXPECT_EQ(std::error_code(EXDEV, std::system_category()), error.code());
}

TEST(FSErrorTest, CodeZeroBecomesECANCELED)
{
    errno = ENOENT;
    const FSError error("rename", "/a/tmp", "/a/target", 0);
    EXPECT_EQ(std::error_code(125, std::system_category()), error.code());
}

TEST(FSErrorTest, PathIsTheFirstPath)
{
    const FSError error("rename", "/a/tmp", "/a/target", EXDEV);
    EXPECT_EQ("/a/tmp", error.path1());
}

TEST(FSErrorTest, ThereIsNoSecondPath)
{
    const FSError error("rename", "/a/tmp", "/a/target", EXDEV);
    EXPECT_EQ("", error.path2());
}

TEST(FSErrorTest, IsCaughtAsFilesystemError)
{
    EXPECT_THROW(throw FSError("rename", "/a/tmp", "/a/target", EXDEV), std::filesystem::filesystem_error);
}

TEST(FSErrorTest, CopySaysTheSame)
{
    const FSError error("rename", "/a/tmp", "/a/target", EXDEV);
    const FSError copy = error;
    EXPECT_STREQ(error.what(), copy.what());
    EXPECT_EQ(error.code(), copy.code());
    EXPECT_EQ(error.path1(), copy.path1());
}
