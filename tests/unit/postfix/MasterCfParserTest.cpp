// The master.cf grammar, through ModuleManager::loadMasterCf and storeMasterCf: what is read as what, what is
// refused with which message, and that files survive being loaded and stored.
#include "postfix/ModuleManager.h"
#include "postfix/PostfixError.h"
#include "unit/postfix/PostfixTestTools.h"

#include "support/FixedPaths.h"
#include "support/HeldLock.h"
#include "support/LockFiles.h"
#include "support/OpenFds.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

namespace {

using boost::logic::indeterminate;
using support::exactMessageOf;
using namespace zorvo::mail::postfix;

using Lines = std::list<std::string>;
using Words = std::list<std::string>;

class MasterCfParserTest : public testing::Test {
protected:
    const MasterCfContent& load(const std::string& text)
    {
        support::writeFile(path_, text);
        contents_.emplace_back();
        ModuleManager::loadMasterCf(path_, contents_.back());
        return contents_.back();
    }

    /// Message of the failure to load `text`.
    std::string failure(const std::string& text)
    {
        return exactMessageOf<PostfixConfigurationError>([&] { load(text); });
    }

    std::string syntaxError(size_t position, const std::string& text) const
    {
        return "unable to parse " + path_ + ": syntax error at position " + std::to_string(position) +
               " near '" + text + "'";
    }

    /// The only service in `text`.
    ModuleInfo service(const std::string& text)
    {
        const std::vector<ModuleInfo> all = load(text).modules();
        if (all.size() != 1)
            throw std::logic_error("not one service in: " + text);
        return all.front();
    }

    /// The canonical line of the only service in `text`.
    std::string canonical(const std::string& text) { return formatServiceLine(service(text)); }

    /// `text` after being loaded and stored.
    std::string roundTrip(const std::string& text)
    {
        ModuleManager::storeMasterCf(path_, load(text));
        return support::readFile(path_);
    }

    void expectUnableToOpen(const std::string& path)
    {
        MasterCfContent content;
        EXPECT_EQ("unable to open " + path, exactMessageOf<PostfixConfigurationError>(
                                                [&] { ModuleManager::loadMasterCf(path, content); }));
        EXPECT_TRUE(content.rawLines().empty());
        EXPECT_TRUE(content.modules().empty());
    }

