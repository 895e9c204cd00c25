// main: the output on both streams and the exit status for each way in which do_main can end.
#include "support/Child.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

support::ChildResult runMain(const char* outcome, const char* interrupted = nullptr)
{
    return support::runInChild([=] {
        ::execl(MAIN_OUTCOMES, "outcomes", outcome, interrupted, nullptr);
        return 127;
    });
}

} // namespace

TEST(MainTest, UtilityExceptionIsItsTextOnStandardErrorOnly)
{
    const auto result = runMain("utility exception");
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "the text alone\n");
    EXPECT_EQ(result.out, "");
}

TEST(MainTest, StandardExceptionIsReportedOnBothStreams)
{
    const auto result = runMain("standard exception");
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "Fatal error: std::out_of_range(its text)\n");
    EXPECT_EQ(result.out, result.err);
}

TEST(MainTest, AnythingElseIsUnspecifiedOnBothStreamsWithStatusTwo)
{
    const auto result = runMain("anything else");
    EXPECT_TRUE(result.exitedWith(2));
    EXPECT_EQ(result.err, "UNSPECIFIED ERROR OCCURED\n");
    EXPECT_EQ(result.out, result.err);
}

TEST(MainTest, StatusOfDoMainIsTheExitStatus)
{
    const auto result = runMain("");
    EXPECT_TRUE(result.exitedWith(7));
    EXPECT_EQ(result.out + result.err, "");
}

TEST(MainTest, EveryMessageArrivesWholeAlthoughItsWritesAreInterrupted)
{
    EXPECT_EQ(runMain("utility exception", "interrupted").err, "the text alone\n");
    EXPECT_EQ(runMain("standard exception", "interrupted").err, "Fatal error: std::out_of_range(its text)\n");
    EXPECT_EQ(runMain("anything else", "interrupted").err, "UNSPECIFIED ERROR OCCURED\n");
}
