// FSError: the composed message, the path and the code.
#include "common/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

using zorvo::mail::FSError;

namespace {

/// The library's own text for a file-system error, which FSError must not change.
std::string libraryText(const std::string& message, const std::filesystem::path& path, int code)
{
    return std::filesystem::filesystem_error(message, path, std::error_code(code, std::system_category()))
        .what();
}

} // namespace

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