    support::ScratchDir scratch_;
    const std::string path_ = scratch_.file("master.cf");
    std::list<MasterCfContent> contents_; // Kept, so that references into them stay valid.
};

// --- lines

TEST_F(MasterCfParserTest, TextWithFinalLineFeedGetsAnEmptyLastLine)
{
    EXPECT_EQ((Lines{"# a", ""}), load("# a\n").rawLines());
    EXPECT_EQ((Lines{"smtp inet n - n - - smtpd", ""}), load("smtp inet n - n - - smtpd\n").rawLines());
}

TEST_F(MasterCfParserTest, TextWithoutFinalLineFeedGetsNone)
{
    EXPECT_EQ((Lines{"# a"}), load("# a").rawLines());
    EXPECT_EQ((Lines{"smtp inet n - n - - smtpd"}), load("smtp inet n - n - - smtpd").rawLines());
}

TEST_F(MasterCfParserTest, LineFeedsAloneAreEmptyLines)
{
    EXPECT_EQ((Lines{"", ""}), load("\n").rawLines());
    EXPECT_EQ((Lines{"", "", "", ""}), load("\n\n\n").rawLines());
}

TEST_F(MasterCfParserTest, BlankLinesKeepTheirBlanks)
{
    EXPECT_EQ((Lines{"  \t", "", "\r", " "}), load("  \t\n\n\r\n ").rawLines());
}

TEST_F(MasterCfParserTest, CommentLinesKeepTheirText)
{
    EXPECT_EQ((Lines{"#", "  \t# text #  ", "#\r", "#smtp inet n - n - - smtpd"}),
              load("#\n  \t# text #  \n#\r\n#smtp inet n - n - - smtpd").rawLines());
}

// A comment may hold any byte except the line feed.
TEST_F(MasterCfParserTest, CommentsHoldEveryByte)
{
    std::string comment = "#";
    for (int code = 0; code < 256; ++code)
        if (code != '\n')
            comment += static_cast<char>(code);
    EXPECT_EQ((Lines{comment, ""}), load(comment + '\n').rawLines());
    EXPECT_EQ(comment + '\n', roundTrip(comment + '\n'));
}

TEST_F(MasterCfParserTest, ServiceTextIsKeptAsItStands)
{
    const std::string text = "smtp  inet\tn -   n - - smtpd -o  a=b \t\r";
    const MasterCfContent& content = load(text + "\n# after\n");
    EXPECT_EQ((Lines{text, "# after", ""}), content.rawLines());
    EXPECT_EQ(text, content.getModule("smtp", ModuleType::Inet).second);
}

// --- entries over several lines

TEST_F(MasterCfParserTest, ContinuationLinesBelongToTheirEntry)
{
    for (const std::string blank : {" ", "\t", "\r", "    ", " \t\r"}) {
        const std::string text = "smtp inet n - n - - smtpd\n" + blank + "-o a=b\n" + blank + "-o c=d";
        const MasterCfContent& content = load(text + "\n");
        EXPECT_EQ((Lines{text, ""}), content.rawLines());
        EXPECT_EQ((Words{"smtpd", "-o", "a=b", "-o", "c=d"}), content.modules().front().command);
    }
}

TEST_F(MasterCfParserTest, EntryMayContinueBetweenAnyTwoColumns)
{
    const std::string text = "smtp\n inet\n\tn\n -\n n\n 60?\n 5\n smtpd\n -v";
    const MasterCfContent& content = load(text);
    EXPECT_EQ(Lines{text}, content.rawLines());
    EXPECT_EQ("smtp inet n - n 60? 5 smtpd -v", formatServiceLine(content.modules().front()));
}

TEST_F(MasterCfParserTest, BlankLinesBeforeContinuationAreSwallowed)
{
    const std::string text = "smtp inet n - n - - smtpd\n\n  \t\n\r\n  -o a=b";
    const MasterCfContent& content = load(text + "\n\n");
    EXPECT_EQ((Lines{text, "", ""}), content.rawLines());
    EXPECT_EQ((Words{"smtpd", "-o", "a=b"}), content.modules().front().command);
}

TEST_F(MasterCfParserTest, CommentLinesBeforeContinuationAreSwallowed)
{
    const std::string text = "smtp inet n - n - - smtpd\n# flush left\n  # indented\n#\n  -o a=b";
    const MasterCfContent& content = load(text + "\n");
    EXPECT_EQ((Lines{text, ""}), content.rawLines());
    EXPECT_EQ((Words{"smtpd", "-o", "a=b"}), content.modules().front().command);
}

// Without a continuation after them they are lines of their own, indented or not.
TEST_F(MasterCfParserTest, BlankAndCommentLinesAfterAnEntryAreLinesOfTheirOwn)
{
    EXPECT_EQ(
        (Lines{"a inet n - n - - x", "", "  # indented", "\t", "# flush left", "b inet n - n - - x", ""}),
        load("a inet n - n - - x\n\n  # indented\n\t\n# flush left\nb inet n - n - - x\n").rawLines());
    EXPECT_EQ((Lines{"a inet n - n - - x", "   "}), load("a inet n - n - - x\n   ").rawLines());
}

TEST_F(MasterCfParserTest, CommentsAfterColumnsAreAllowedBeforeContinuation)
{
    const std::string text =
        "smtp # name\n inet # type\n n # private\n - # unpriv\n n # chroot\n - # wakeup\n"
        " - # maxproc\n smtpd # command\n -o # option\n a=b";
    const MasterCfContent& content = load(text + "\n");
    EXPECT_EQ((Lines{text, ""}), content.rawLines());
    EXPECT_EQ("smtp inet n - n - - smtpd -o a=b", formatServiceLine(content.modules().front()));
}

TEST_F(MasterCfParserTest, CommentAfterTheCommandNeedsAContinuation)
{
    EXPECT_EQ(syntaxError(26, "# comment"), failure("smtp inet n - n - - smtpd # comment\n"));
    const std::string text = "smtp inet n - n - - smtpd # comment\n  -o a=b";
    const MasterCfContent& content = load(text + "\n");
    EXPECT_EQ((Lines{text, ""}), content.rawLines());
    EXPECT_EQ((Words{"smtpd", "-o", "a=b"}), content.modules().front().command);
}

// The sign needs no blank before it; no word contains it.
TEST_F(MasterCfParserTest, CommentEndsAWord)
{
    EXPECT_EQ((Words{"smtpd", "-v"}), service("smtp inet n - n - - smtpd#comment\n -v\n").command);
    EXPECT_EQ(syntaxError(25, "#comment"), failure("smtp inet n - n - - smtpd#comment\n"));
}

// A comment after the last line of an entry with continuation lines is refused as well.
TEST_F(MasterCfParserTest, CommentAfterTheLastContinuationLineIsRefused)
{
    EXPECT_EQ(syntaxError(34, "# last"), failure("smtp inet n - n - - smtpd\n -o a=b # last\n"));
}

// A line of blanks only is not a continuation with words.
TEST_F(MasterCfParserTest, BlankLineAtTheEndIsNotAContinuation)
{
    const MasterCfContent& content = load("a inet n - n - - x\n  \n");
    EXPECT_EQ((Lines{"a inet n - n - - x", "  ", ""}), content.rawLines());
}

// --- names

TEST_F(MasterCfParserTest, EveryByteAsAServiceNameIsReadOrRefused)
{
    const std::string allowed = "-abcdefghijklmnopqrstuvwxyz0123456789_:.";
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const std::string line = std::string(1, c) + " inet n - n - - x";
        if (allowed.find(c) != std::string::npos) {
            ASSERT_EQ(std::string(1, c), service(line + '\n').name) << code;
        } else if (c == '#') {
            ASSERT_TRUE(load(line + '\n').modules().empty()) << code;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            // Two blanks are the character and the one after it.
            ASSERT_EQ(syntaxError(2, "inet n - n - - x"), failure(line + '\n')) << code;
        } else if (c == '\n') {
            ASSERT_EQ(syntaxError(2, "inet n - n - - x"), failure(line + '\n')) << code;
        } else if (c == '\0') {
            ASSERT_EQ("unable to parse " + path_ + ": syntax error at position 0 near '",
                      failure(line + '\n'));
        } else {
            ASSERT_EQ(syntaxError(0, line), failure(line + '\n')) << code;
        }
    }
}

