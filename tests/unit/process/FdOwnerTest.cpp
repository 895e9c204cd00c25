// FdOwner: a descriptor is closed exactly once, by its owner; 0, 1 and 2 are open.
#include "process/FdOwner.h"

#include "support/OpenFds.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

using faults::Call;
using faults::FailingCall;
using support::openFds;
using tools::inOwnProcess;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::ensureStandardDescriptors;
using zorvo::process::FdOwner;
using zorvo::process::PipeOwner;

namespace {

int newFd()
{
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

} // namespace

TEST(FdOwnerTest, NewOneIsEmpty)
{
    FdOwner owner;
    EXPECT_EQ(owner.get(), -1);
    EXPECT_FALSE(owner.isOpen());
    EXPECT_EQ(owner.release(), -1);
}

TEST(FdOwnerTest, OwnsTheGivenDescriptor)
{
    const int fd = newFd();
    const FdOwner owner(fd);
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(owner.isOpen());
}

TEST(FdOwnerTest, DescriptorZeroIsOpen)
{
    FdOwner owner(0);
    EXPECT_TRUE(owner.isOpen());
    EXPECT_EQ(owner.release(), 0);
}

TEST(FdOwnerTest, DestructionCloses)
{
    const auto before = openFds();
    {
        const FdOwner owner(newFd());
        EXPECT_NE(openFds(), before);
    }
    EXPECT_EQ(openFds(), before);
}

TEST(FdOwnerTest, DestructionRepeatsAnInterruptedClose)
{
    const auto before = openFds();
    const FailingCall interrupted(Call::closeNever, 1, EINTR);
    {
        const FdOwner owner(newFd());
    }
    EXPECT_TRUE(interrupted.happened());
    EXPECT_EQ(openFds(), before);
}

TEST(FdOwnerTest, DestructionIsSilentAndKeepsErrno)
{
    const int fd = newFd();
    ::close(fd);
    errno = EDOM;
    {
        const FdOwner owner(fd);
    }
    EXPECT_EQ(errno, EDOM);
}

TEST(FdOwnerTest, MovingEmptiesTheSource)
{
    const int fd = newFd();
    FdOwner first(fd);
    const FdOwner second(std::move(first));
    EXPECT_EQ(first.get(), -1);
    EXPECT_EQ(second.get(), fd);
    EXPECT_TRUE(isOpen(fd));
}

TEST(FdOwnerTest, AssignmentClosesWhatWasHeld)
{
    const int old = newFd();
    const int fresh = newFd();
    FdOwner target(old);
    FdOwner source(fresh);
    target = std::move(source);
    EXPECT_FALSE(isOpen(old));
    EXPECT_TRUE(isOpen(fresh));
    EXPECT_EQ(target.get(), fresh);
    EXPECT_EQ(source.get(), -1);
}

TEST(FdOwnerTest, ReleasedDescriptorStaysOpen)
{
    const int fd = newFd();
    {
        FdOwner owner(fd);
        EXPECT_EQ(owner.release(), fd);
        EXPECT_EQ(owner.get(), -1);
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

TEST(FdOwnerTest, CloseClosesAndEmpties)
{
    const int fd = newFd();
    FdOwner owner(fd);
    owner.close("label");
    EXPECT_EQ(owner.get(), -1);
    EXPECT_FALSE(isOpen(fd));
}

TEST(FdOwnerTest, FailedCloseThrowsTheLabelAndEmpties)
{
    FdOwner owner(newFd());
    std::string thrown;
    {
        const FailingCall failing(Call::close, 1, EIO);
        thrown = thrownBy([&owner] { owner.close("some step"); });
    }
    EXPECT_EQ(thrown, "zorvo::SystemError(5): some step: Input/output error");
    EXPECT_EQ(owner.get(), -1);
}

TEST(FdOwnerTest, CloseNothrowClosesEmptiesAndKeepsErrno)
{
    const int fd = newFd();
    FdOwner owner(fd);
    errno = EDOM;
    owner.close_nothrow();
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(owner.get(), -1);
    EXPECT_FALSE(isOpen(fd));
}

TEST(FdOwnerTest, CloseNothrowIgnoresFailures)
{
    FdOwner owner(newFd());
    const FailingCall failing(Call::close, 1, EIO);
    errno = EDOM;
    owner.close_nothrow();
    EXPECT_TRUE(failing.happened());
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(owner.get(), -1);
}

TEST(FdOwnerTest, CloseNothrowOfAnEmptyOneTouchesNoDescriptor)
{
    const auto before = openFds();
    FdOwner owner;
    errno = EDOM;
    owner.close_nothrow();
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(openFds(), before);
}

TEST(PipeOwnerTest, ConnectsItsEnds)
{
    PipeOwner pipe;
    pipe.open("label");
    ASSERT_EQ(::write(pipe.writeEnd.get(), "data", 4), 4);
    pipe.writeEnd.close("label");
    EXPECT_EQ(support::readAll(pipe.readEnd.get()), "data");
}

TEST(PipeOwnerTest, EndsAreClosedOnExec)
{
    PipeOwner pipe;
    pipe.open("label");
    EXPECT_EQ(::fcntl(pipe.readEnd.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(pipe.writeEnd.get(), F_GETFD), FD_CLOEXEC);
}

TEST(PipeOwnerTest, EndsBlock)
{
    PipeOwner pipe;
    pipe.open("label");
    EXPECT_EQ(::fcntl(pipe.readEnd.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(pipe.writeEnd.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(PipeOwnerTest, DestructionClosesBothEnds)
{
    const auto before = openFds();
    {
        PipeOwner pipe;
        pipe.open("label");
        EXPECT_EQ(openFds().size(), before.size() + 2);
    }
    EXPECT_EQ(openFds(), before);
}

// Every subset of 0, 1 and 2 closed: neither end gets one of these numbers, and none is left open there.
TEST(PipeOwnerTest, EndsAreNeverStandardDescriptors)
{
    for (int closed = 0; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        // The result travels in the exit status: descriptor 2 is not there to report on.
        const auto result = support::runInChild([closed] {
            for (int fd = 0; fd < 3; ++fd)
                if ((closed & (1 << fd)) != 0)
                    ::close(fd);
            PipeOwner pipe;
            pipe.open("label");
            if (pipe.readEnd.get() < 3 || pipe.writeEnd.get() < 3)
                return 1;
            if (::fcntl(pipe.readEnd.get(), F_GETFD) != FD_CLOEXEC ||
                ::fcntl(pipe.writeEnd.get(), F_GETFD) != FD_CLOEXEC)
                return 2;
            for (int fd = 0; fd < 3; ++fd)
                if (isOpen(fd) != ((closed & (1 << fd)) == 0))
                    return 3;
            return 0;
        });
        EXPECT_EQ(result.status, 0);
    }
}

TEST(PipeOwnerTest, FailedOpenThrowsTheLabelAndLeavesNothing)
{
    inOwnProcess([] {
        const auto before = openFds();
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        const rlim_t full = limit.rlim_cur;
        limit.rlim_cur = static_cast<rlim_t>(before.rbegin()->first) + 2; // One free number at the end.
        for (int fd = 0; fd < before.rbegin()->first; ++fd)
            if (before.count(fd) == 0)
                ::dup2(0, fd);
        const auto filled = openFds();
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        PipeOwner pipe;
        const std::string thrown = thrownBy([&pipe] { pipe.open("some pipe"); });
        limit.rlim_cur = full;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(thrown, systemError("some pipe", EMFILE));
        EXPECT_FALSE(pipe.readEnd.isOpen());
        EXPECT_FALSE(pipe.writeEnd.isOpen());
        EXPECT_EQ(openFds(), filled);
    });
}

TEST(PipeOwnerTest, InterruptedOpenIsRepeated)
{
    PipeOwner pipe;
    const FailingCall interrupted(Call::pipe, 1, EINTR);
    pipe.open("label");
    EXPECT_TRUE(interrupted.happened());
    EXPECT_TRUE(pipe.readEnd.isOpen());
    EXPECT_TRUE(pipe.writeEnd.isOpen());
}

TEST(PipeOwnerTest, FailedCloseOfTheReadEndIsThrownAndTheOtherEndClosed)
{
    const auto before = openFds();
    const std::string thrown = thrownBy([] {
        PipeOwner pipe;
        pipe.open("label");
        ::close(pipe.readEnd.get());
    });
    EXPECT_EQ(thrown, "zorvo::SystemError(9): pipe read-end close: Bad file descriptor");
    EXPECT_EQ(openFds(), before);
}

TEST(PipeOwnerTest, FailedCloseOfTheWriteEndIsThrown)
{
    const auto before = openFds();
    const std::string thrown = thrownBy([] {
        PipeOwner pipe;
        pipe.open("label");
        ::close(pipe.writeEnd.get());
    });
    EXPECT_EQ(thrown, "zorvo::SystemError(9): pipe write-end close: Bad file descriptor");
    EXPECT_EQ(openFds(), before);
}

TEST(PipeOwnerTest, FailedCloseIsNotThrownWhileAnExceptionIsInFlight)
{
    const auto before = openFds();
    const std::string thrown = thrownBy([] {
        PipeOwner pipe;
        pipe.open("label");
        ::close(pipe.readEnd.get());
        ::close(pipe.writeEnd.get());
        throw std::runtime_error("the first failure");
    });
    EXPECT_EQ(thrown, "std::runtime_error: the first failure");
    EXPECT_EQ(openFds(), before);
}

TEST(MoveAboveStandardTest, HigherNumberStaysAsItIs)
{
    FdOwner owner(newFd());
    const int fd = owner.get();
    ASSERT_GE(fd, 3);
    zorvo::process::moveAboveStandard(owner, "label");
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(isOpen(fd));
}

TEST(MoveAboveStandardTest, StandardNumberIsGivenUpAndTheNewOneIsClosedOnExec)
{
    const auto result = support::runInChild([] {
        ::close(0);
        FdOwner owner(newFd());
        if (owner.get() != 0)
            return 1;
        zorvo::process::moveAboveStandard(owner, "label");
        if (owner.get() < 3 || ::fcntl(owner.get(), F_GETFD) != FD_CLOEXEC)
            return 2;
        return isOpen(0) ? 3 : 0;
    });
    EXPECT_EQ(result.status, 0);
}

TEST(MoveAboveStandardTest, FailureThrowsTheLabel)
{
    inOwnProcess([] {
        ::close(0);
        FdOwner owner(newFd());
        ASSERT_EQ(owner.get(), 0);
        const FailingCall failing(Call::fcntl, 1, EMFILE);
        EXPECT_EQ(thrownBy([&owner] { zorvo::process::moveAboveStandard(owner, "some step"); }),
                  systemError("some step", EMFILE));
    });
}

TEST(EnsureStandardDescriptorsTest, ClosedOnesBecomeDevNullAndOthersStay)
{
    for (unsigned closed = 0; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        const auto result = support::runInChild([closed] {
            auto expected = openFds();
            for (int fd = 0; fd < 3; ++fd)
                if ((closed & (1U << fd)) != 0) {
                    ::close(fd);
                    expected[fd] = "/dev/null";
                }
            ensureStandardDescriptors();
            return openFds() == expected ? 0 : 1;
        });
        EXPECT_EQ(result.status, 0);
    }
}

TEST(EnsureStandardDescriptorsTest, FilledDescriptorsSurviveExec)
{
    const auto result = support::runInChild([] {
        ::close(0);
        ensureStandardDescriptors();
        return ::fcntl(0, F_GETFD);
    });
    EXPECT_EQ(result.status, 0);
}

TEST(EnsureStandardDescriptorsTest, FailureThrows)
{
    inOwnProcess([] {
        ::close(0);
        const FailingCall failing(Call::open, 1, ENOENT);
        EXPECT_EQ(thrownBy(ensureStandardDescriptors), systemError("/dev/null open", ENOENT));
    });
}

TEST(EnsureStandardDescriptorsTest, InterruptedOpenIsRepeated)
{
    inOwnProcess([] {
        ::close(0);
        const FailingCall interrupted(Call::open, 1, EINTR);
        ensureStandardDescriptors();
        EXPECT_TRUE(interrupted.happened());
        EXPECT_EQ(openFds().at(0), "/dev/null");
    });
}
