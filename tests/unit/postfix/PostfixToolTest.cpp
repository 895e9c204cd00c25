// PostfixTool: what a run captures and what it leaves inherited, and what counts as a failure of a tool.
#include "postfix/PostfixTool.h"

#include "postfix/PostfixError.h"
#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/Capture.h"
#include "support/Child.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

using namespace zorvo::mail::postfix;

const std::string anyTable = support::tableType + "/x";

/// Every text is judged `lenient` without and `strict` with strictness.
void expectJudged(bool lenient, bool strict, const std::vector<std::string>& texts)
{
    for (const std::string& text : texts) {
        EXPECT_EQ(lenient, checkOutput(text, false)) << text;
        EXPECT_EQ(strict, checkOutput(text, true)) << text;
    }
}

TEST(CheckOutputTest, EmptyOutputPasses)
{
    expectJudged(true, true, {""});
}

TEST(CheckOutputTest, EmptyLinesPass)
{
    expectJudged(true, true, {"\n", "\n\n\n"});
}

TEST(CheckOutputTest, ErrorLevelsFail)
{
    expectJudged(false, false,
                 {"postmap: fatal: open database /x.db: No such file or directory", "postmap: error: text\n",
                  "postmap: panic: text\n", "postconf: fatal: text"});
}

// The level's own colon is the further colon that a diagnostic has.
TEST(CheckOutputTest, LevelWithNothingAfterItFails)
{
    expectJudged(false, false, {"postmap: fatal:", "postmap: error:\n", "postmap: panic:"});
}

TEST(CheckOutputTest, WarningPasses)
{
    expectJudged(
        true, true,
        {"postconf: warning: nosuch: unknown parameter", "postconf: warning: text\n", "x: warning:"});
}

// Another word in the level's place counts with strictness only.
TEST(CheckOutputTest, OtherLevelFailsOnlyStrictly)
{
    expectJudged(true, false,
                 {"postmap: note: text", "postmap: open /x: No such file", "postmap: Warning: text",
                  "postmap: Fatal: text", "postmap: FATAL: text", "postmap: xfatal: text", "a: bc:"});
}

// The level is matched with its colon.
TEST(CheckOutputTest, LongerWordIsNotAnErrorLevel)
{
    expectJudged(true, false, {"postmap: fatality: text", "postmap: errors: text", "postmap: panicky: text"});
    expectJudged(true, false, {"postmap: warnings: text"});
}

TEST(CheckOutputTest, LineWithoutColonPasses)
{
    expectJudged(true, true, {"fatal", "fatal error panic", "postmap fatal something"});
}

TEST(CheckOutputTest, ColonAtLineEndPasses)
{
    expectJudged(true, true, {"postmap:", "fatal:", ":", "postmap:\nfatal:\n"});
}

TEST(CheckOutputTest, OnlyBlanksAfterTheColonPass)
{
    expectJudged(true, true, {"postmap: ", "postmap:     ", "postmap:  \n"});
}

// The text after the blanks has to be longer than one character.
TEST(CheckOutputTest, LevelOnLastCharacterPasses)
{
    expectJudged(true, true, {"postmap: f", "postmap: :", "postmap::", "postmap:   :\n"});
}

TEST(CheckOutputTest, ShortestLevelWithColonFailsStrictly)
{
    expectJudged(true, false, {"a: b:", "a:b:", "a: ::"});
}

// A colon at the level position itself is not the further one.
TEST(CheckOutputTest, ColonAtLevelPositionIsNotTheFurtherColon)
{
    expectJudged(true, true, {"a: :b", "a::bc"});
    expectJudged(true, false, {"a: :b:", "a: :fatal: x"});
}

TEST(CheckOutputTest, LineWithoutFurtherColonPasses)
{
    expectJudged(true, true, {"postmap: fatal", "fatal: something", "error: something", "panic: x"});
}

// A line that begins with a level has its level position after that.
TEST(CheckOutputTest, LeadingLevelIsTakenAsTheName)
{
    expectJudged(true, false, {"fatal: open: text", "panic: a:"});
    expectJudged(false, false, {"fatal: fatal: text", "error: panic: x", "warning: fatal: x"});
    expectJudged(true, true, {"fatal: warning: x"});
}