TEST_F(MasterCfParserTest, EveryByteInsideAServiceNameIsReadOrRefused)
{
    const std::string allowed = "-abcdefghijklmnopqrstuvwxyz0123456789_:.";
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const std::string line = std::string("n") + c + " inet n - n - - x";
        if (allowed.find(c) != std::string::npos) {
            ASSERT_EQ(std::string("n") + c, service(line + '\n').name) << code;
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            ASSERT_EQ("n", service(line + '\n').name) << code;
        } else if (c == '\0') {
            ASSERT_EQ("unable to parse " + path_ + ": syntax error at position 0 near 'n",
                      failure(line + '\n'));
        } else {
            ASSERT_EQ(syntaxError(0, line), failure(line + '\n')) << code;
        }
    }
}

TEST_F(MasterCfParserTest, NamesOfAddressesAndPortsAreRead)
{
    EXPECT_EQ("127.0.0.1:10025", service("127.0.0.1:10025 inet n - n - - smtpd\n").name);
    EXPECT_EQ("zorvo-example.org-192.0.2.1-2001-db8--1",
              service("zorvo-example.org-192.0.2.1-2001-db8--1 unix - - n - - smtp\n").name);
    EXPECT_EQ("628", service("628 inet n - y - - qmqpd\n").name);
    EXPECT_EQ("-", service("- inet n - n - - smtpd\n").name);
}

TEST_F(MasterCfParserTest, UpperCaseNameFailsAtTheLineAndShowsIt)
{
    EXPECT_EQ(syntaxError(0, "Smtp inet n - n - - smtpd"), failure("Smtp inet n - n - - smtpd\n# more\n"));
    EXPECT_EQ(syntaxError(0, "sMtp inet n - n - - smtpd"), failure("sMtp inet n - n - - smtpd\n# more\n"));
}

// --- types

TEST_F(MasterCfParserTest, EveryTypeIsRead)
{
    EXPECT_EQ(ModuleType::Inet, service("x inet - - - - - x\n").type);
    EXPECT_EQ(ModuleType::Unix, service("x unix - - - - - x\n").type);
    EXPECT_EQ(ModuleType::UnixDgram, service("x unix-dgram - - - - - x\n").type);
    EXPECT_EQ(ModuleType::Fifo, service("x fifo - - - - - x\n").type);
    EXPECT_EQ(ModuleType::Pass, service("x pass - - - - - x\n").type);
}

TEST_F(MasterCfParserTest, OtherTypesAreRefused)
{
    for (const std::string type :
         {"Inet", "UNIX", "tcp", "une", "unix_", "passs", "-", "unix-dgran", "unixdgram"})
        EXPECT_EQ(syntaxError(0, "x " + type + " n - n - - x"), failure("x " + type + " n - n - - x\n"));
}

// "unix", then the columns "-", "d...": the longer keyword is tried first and does not match.
TEST_F(MasterCfParserTest, UnixTypeMayTouchItsNextColumn)
{
    EXPECT_EQ("x unix - n n - - x", canonical("x unix-n n - - x\n"));
}

// --- yes/no columns

TEST_F(MasterCfParserTest, EveryYesNoValueIsReadInEachColumn)
{
    EXPECT_TRUE(static_cast<bool>(service("x unix y - - - - x\n").privateMode));
    EXPECT_TRUE(static_cast<bool>(!service("x unix n - - - - x\n").privateMode));
    EXPECT_TRUE(indeterminate(service("x unix - y y - - x\n").privateMode));
    EXPECT_TRUE(static_cast<bool>(service("x unix - y - - - x\n").unprivileged));
    EXPECT_TRUE(static_cast<bool>(!service("x unix - n - - - x\n").unprivileged));
    EXPECT_TRUE(indeterminate(service("x unix y - y - - x\n").unprivileged));
    EXPECT_TRUE(static_cast<bool>(service("x unix - - y - - x\n").chroot));
    EXPECT_TRUE(static_cast<bool>(!service("x unix - - n - - x\n").chroot));
}

