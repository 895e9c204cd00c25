// closefrom: which descriptors are open after it, by both strategies.
#include "process/closefrom.h"

#include "common/zorvo_log.h"
#include "process/signals.h"
#include "support/Capture.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"
#include "support/ScratchDir.h"
#include "unit/process/ExecTestTools.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using faults::Call;
using faults::FailingCall;
using support::ChildResult;
using support::runInChild;
using support::ScratchDir;
using testing::ElementsAre;
using tools::closeAllButStandard;
using tools::inOwnProcess;
using tools::NothingLeftTest;
using tools::openNumbers;

namespace {

class ClosefromTest : public NothingLeftTest {};

} // namespace

// ---- closefrom

TEST_F(ClosefromTest, ClosesFromTheGivenNumberOn)
{
    for (const int low : {3, 5, 100}) {
        SCOPED_TRACE(low);
        inOwnProcess([low] {
            closeAllButStandard();
            std::vector<int> expected = {0, 1, 2};
            for (const int fd : {3, 4, 5, 6, 50, 99, 100, 101, 500}) {
                ASSERT_EQ(::dup2(0, fd), fd);
                if (fd < low)
                    expected.push_back(fd);
            }
            closefrom(low);
            EXPECT_EQ(openNumbers(), expected);
        });
    }
}

TEST_F(ClosefromTest, ZeroClosesEverything)
{
    const ChildResult result = runInChild([] {
        closefrom(0);
        return openNumbers().empty() ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClosefromTest, ThroughProcCloses)
{
    inOwnProcess([] {
        closeAllButStandard();
        for (int fd = 3; fd < 60; fd += 2)
            ASSERT_EQ(::dup2(0, fd), fd);
        EXPECT_EQ(closefrom_through_proc(20), 0);
        EXPECT_THAT(openNumbers(3), ElementsAre(3, 5, 7, 9, 11, 13, 15, 17, 19));
    });
}

// The walk's own descriptor is below: it is neither counted among the lower ones nor left open.
TEST_F(ClosefromTest, ThroughProcClosesItsOwnDescriptorOnce)
{
    inOwnProcess([] {
        closeAllButStandard();
        ASSERT_EQ(::dup2(0, 10), 10);
        EXPECT_EQ(closefrom_through_proc(5), 0); // Its own is 3.
        EXPECT_TRUE(openNumbers(3).empty());
        EXPECT_EQ(closefrom_through_proc(3), 0);
        EXPECT_TRUE(openNumbers(3).empty());
    });
}

TEST_F(ClosefromTest, ThroughProcFailsOnANumberOutsideTheTable)
{
    inOwnProcess([] {
        closeAllButStandard();
        ASSERT_EQ(::dup2(0, 500), 500);
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        for (const rlim_t size : {499U, 500U}) {
            limit.rlim_cur = size;
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
            EXPECT_EQ(closefrom_through_proc(3), -1);
            EXPECT_THAT(openNumbers(3), ElementsAre(500));
        }
        limit.rlim_cur = 501;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(closefrom_through_proc(3), 0);
        EXPECT_TRUE(openNumbers(3).empty());
    });
}

// At most a tenth of the table's size of names is looked at, but always a hundred.
TEST_F(ClosefromTest, ThroughProcFailsOnTooManyNames)
{
    inOwnProcess([] {
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        const auto openSome = [](int count) {
            closeAllButStandard();
            for (int fd = 3; fd < 3 + count; ++fd)
                ASSERT_EQ(::dup2(0, fd), fd);
        };
        limit.rlim_cur = 500;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        openSome(80);
        EXPECT_EQ(closefrom_through_proc(3), 0);
        EXPECT_TRUE(openNumbers(3).empty());
        openSome(120);
        EXPECT_EQ(closefrom_through_proc(3), -1);
        limit.rlim_cur = 2000;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        openSome(180);
        EXPECT_EQ(closefrom_through_proc(3), 0);
        EXPECT_TRUE(openNumbers(3).empty());
        openSome(220);
        EXPECT_EQ(closefrom_through_proc(3), -1);
        openSome(220);
        closefrom(3); // The other strategy helps out.
        EXPECT_TRUE(openNumbers(3).empty());
    });
}

/// closefrom_through_proc(3) with 3, 4 and 5 open and an /proc/self/fd of these names; its result, then which
/// of them are still open.
static std::vector<int> closedByNames(const std::vector<std::string>& names)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make a pipe");
    const pid_t child = support::forkChild([&names, &ends] {
        if (!support::makeMountsPrivate() || !support::mountEmpty("/proc"))
            return 1;
        std::filesystem::create_directories("/proc/self/fd");
        for (const std::string& name : names)
            support::writeFile("/proc/self/fd/" + name, "");
        ::dup2(ends[1], 600);
        for (int fd = 3; fd < 600; ++fd)
            ::close(fd);
        for (int fd = 3; fd < 6; ++fd)
            ::dup2(0, fd);
        char report[4] = {static_cast<char>(closefrom_through_proc(3)), 0, 0, 0};
        for (int fd = 3; fd < 6; ++fd)
            report[fd - 2] = ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
        return ::write(600, report, sizeof report) == sizeof report ? 0 : 2;
    });
    ::close(ends[1]);
    const std::string report = support::readAll(ends[0]);
    ::close(ends[0]);
    EXPECT_EQ(support::waitFor(child), 0);
    std::vector<int> result;
    for (const char c : report)
        result.push_back(c);
    return result;
}

TEST_F(ClosefromTest, ThroughProcFailsUnlessItFindsOnlyNumbersAndItsOwnDescriptor)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    EXPECT_THAT(closedByNames({"3", "4", "5", "6"}), ElementsAre(0, 0, 0, 0)); // Its own is 6.
    EXPECT_THAT(closedByNames({"0", "1", "4", "6"}), ElementsAre(0, 1, 0, 1));
    EXPECT_THAT(closedByNames({"6"}), ElementsAre(0, 1, 1, 1));
    EXPECT_THAT(closedByNames({}), ElementsAre(-1, 1, 1, 1));
    for (const char* const name : {"03", "00", "x", "3x", "x3", "-3", "+3", " 3", "3 ", "0x3", "2147483648",
                                   "99999999999999999999", "2147483647"}) {
        SCOPED_TRACE(name);
        EXPECT_THAT(closedByNames({name}), ElementsAre(-1, 1, 1, 1));
        EXPECT_EQ(closedByNames({name, "6"})[0], -1);
    }
}

