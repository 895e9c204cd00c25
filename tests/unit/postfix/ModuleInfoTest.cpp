// ModuleInfo: the initial values of an entry, the words for the types, the canonical line.
#include "postfix/ModuleInfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using boost::logic::indeterminate;
using boost::logic::tribool;
using namespace zorvo::mail::postfix;

ModuleInfo smtpd()
{
    ModuleInfo info;
    info.name = "smtp";
    info.command = {"smtpd"};
    return info;
}

std::string lineWithWakeup(int32_t wakeup, bool ifUsed)
{
    ModuleInfo info = smtpd();
    info.wakeup = wakeup;
    info.wakeupIfUsed = ifUsed;
    return formatServiceLine(info);
}

std::string lineWithMaxProc(int32_t maxProc)
{
    ModuleInfo info = smtpd();
    info.maxProc = maxProc;
    return formatServiceLine(info);
}

// A new entry holds what "-" stands for in each column.
TEST(ModuleInfoTest, NewEntryHasDefaultOfEveryColumn)
{
    const ModuleInfo info;
    EXPECT_EQ("", info.name);
    EXPECT_EQ(ModuleType::Inet, info.type);
    EXPECT_TRUE(indeterminate(info.privateMode));
    EXPECT_TRUE(indeterminate(info.unprivileged));
    EXPECT_FALSE(indeterminate(info.chroot));
    EXPECT_FALSE(static_cast<bool>(info.chroot));
    EXPECT_EQ(-1, info.wakeup);
    EXPECT_FALSE(info.wakeupIfUsed);
    EXPECT_EQ(-1, info.maxProc);
    EXPECT_TRUE(info.command.empty());
}

// The values order services of one name, so they are fixed.
TEST(ModuleInfoTest, TypesHaveTheirValues)
{
    EXPECT_EQ(0, static_cast<int>(ModuleType::Inet));
    EXPECT_EQ(1, static_cast<int>(ModuleType::Unix));
    EXPECT_EQ(2, static_cast<int>(ModuleType::UnixDgram));
    EXPECT_EQ(3, static_cast<int>(ModuleType::Fifo));
    EXPECT_EQ(4, static_cast<int>(ModuleType::Pass));
}

TEST(ModuleInfoTest, TypesHaveTheirKeywords)
{
    EXPECT_STREQ("inet", typeKeyword(ModuleType::Inet));
    EXPECT_STREQ("unix", typeKeyword(ModuleType::Unix));
    EXPECT_STREQ("unix-dgram", typeKeyword(ModuleType::UnixDgram));
    EXPECT_STREQ("fifo", typeKeyword(ModuleType::Fifo));
    EXPECT_STREQ("pass", typeKeyword(ModuleType::Pass));
}

// Defaults are dashes, except in the chroot column.
TEST(ModuleInfoTest, LineOfDefaultsShowsDashesAndChrootN)
{
    EXPECT_EQ("smtp inet - - n - - smtpd", formatServiceLine(smtpd()));
}

TEST(ModuleInfoTest, LineShowsTypeKeyword)
{
    const std::vector<std::pair<ModuleType, std::string>> expectations{
        {ModuleType::Inet, "smtp inet - - n - - smtpd"},
        {ModuleType::Unix, "smtp unix - - n - - smtpd"},
        {ModuleType::UnixDgram, "smtp unix-dgram - - n - - smtpd"},
        {ModuleType::Fifo, "smtp fifo - - n - - smtpd"},
        {ModuleType::Pass, "smtp pass - - n - - smtpd"}};
    for (const auto& [type, line] : expectations) {
        ModuleInfo info = smtpd();
        info.type = type;
        EXPECT_EQ(line, formatServiceLine(info));
    }
}