// A dash is the default of each column, and that of chroot is "n".
TEST_F(MasterCfParserTest, DashesReadAsDefaultsAndAreWrittenWithChrootN)
{
    const ModuleInfo info = service("x unix - - - - - x\n");
    EXPECT_TRUE(indeterminate(info.privateMode));
    EXPECT_TRUE(indeterminate(info.unprivileged));
    EXPECT_FALSE(indeterminate(info.chroot));
    EXPECT_FALSE(static_cast<bool>(info.chroot));
    EXPECT_EQ("x unix - - n - - x", formatServiceLine(info));
}

TEST_F(MasterCfParserTest, OtherYesNoValuesAreRefused)
{
    for (const std::string columns : {"Y - -", "- N -", "- - 1", "yes - -", "x - -", "- ? -", "- - #"}) {
        const std::string line = "x unix " + columns + " - - x";
        EXPECT_EQ(syntaxError(0, line), failure(line + "\n"));
    }
}

// The values of one entry are not left over for the next one.
TEST_F(MasterCfParserTest, EachEntryStartsFromDefaults)
{
    const MasterCfContent& content = load("a pass y y y 60? 5 first -v\nb unix - - - - - second\n");
    EXPECT_EQ("b unix - - n - - second", formatServiceLine(content.getModule("b", ModuleType::Unix).first));
    EXPECT_FALSE(content.getModule("b", ModuleType::Unix).first.wakeupIfUsed);
    EXPECT_EQ("a pass y y y 60? 5 first -v",
              formatServiceLine(content.getModule("a", ModuleType::Pass).first));
}

// --- numbers

TEST_F(MasterCfParserTest, WakeupTimeIsRead)
{
    EXPECT_EQ(-1, service("x unix - - - - - x\n").wakeup);
    EXPECT_EQ(0, service("x unix - - - 0 - x\n").wakeup);
    EXPECT_EQ(60, service("x unix - - - 60 - x\n").wakeup);
    EXPECT_EQ(60, service("x unix - - - 0060 - x\n").wakeup);
    EXPECT_FALSE(service("x unix - - - 60 - x\n").wakeupIfUsed);
}

TEST_F(MasterCfParserTest, QuestionMarkAfterWakeupTimeIsRead)
{
    const ModuleInfo info = service("x unix - - - 60? - x\n");
    EXPECT_EQ(60, info.wakeup);
    EXPECT_TRUE(info.wakeupIfUsed);
    EXPECT_EQ("x unix - - n 60? - x", formatServiceLine(info));
}

TEST_F(MasterCfParserTest, MisplacedQuestionMarkIsRefused)
{
    for (const std::string columns : {"? -", "-? -", "60 ? -", "60?? -", "?60 -", "- ?"}) {
        const std::string line = "x unix - - - " + columns + " x";
        EXPECT_EQ(syntaxError(0, line), failure(line + "\n"));
    }
}

TEST_F(MasterCfParserTest, ProcessLimitIsRead)
{
    EXPECT_EQ(-1, service("x unix - - - - - x\n").maxProc);
    EXPECT_EQ(0, service("x unix - - - - 0 x\n").maxProc);
    EXPECT_EQ(1, service("x unix - - - - 1 x\n").maxProc);
    EXPECT_EQ(100, service("x unix - - - - 100 x\n").maxProc);
}

// Unsigned 32-bit numbers in signed fields: the upper half is negative.
TEST_F(MasterCfParserTest, NumbersGoUpToThirtyTwoBits)
{
    EXPECT_EQ(2147483647, service("x unix - - - - 2147483647 x\n").maxProc);
    EXPECT_EQ("x unix - - n - -2147483648 x", canonical("x unix - - - - 2147483648 x\n"));
    EXPECT_EQ("x unix - - n - -2 x", canonical("x unix - - - - 4294967294 x\n"));
    EXPECT_EQ(-1, service("x unix - - - - 4294967295 x\n").maxProc);
    EXPECT_EQ("x unix - - n - - x", canonical("x unix - - - - 4294967295 x\n"));
    EXPECT_EQ(2147483647, service("x unix - - - 2147483647 - x\n").wakeup);
    EXPECT_EQ("x unix - - n -2147483648? - x", canonical("x unix - - - 2147483648? - x\n"));
    EXPECT_EQ("x unix - - n - - x", canonical("x unix - - - 4294967295? - x\n"));
}

TEST_F(MasterCfParserTest, LargerNumbersAreRefused)
{
    for (const std::string columns : {"- 4294967296", "4294967296 -", "- 4294967300", "- 42949672950",
                                      "99999999999999999999999 -", "- 18446744073709551616"}) {
        const std::string line = "x unix - - - " + columns + " x";
        EXPECT_EQ(syntaxError(0, line), failure(line + "\n"));
    }
}

TEST_F(MasterCfParserTest, SignsAndOtherNotationsAreNotNumbers)
{
    for (const std::string columns : {"+5 -", "- +5", "x -"}) {
        const std::string line = "x unix - - - " + columns + " x";
        EXPECT_EQ(syntaxError(0, line), failure(line + "\n"));
    }
    // The letters begin the command.
    EXPECT_EQ("x unix - - n - 0 x10 x", canonical("x unix - - - - 0x10 x\n"));
}