TEST(CheckOutputTest, BlanksBeforeLevelAreSkipped)
{
    expectJudged(false, false, {"postmap:fatal: x", "postmap:      fatal: x"});
}

TEST(CheckOutputTest, OtherWhiteSpaceBeforeLevelIsNotSkipped)
{
    expectJudged(true, false,
                 {"postmap:\tfatal: x", "postmap: \tfatal: x", "postmap:\rfatal: x", "postmap:\vfatal: x"});
    expectJudged(true, false, {"postmap:\twarning: x"});
}

TEST(CheckOutputTest, EmptyNameCounts)
{
    expectJudged(false, false, {": fatal: x", ":error: x"});
}

// Only the place after the first colon is looked at.
TEST(CheckOutputTest, LevelLaterInTheLineIsText)
{
    expectJudged(true, true, {"postconf: warning: fatal: x"});
    expectJudged(true, false, {"postfix/postmap: note: fatal: x"});
}

TEST(CheckOutputTest, OneBadLineOfManyFails)
{
    expectJudged(false, false,
                 {"postmap: warning: a\npostmap: fatal: b\n", "postmap: fatal: b\npostmap: warning: a\n",
                  "no diagnostic\n\n\npostmap: error: b", "\npostmap: panic: b\n\n"});
    expectJudged(true, false, {"postmap: warning: a: b\npostmap: note: c\npostmap: warning: d"});
}

// Each line is judged separately: a name on one line and a level on the next are not a diagnostic.
TEST(CheckOutputTest, DiagnosticDoesNotSpanLines)
{
    expectJudged(true, true, {"postmap:\nfatal: x", "postmap: fatal\n:", "postmap: f\n: x"});
}

TEST(CheckOutputTest, CarriageReturnBelongsToTheLine)
{
    expectJudged(false, false, {"postmap: fatal: x\r\n"});
    expectJudged(true, true, {"\r\n", "postmap: \r\n", "postmap: warning: x\r\n"});
}

// --- running a tool

using support::postmapPath;
using support::ToolAnswer;

/// With postmap replaced.
class RunPostfixToolTest : public testing::Test {
protected:
    RunPostfixToolTest() { tools_.replace(postmapPath); }

    support::ToolStandIns tools_;
};

TEST_F(RunPostfixToolTest, CapturedOutputAndErrorOutputAreKeptApart)
{
    ToolAnswer answer = ToolAnswer::fails(3, "error text\n");
    answer.out = "output text\n";
    tools_.answer(postmapPath, answer);
    support::Capture capture;
    const ToolResult result = runPostfixTool({postmapPath, "-s", anyTable}, ToolOutput::Captured);
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(3 << 8, result.status);
    EXPECT_EQ("output text\n", result.output);
    EXPECT_EQ("error text\n", result.errorOutput);
    EXPECT_EQ((std::vector<std::vector<std::string>>{{postmapPath, "-s", anyTable}}), tools_.commandLines());
}