// Every combination of the three yes/no columns, each in its own place.
TEST(ModuleInfoTest, LineShowsYesNoColumns)
{
    const std::vector<std::pair<tribool, std::string>> values{
        {tribool(true), "y"}, {tribool(false), "n"}, {tribool(indeterminate), "-"}};
    for (const auto& [privateMode, privateText] : values) {
        for (const auto& [unprivileged, unprivilegedText] : values) {
            for (const auto& [chroot, chrootText] : values) {
                ModuleInfo info = smtpd();
                info.privateMode = privateMode;
                info.unprivileged = unprivileged;
                info.chroot = chroot;
                EXPECT_EQ("smtp inet " + privateText + ' ' + unprivilegedText + ' ' + chrootText +
                              " - - smtpd",
                          formatServiceLine(info));
            }
        }
    }
}

TEST(ModuleInfoTest, LineShowsWakeupTime)
{
    EXPECT_EQ("smtp inet - - n 60 - smtpd", lineWithWakeup(60, false));
    EXPECT_EQ("smtp inet - - n 0 - smtpd", lineWithWakeup(0, false));
    EXPECT_EQ("smtp inet - - n 2147483647 - smtpd",
              lineWithWakeup(std::numeric_limits<int32_t>::max(), false));
}

TEST(ModuleInfoTest, LineShowsQuestionMarkAfterWakeupTime)
{
    EXPECT_EQ("smtp inet - - n 60? - smtpd", lineWithWakeup(60, true));
    EXPECT_EQ("smtp inet - - n 0? - smtpd", lineWithWakeup(0, true));
}

// "-" takes no question mark, whatever the flag holds.
TEST(ModuleInfoTest, LineShowsUnsetWakeupTimeAsDash)
{
    EXPECT_EQ("smtp inet - - n - - smtpd", lineWithWakeup(-1, false));
    EXPECT_EQ("smtp inet - - n - - smtpd", lineWithWakeup(-1, true));
}

// Only -1 is the default; any other negative value is a number.
TEST(ModuleInfoTest, LineShowsOtherNegativeWakeupTimesSigned)
{
    EXPECT_EQ("smtp inet - - n -5 - smtpd", lineWithWakeup(-5, false));
    EXPECT_EQ("smtp inet - - n -5? - smtpd", lineWithWakeup(-5, true));
    EXPECT_EQ("smtp inet - - n -2 - smtpd", lineWithWakeup(-2, false));
    EXPECT_EQ("smtp inet - - n -2147483648 - smtpd",
              lineWithWakeup(std::numeric_limits<int32_t>::min(), false));
}

TEST(ModuleInfoTest, LineShowsProcessLimit)
{
    EXPECT_EQ("smtp inet - - n - 1 smtpd", lineWithMaxProc(1));
    EXPECT_EQ("smtp inet - - n - 0 smtpd", lineWithMaxProc(0));
    EXPECT_EQ("smtp inet - - n - - smtpd", lineWithMaxProc(-1));
    EXPECT_EQ("smtp inet - - n - -5 smtpd", lineWithMaxProc(-5));
    EXPECT_EQ("smtp inet - - n - 2147483647 smtpd", lineWithMaxProc(std::numeric_limits<int32_t>::max()));
    EXPECT_EQ("smtp inet - - n - -2147483648 smtpd", lineWithMaxProc(std::numeric_limits<int32_t>::min()));
}

// Numbers carry no digit grouping, whatever the global locale says.
TEST(ModuleInfoTest, LineShowsNumbersWithoutGrouping)
{
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::string wakeup = lineWithWakeup(86400, true);
    const std::string maxProc = lineWithMaxProc(10000);
    std::locale::global(before);
    EXPECT_EQ("smtp inet - - n 86400? - smtpd", wakeup);
    EXPECT_EQ("smtp inet - - n - 10000 smtpd", maxProc);
}

// One blank between words, none after the last.
TEST(ModuleInfoTest, LineJoinsCommandWords)
{
    ModuleInfo info = smtpd();
    info.type = ModuleType::Unix;
    info.privateMode = false;
    info.unprivileged = true;
    info.chroot = true;
    info.wakeup = 300;
    info.wakeupIfUsed = true;
    info.maxProc = 1;
    info.command = {"smtp", "-o", "smtp_bind_address=192.0.2.1", "-o", "smtp_bind_address6="};
    EXPECT_EQ("smtp unix n y y 300? 1 smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6=",
              formatServiceLine(info));
}

} // namespace