// --- separators

// A separator may be empty where the sets keep the columns apart.
TEST_F(MasterCfParserTest, ColumnsMayTouch)
{
    EXPECT_EQ("smtp inet n - n - - smtpd", canonical("smtp inet n-n - - smtpd\n"));
    EXPECT_EQ("smtp inet n - n - - smtpd", canonical("smtp inetn-n--smtpd\n"));
    EXPECT_EQ("smtp inet n - n 60? 5 smtpd", canonical("smtp inetn-n60?5smtpd\n"));
    EXPECT_EQ("smtp inet n - n - 5 smtpd", canonical("smtp inet n - n -5smtpd\n"));
    EXPECT_EQ("smtp inet n - n - - 5 smtpd", canonical("smtp inet n - n - -5 smtpd\n"));
}

TEST_F(MasterCfParserTest, EverySeparatorIsTakenBetweenAnyTwoColumns)
{
    const std::vector<std::string> columns{"x", "unix", "-", "n", "y", "60?", "5", "command", "-v"};
    for (const std::string separator : {" ", "\t", "\r", "  \t \r", "\n ", " \n\t", "\r\n ", "\n\n ",
                                        "\n# c\n ", " # c\n ", "\n \n\r\n  # c\n\t"}) {
        for (size_t place = 1; place < columns.size(); ++place) {
            std::string text = columns[0];
            for (size_t i = 1; i < columns.size(); ++i)
                text += (i == place ? separator : " ") + columns[i];
            const MasterCfContent& content = load(text + "\n");
            ASSERT_EQ((Lines{text, ""}), content.rawLines());
            ASSERT_EQ("x unix - n y 60? 5 command -v", formatServiceLine(content.modules().front())) << text;
        }
    }
}

TEST_F(MasterCfParserTest, OtherWhiteSpaceSeparatesNothing)
{
    EXPECT_EQ(syntaxError(0, "smtp\vinet n - n - - smtpd"), failure("smtp\vinet n - n - - smtpd\n"));
    EXPECT_EQ(syntaxError(0, "smtp inet n\f- n - - smtpd"), failure("smtp inet n\f- n - - smtpd\n"));
    EXPECT_EQ(syntaxError(25, "\v-v"), failure("smtp inet n - n - - smtpd\v-v\n"));
}

// --- command words

/// The printable characters of ASCII except "#".
bool isCommandCharacter(char c)
{
    return c > ' ' && c <= '~' && c != '#';
}

TEST_F(MasterCfParserTest, EveryByteAsACommandWordIsReadOrRefused)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const std::string line = std::string("x unix - - n - - ") + c;
        if (isCommandCharacter(c))
            ASSERT_EQ(Words{std::string(1, c)}, service(line + '\n').command) << code;
        else if (c == '\0')
            ASSERT_EQ("unable to parse " + path_ + ": syntax error at position 0 near 'x unix - - n - - ",
                      failure(line + '\n'));
        else
            ASSERT_EQ(syntaxError(0, c == '\n' ? "x unix - - n - - " : line), failure(line + '\n')) << code;
    }
}

TEST_F(MasterCfParserTest, EveryByteInsideACommandWordIsReadOrRefused)
{
    for (int code = 0; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const std::string line = std::string("x unix - - n - - a") + c;
        if (isCommandCharacter(c))
            ASSERT_EQ(Words{std::string("a") + c}, service(line + "\n").command) << code;
        else if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
            ASSERT_EQ(Words{"a"}, service(line + '\n').command) << code;
        else if (c == '\0')
            ASSERT_EQ("unable to parse " + path_ + ": syntax error at position 18 near '",
                      failure(line + '\n'));
        else
            ASSERT_EQ(syntaxError(18, std::string(1, c)), failure(line + '\n')) << code;
    }
}

TEST_F(MasterCfParserTest, OptionsAreWords)
{
    EXPECT_EQ(
        (Words{"smtpd", "-o", "smtpd_client_restrictions=$mua_client_restrictions"}),
        service("x unix - - n - - smtpd -o smtpd_client_restrictions=$mua_client_restrictions\n").command);
    EXPECT_EQ((Words{"smtpd", "-o", "{", "a", "=", "B,", "c", "}"}),
              service("x unix - - n - - smtpd -o { a = B, c }\n").command);
    EXPECT_EQ(
        (Words{"pipe", "flags=DRXhu", "user=vmail:vmail", "argv=/usr/lib/deliver", "-f", "${sender}", "-a",
               "$recipient", "\"x", "y\"", "[::1]", "a|b", "%s", "~", "`"}),
        service("x unix - n n - - pipe flags=DRXhu user=vmail:vmail argv=/usr/lib/deliver -f ${sender} -a "
                "$recipient \"x y\" [::1] a|b %s ~ `\n")
            .command);
}

