// FormattedText: every growth, errno, and a text that is cut because there is no memory.
#include "common/FormattedText.h"

#include "support/LibcFaults.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <string>

using support::MemoryFault;
using zorvo::FormattedText;

namespace {

/// As text.append, without the compiler's check of the format: it does not know "%m".
void appendTo(FormattedText& text, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    text.vappend(format, args);
    va_end(args);
}

} // namespace

TEST(FormattedTextTest, IsEmptyAtFirst)
{
    const FormattedText text;
    EXPECT_EQ("", text.view());
    EXPECT_STREQ("", text.c_str());
}

TEST(FormattedTextTest, TextsAroundTheFirstBufferAreWhole)
{
    for (const size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string expected(length, 't');
        FormattedText text;
        text.append("%s", expected.c_str());
        EXPECT_TRUE(expected == text.view());
        EXPECT_TRUE(expected == text.c_str());
    }
}

TEST(FormattedTextTest, AppendedTextsStandOneAfterTheOther)
{
    std::string expected;
    FormattedText text;
    for (int i = 0; i < 2000; ++i) {
        expected += "line " + std::to_string(i) + "\n";
        text.append("line %d\n", i);
    }
    EXPECT_TRUE(expected == text.view());
}

TEST(FormattedTextTest, KeepsErrnoAndShowsIt)
{
    errno = ENOENT;
    FormattedText text;
    errno = EIO;
    appendTo(text, "%m, %2000s", "");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("No such file or directory, " + std::string(2000, ' '), text.view());
}

TEST(FormattedTextTest, ReservedSpaceIsEnough)
{
    if (!MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string expected(4095, 't');
    FormattedText text;
    ASSERT_TRUE(text.reserve(4096));
    {
        const MemoryFault fault(0);
        text.append("%s", expected.c_str());
    }
    EXPECT_TRUE(expected == text.view());
}

TEST(FormattedTextTest, WithoutMemoryNothingIsReservedAndTheTextStays)
{
    if (!MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    FormattedText text;
    text.append("text");
    bool reserved = true;
    {
        const MemoryFault fault(0);
        reserved = text.reserve(4096);
    }
    EXPECT_FALSE(reserved);
    EXPECT_EQ("text", text.view());
}

TEST(FormattedTextTest, WithoutMemoryALongTextIsCutAt1023Characters)
{
    if (!MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const std::string expected(5000, 't');
    FormattedText text;
    {
        const MemoryFault fault(0, 1000);
        text.append("%s", expected.c_str());
        text.append("more");
    }
    EXPECT_EQ(std::string(1023, 't'), text.view());
}