TEST_F(RunPostfixToolTest, InheritedOutputGoesToOurOwn)
{
    ToolAnswer answer = ToolAnswer::dies(SIGTERM, "error text\n");
    answer.out = "output text\n";
    tools_.answer(postmapPath, answer);
    support::Capture capture;
    const ToolResult result = runPostfixTool({postmapPath, "-r", anyTable}, ToolOutput::Inherited);
    EXPECT_EQ("output text\n", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(SIGTERM, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_EQ("error text\n", result.errorOutput);
}

TEST_F(RunPostfixToolTest, InputIsFedUntilTheSourceSaysItWasTheLast)
{
    int chunks = 0;
    const ToolResult result = runPostfixTool({postmapPath, "-i", anyTable}, ToolOutput::Captured,
                                             [&chunks](std::vector<char>& buffer) {
                                                 buffer.push_back(static_cast<char>('a' + chunks));
                                                 return ++chunks < 3;
                                             });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("abc", tools_.calls().front().input);
}

// Without a source the tool reads what this process would read.
TEST_F(RunPostfixToolTest, InputIsInheritedWithoutASource)
{
    const int ours = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    int input[2];
    ASSERT_EQ(0, ::pipe(input));
    ASSERT_EQ(4, ::write(input[1], "ours", 4));
    ::close(input[1]);
    ::dup2(input[0], 0);
    ::close(input[0]);
    const ToolResult result = runPostfixTool({postmapPath, "-i", anyTable}, ToolOutput::Captured);
    ::dup2(ours, 0);
    ::close(ours);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("ours", tools_.calls().front().input);
}

TEST_F(RunPostfixToolTest, ArgumentsEndAtTheFirstEmptyOneUnlessTheyAreAppended)
{
    ToolCommand command(postmapPath, "-q", "", anyTable);
    EXPECT_EQ(0, runPostfixTool(command, ToolOutput::Captured).status);
    command.arguments.push_back("");
    EXPECT_EQ(0, runPostfixTool(command, ToolOutput::Captured).status);
    EXPECT_EQ((std::vector<std::vector<std::string>>{{postmapPath, "-q"}, {postmapPath, "-q", ""}}),
              tools_.commandLines());
}

// --- how it ended

// Every wait status: success is an exit with 0, with or without a core dump bit.
TEST(ToolSucceededTest, OnlyExitWithZeroIsSuccess)
{
    for (int status = 0; status <= 0xffff; ++status)
        ASSERT_EQ(status == 0 || status == 0x80, toolSucceeded(status)) << status;
}

TEST(ToolSucceededTest, RealStatusesAreJudged)
{
    EXPECT_TRUE(toolSucceeded(support::waitFor(support::forkChild([] { return 0; }))));
    EXPECT_FALSE(toolSucceeded(support::waitFor(support::forkChild([] { return 1; }))));
    EXPECT_FALSE(toolSucceeded(support::waitFor(support::forkChild([] { return 255; }))));
    EXPECT_FALSE(toolSucceeded(support::waitFor(support::forkChild([] { return ::raise(SIGKILL); }))));
    EXPECT_FALSE(toolSucceeded(support::waitFor(support::forkChild([] { return ::raise(SIGTERM); }))));
}

/// The message with which this result is refused.
std::string refusal(const ToolResult& result)
{
    return support::exactMessageOf<PostfixConfigurationError>([&] { requireToolSuccess(result); });
}

TEST(RequireToolSuccessTest, SuccessIsSilentWhateverTheToolPrinted)
{
    requireToolSuccess({0, "", "postmap: fatal: x"});
    requireToolSuccess({0x80, "", ""});
}

TEST(RequireToolSuccessTest, FailureCarriesErrorOutputAsItIs)
{
    EXPECT_EQ(" postmap: fatal: x\nmore \n", refusal({0x100, "", " postmap: fatal: x\nmore \n"}));
    EXPECT_EQ("\n", refusal({9, "", "\n"}));
}

TEST(RequireToolSuccessTest, FailureWithoutErrorOutputIsUnknown)
{
    EXPECT_EQ("unknown error", refusal({0x100, "", ""}));
    EXPECT_EQ("unknown error", refusal({9, "", ""}));
    EXPECT_EQ("unknown error", refusal({0x8b, "", ""}));
}

// The family: callers may catch PostfixError for both kinds, and neither kind for the other.
TEST(PostfixErrorTest, BothKindsArePostfixErrors)
{
    EXPECT_EQ("text", support::messageOf<PostfixError>([] { throw PostfixConfigurationError("text"); }));
    EXPECT_EQ("text", support::messageOf<PostfixError>([] { throw PostfixDatabaseError("text"); }));
    EXPECT_EQ("text", support::messageOf<std::runtime_error>([] { throw PostfixError("text"); }));
    EXPECT_NE("text",
              support::messageOf<PostfixConfigurationError>([] { throw PostfixDatabaseError("text"); }));
    EXPECT_NE("text",
              support::messageOf<PostfixDatabaseError>([] { throw PostfixConfigurationError("text"); }));
}

} // namespace