TEST_F(MasterCfParserTest, EntryWithoutCommandIsRefused)
{
    EXPECT_EQ(syntaxError(0, "x unix - - n - -"), failure("x unix - - n - -\n"));
    EXPECT_EQ(syntaxError(0, "x unix - - n - - "), failure("x unix - - n - - \n# more\n"));
    EXPECT_EQ(syntaxError(0, "x unix"), failure("x unix\n"));
    EXPECT_EQ(syntaxError(0, "x"), failure("x"));
}

// --- the same service twice

TEST_F(MasterCfParserTest, LaterEntryReplacesTheEarlierOneAtItsPlace)
{
    const MasterCfContent& content =
        load("x unix y y y 60? 5 first\n# between\nx unix - - - - - second\nx inet - - - - - third\n");
    EXPECT_EQ((Lines{"x unix - - - - - second", "# between", "x inet - - - - - third", ""}),
              content.rawLines());
    EXPECT_EQ("x unix - - n - - second", formatServiceLine(content.getModule("x", ModuleType::Unix).first));
    EXPECT_EQ(2U, content.modules().size());
}

// --- syntax errors

// Characters count from the start of the file, line feeds included; the text ends with its line.
TEST_F(MasterCfParserTest, ErrorOnALaterLineCountsFromTheStartOfTheFile)
{
    EXPECT_EQ(syntaxError(12, "Bad line"), failure("# comment\n\n\nBad line\n# more\n"));
    EXPECT_EQ(syntaxError(19, "x unix z"), failure("a inet n - n - - x\nx unix z\nx unix - - n - - x\n"));
}

TEST_F(MasterCfParserTest, ErrorOnTheLastLineShowsItToTheEnd)
{
    EXPECT_EQ(syntaxError(4, "Bad"), failure("# c\nBad"));
}

TEST_F(MasterCfParserTest, ErrorAfterBlanksStopsAfterThem)
{
    EXPECT_EQ(syntaxError(3, "Bad line"), failure(" \t\rBad line\n"));
    EXPECT_EQ(syntaxError(6, "x unix - - n - - x"), failure("# c\n  x unix - - n - - x\n"));
}

TEST_F(MasterCfParserTest, ErrorAfterAReadableEntryStopsThere)
{
    EXPECT_EQ(syntaxError(18, "\x80 more"), failure("x unix - - n - - a\x80 more\n"));
    EXPECT_EQ(syntaxError(20, "\x80 more"), failure("x unix - - n - - a  \x80 more\n"));
}

// The entry's first line is where it begins to fail, even if the fault is on a later one.
TEST_F(MasterCfParserTest, ErrorInsideAnEntryShowsItsFirstLine)
{
    EXPECT_EQ(syntaxError(0, "x unix - -"), failure("x unix - -\n  Z - - command\n"));
}

// The fault is on a continuation line of an entry that can be read up to there.
TEST_F(MasterCfParserTest, ErrorOnAContinuationLineAfterTheCommandStopsAtThatLine)
{
    EXPECT_EQ(syntaxError(21, "\x80"), failure("x unix - - n - - a\n  \x80\n"));
    EXPECT_EQ(syntaxError(23, "\x80"), failure("x unix - - n - - a\n -b \x80\n"));
}

// Messages are C strings: a NUL cuts them.
TEST_F(MasterCfParserTest, NulCutsTheMessage)
{
    EXPECT_EQ("unable to parse " + path_ + ": syntax error at position 0 near 'Bad",
              failure(std::string("Bad\0line\n", 9)));
}

TEST_F(MasterCfParserTest, LongLineIsShownWhole)
{
    const std::string line = "Bad" + std::string(100000, 'x');
    EXPECT_EQ(syntaxError(0, line), failure(line + "\n"));
}

TEST_F(MasterCfParserTest, TextIsShownWithItsCarriageReturn)
{
    EXPECT_EQ(syntaxError(0, "Bad\r"), failure("Bad\r\n"));
}

// --- files

TEST_F(MasterCfParserTest, FileOfZeroLengthCannotBeOpened)
{
    support::writeFile(path_, "");
    expectUnableToOpen(path_);
}

TEST_F(MasterCfParserTest, MissingFileCannotBeOpened)
{
    expectUnableToOpen(scratch_.file("missing"));
    expectUnableToOpen(scratch_.file("missing/master.cf"));
    expectUnableToOpen("");
}

TEST_F(MasterCfParserTest, DirectoryCannotBeOpened)
{
    expectUnableToOpen(scratch_.path());
}

TEST_F(MasterCfParserTest, DeviceCannotBeOpened)
{
    expectUnableToOpen("/dev/null");
    expectUnableToOpen("/dev/zero");
}

// Opening a FIFO without a writer would block forever: a signal then ends the test.
TEST_F(MasterCfParserTest, FifoCannotBeOpenedAndIsNotWaitedFor)
{
    ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0644));
    ::alarm(20);
    expectUnableToOpen(path_);
    ::alarm(0);
}