TEST_F(ClosefromTest, ThroughProcFailsWithoutItsOwnDescriptor)
{
    if (!support::canMount())
        GTEST_SKIP() << "no private mounts here";
    EXPECT_EQ(closedByNames({"3", "4"})[0], -1);
}

// chroot(2) hides /proc.
TEST_F(ClosefromTest, WithoutProcTheNumbersAreTried)
{
    const ScratchDir scratch;
    const ChildResult result = runInChild([&scratch] {
        closeAllButStandard();
        for (int fd = 3; fd < 20; ++fd)
            ::dup2(0, fd);
        if (::chroot(scratch.path().c_str()) != 0)
            return 1;
        if (closefrom_through_proc(5) != -1 || openNumbers(3).size() != 17)
            return 2;
        closefrom(5);
        return openNumbers(3) == std::vector<int>{3, 4} ? 0 : 3;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(ClosefromTest, MaxClosesUpToTheTableSizeAndKeepsErrno)
{
    inOwnProcess([] {
        closeAllButStandard();
        for (const int fd : {3, 4, 5, 98, 99, 100})
            ASSERT_EQ(::dup2(0, fd), fd);
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = 100;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        errno = EDOM;
        closefrom_max(5);
        EXPECT_EQ(errno, EDOM);
        EXPECT_THAT(openNumbers(3), ElementsAre(3, 4)); // The size itself was tried, too.
    });
}

// A kernel without close_range(2), or with a filter that forbids it.
TEST_F(ClosefromTest, MaxClosesTheSameWithoutCloseRange)
{
    inOwnProcess([] {
        closeAllButStandard();
        for (const int fd : {3, 4, 5, 98, 99, 100, 101})
            ASSERT_EQ(::dup2(0, fd), fd);
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = 100;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        const FailingCall missing(Call::closeRange, 1, ENOSYS);
        errno = EDOM;
        closefrom_max(5);
        EXPECT_EQ(errno, EDOM);
        EXPECT_TRUE(missing.happened());
        EXPECT_THAT(openNumbers(3), ElementsAre(3, 4, 101));
    });
}

TEST_F(ClosefromTest, MaxStopsAtTheTableSize)
{
    inOwnProcess([] {
        closeAllButStandard();
        for (const int fd : {99, 100, 101})
            ASSERT_EQ(::dup2(0, fd), fd);
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = 100;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        closefrom_max(3);
        EXPECT_THAT(openNumbers(3), ElementsAre(101));
    });
}

TEST_F(ClosefromTest, NegativeNumberClosesEverything)
{
    for (void (*const close)(int) :
         {static_cast<void (*)(int)>(closefrom), static_cast<void (*)(int)>(closefrom_max)})
        for (const int low : {-1, -7}) {
            SCOPED_TRACE(low);
            const ChildResult result = runInChild([close, low] {
                close(low);
                return openNumbers().empty() ? 0 : 1;
            });
            EXPECT_EQ(result.status, 0);
        }
}

TEST(CloseRangeTest, ClosesBothEndsAndNothingElseAndKeepsErrno)
{
    for (const bool byKernel : {true, false})
        inOwnProcess([byKernel] {
            closeAllButStandard();
            for (int fd = 3; fd < 20; ++fd)
                ASSERT_EQ(::dup2(0, fd), fd);
            std::optional<FailingCall> missing;
            if (!byKernel)
                missing.emplace(Call::closeRange, 1, ENOSYS);
            errno = EDOM;
            zorvo::process::closeRange(5, 17);
            EXPECT_EQ(errno, EDOM);
            EXPECT_THAT(openNumbers(3), ElementsAre(3, 4, 18, 19));
        });
}

TEST(CloseRangeTest, LastBelowFirstClosesNothing)
{
    inOwnProcess([] {
        closeAllButStandard();
        ASSERT_EQ(::dup2(0, 3), 3);
        zorvo::process::closeRange(3, 2);
        zorvo::process::closeRange(3, -1);
        EXPECT_THAT(openNumbers(), ElementsAre(0, 1, 2, 3));
    });
}

TEST_F(ClosefromTest, InterruptedCloseIsRepeated)
{
    for (const Call call : {Call::close, Call::closeNever}) {
        inOwnProcess([call] {
            closeAllButStandard();
            ASSERT_EQ(::dup2(0, 3), 3);
            ASSERT_EQ(::dup2(0, 4), 4);
            FailingCall interrupted(call, 1, EINTR);
            closefrom_through_proc(3);
            interrupted.stop();
            EXPECT_TRUE(interrupted.happened());
            EXPECT_TRUE(openNumbers(3).empty());
        });
    }
}
