// When a process was started, read from made-up texts and from a real child.
#include "process/startTime.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace zorvo::process {

namespace {

long long ticksOf(const timespec& time)
{
    const long long tick = 1000000000 / ::sysconf(_SC_CLK_TCK);
    return (time.tv_sec * 1000000000LL + time.tv_nsec) / tick;
}

timespec now()
{
    timespec time = {};
    (void)::clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

} // namespace

TEST(ParseStartTicksTest, Field22IsFoundAfterAnyName)
{
    const std::string fields = " S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 123456789012 23\n";
    EXPECT_EQ(parseStartTicks("1 (qmgr)" + fields), 123456789012ULL);
    EXPECT_EQ(parseStartTicks("1 (a ) b) (c)" + fields), 123456789012ULL);
}

TEST(ParseStartTicksTest, OtherTextHasNone)
{
    EXPECT_EQ(parseStartTicks(""), std::nullopt);
    EXPECT_EQ(parseStartTicks("1 (qmgr) S 2 3"), std::nullopt);
    EXPECT_EQ(parseStartTicks("1 qmgr S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22"), std::nullopt);
}

TEST(StartTimeTest, ChildWasStartedBetweenTheMomentsAroundItsFork)
{
    const timespec before = now();
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::pause();
        ::_exit(0);
    }
    const timespec after = now();
    const std::optional<timespec> start = startTime(child);
    (void)::kill(child, SIGKILL);
    (void)::waitpid(child, nullptr, 0);
    ASSERT_TRUE(start);
    // One tick for the kernel's rounding, one for ours.
    EXPECT_GE(ticksOf(*start), ticksOf(before) - 2);
    EXPECT_LE(ticksOf(*start), ticksOf(after) + 2);
}

TEST(StartTimeTest, ProcessThatIsNotThereHasNone)
{
    EXPECT_EQ(startTime(0), std::nullopt);
}

} // namespace zorvo::process