TEST_F(MasterCfParserTest, SocketCannotBeOpened)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    expectUnableToOpen(path_);
    ::close(fd);
}

TEST_F(MasterCfParserTest, UnreadableFileCannotBeOpened)
{
    support::writeFile(path_, "# a\n");
    ASSERT_EQ(0, ::chmod(scratch_.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(path_.c_str(), 0200));
    ASSERT_EQ(0, ::seteuid(65534));
    expectUnableToOpen(path_);
    ASSERT_EQ(0, ::seteuid(0));
}

TEST_F(MasterCfParserTest, SymbolicLinkIsFollowed)
{
    support::writeFile(scratch_.file("real"), "# a\n");
    std::filesystem::create_symlink("real", path_);
    MasterCfContent content;
    ModuleManager::loadMasterCf(path_, content);
    EXPECT_EQ((Lines{"# a", ""}), content.rawLines());
}

TEST_F(MasterCfParserTest, DanglingAndCircularLinksCannotBeOpened)
{
    std::filesystem::create_symlink("nowhere", scratch_.file("dangling"));
    std::filesystem::create_symlink("circular", scratch_.file("circular"));
    expectUnableToOpen(scratch_.file("dangling"));
    expectUnableToOpen(scratch_.file("circular"));
}

TEST_F(MasterCfParserTest, FileIsReadWhole)
{
    std::string text;
    for (int i = 0; i < 20000; ++i)
        text += "s" + std::to_string(i) + " unix - - n - - smtp\n  -o smtp_helo_name=mail.example.org\n\n";
    EXPECT_EQ(20000U, load(text).modules().size());
    EXPECT_EQ(text.substr(0, text.size() - 1), roundTrip(text));
}

// The mapping ends with its last byte, also where that is the last of a page.
TEST_F(MasterCfParserTest, FileOfExactlyOnePageIsRead)
{
    const std::string text = "#" + std::string(4095, 'x');
    EXPECT_EQ(Lines{text}, load(text).rawLines());
    const std::string bad = "#" + std::string(4090, 'x') + "\nBad!";
    EXPECT_EQ(syntaxError(4092, "Bad!"), failure(bad));
}

TEST_F(MasterCfParserTest, LoadingLeavesNoDescriptorAndTheFileAlone)
{
    support::writeFile(path_, "# a\n");
    const auto before = support::openFds();
    load("# a\nx unix - - n - - x\n");
    failure("Bad\n");
    EXPECT_EQ(before, support::openFds());
    EXPECT_EQ("Bad\n", support::readFile(path_));
    EXPECT_EQ(std::set<std::string>{"master.cf"}, scratch_.names());
}

// No lock is taken; one held by another process does not matter.
TEST_F(MasterCfParserTest, LoadingDoesNotWaitForTheLock)
{
    const support::HeldLock lock(support::lockFileOf(path_));
    ::alarm(20);
    EXPECT_EQ((Lines{"# a", ""}), load("# a\n").rawLines());
    ::alarm(0);
}

// --- round trips

TEST_F(MasterCfParserTest, StockMasterCfSurvives)
{
    const std::string stock = support::readFile(support::masterCfPath);
    ASSERT_LT(5000U, stock.size());
    EXPECT_EQ(stock, roundTrip(stock));
}

// The services found are those that Postfix's own tool finds.
TEST_F(MasterCfParserTest, StockMasterCfIsReadAsPostfixReadsIt)
{
    std::set<std::string> expected;
    std::istringstream postconf(support::outputOf(support::postconfPath + std::string(" -M")));
    for (std::string line; std::getline(postconf, line);) {
        std::istringstream words(line);
        std::string canonicalLine;
        for (std::string word; words >> word;)
            canonicalLine += (canonicalLine.empty() ? "" : " ") + word;
        expected.insert(canonicalLine);
    }
    MasterCfContent content;
    ModuleManager::loadMasterCf(support::masterCfPath, content);
    std::set<std::string> found;
    for (const ModuleInfo& info : content.modules())
        found.insert(formatServiceLine(info));
    ASSERT_LT(20U, expected.size());
    EXPECT_EQ(expected, found);
}

const char* const enterpriseStyle = R"(#
# Service table of a mail relay.
#
# ==========================================================================
# service type  private unpriv  chroot  wakeup  maxproc command + args
#               (yes)   (yes)   (no)    (never) (100)
# ==========================================================================
smtp      inet  n       -       n       -       -       smtpd
#smtp      inet  n       -       n       -       1       postscreen
pickup    unix  n       -       n       60      1       pickup
cleanup   unix  n       -       n       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
tlsmgr    unix  -       -       n       1000?   1       tlsmgr
proxywrite unix -       -       n       -       1       proxymap
relay     unix  -       -       n       -       -       smtp
        -o syslog_name=postfix/$service_name
#       -o smtp_helo_timeout=5 -o smtp_connect_timeout=5
virtual   unix  -       n       n       -       -       virtual
anvil     unix  -       -       n       -       1       anvil
)";

const char* const screeningStyle = "smtp      inet  n       -       y       -       1       postscreen\n"
                                   "smtpd     pass  -       -       y       -       -       smtpd\n"
                                   "dnsblog   unix  -       -       y       -       0       dnsblog\n"
                                   "tlsproxy  unix  -       -       y       -       0       tlsproxy\n"
                                   "submission inet n       -       y       -       -       smtpd\n"
                                   "  -o { smtpd_tls_security_level = encrypt }\n"
                                   "  -o {smtpd_recipient_restrictions=permit_sasl_authenticated, reject}\n"
                                   "\n"
                                   "  # not before the clients are ready:\n"
                                   "  #-o smtpd_tls_auth_only=yes\n"
                                   "  -o milter_macro_daemon_name=ORIGINATING\n"
                                   "\n"
                                   "postlog   unix-dgram n  -       n       -       1       postlogd\n";

const char* const deliveryStyle = "lmtp      unix  -       -       n       -       20      lmtp\r\n"
                                  "  -o lmtp_destination_recipient_limit=1\r\n"
                                  "\r\n"
                                  "# mailbox delivery\r\n"
                                  "dovecot   unix  -       n       n       -       -       pipe\r\n"
                                  "  flags=DRXhu user=vmail:vmail\t\r\n"
                                  "  argv=/usr/lib/dovecot/deliver -f ${sender} -d ${recipient}\r\n"
                                  "127.0.0.1:10025 inet n - n - 16 smtpd -o content_filter= -v\r\n";

TEST_F(MasterCfParserTest, HandWrittenFilesSurvive)
{
    for (const std::string text : {enterpriseStyle, screeningStyle, deliveryStyle})
        EXPECT_EQ(text, roundTrip(text));
}

TEST_F(MasterCfParserTest, HandWrittenFilesAreReadWhole)
{
    EXPECT_EQ(9U, load(enterpriseStyle).modules().size());
    EXPECT_EQ((Words{"smtp", "-o", "syslog_name=postfix/$service_name"}),
              load(enterpriseStyle).getModule("relay", ModuleType::Unix).first.command);
    EXPECT_EQ("relay     unix  -       -       n       -       -       smtp\n"
              "        -o syslog_name=postfix/$service_name",
              load(enterpriseStyle).getModule("relay", ModuleType::Unix).second);

    EXPECT_EQ(6U, load(screeningStyle).modules().size());
    EXPECT_EQ((Words{"smtpd", "-o", "{", "smtpd_tls_security_level", "=", "encrypt", "}", "-o",
                     "{smtpd_recipient_restrictions=permit_sasl_authenticated,", "reject}", "-o",
                     "milter_macro_daemon_name=ORIGINATING"}),
              load(screeningStyle).getModule("submission", ModuleType::Inet).first.command);
    EXPECT_TRUE(load(screeningStyle).hasModule("smtpd", ModuleType::Pass));
    EXPECT_TRUE(load(screeningStyle).hasModule("postlog", ModuleType::UnixDgram));

    EXPECT_EQ(3U, load(deliveryStyle).modules().size());
    EXPECT_EQ((Words{"pipe", "flags=DRXhu", "user=vmail:vmail", "argv=/usr/lib/dovecot/deliver", "-f",
                     "${sender}", "-d", "${recipient}"}),
              load(deliveryStyle).getModule("dovecot", ModuleType::Unix).first.command);
    EXPECT_EQ("127.0.0.1:10025 inet n - n - 16 smtpd -o content_filter= -v",
              formatServiceLine(load(deliveryStyle).getModule("127.0.0.1:10025", ModuleType::Inet).first));
}

// Empty lines at the end go; lines of blanks or a lone carriage return are not empty.
TEST_F(MasterCfParserTest, EmptyLinesAtTheEndAreDropped)
{
    EXPECT_EQ("# a\n", roundTrip("# a"));
    EXPECT_EQ("# a\n", roundTrip("# a\n"));
    EXPECT_EQ("# a\n", roundTrip("# a\n\n\n\n"));
    EXPECT_EQ("\n\n# a\n", roundTrip("\n\n# a\n\n"));
    EXPECT_EQ("# a\n\n \n", roundTrip("# a\n\n \n\n"));
    EXPECT_EQ("# a\n\r\n", roundTrip("# a\n\r\n"));
    EXPECT_EQ("# a\n\t\n", roundTrip("# a\n\t"));
}

TEST_F(MasterCfParserTest, FileOfEmptyLinesKeepsThemAll)
{
    // One line feed is two empty lines, the one before it and the one after it.
    EXPECT_EQ("\n\n", roundTrip("\n"));
    EXPECT_EQ("\n\n\n\n", roundTrip("\n\n\n"));
}

} // namespace
