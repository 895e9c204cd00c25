// closeRetrying: an interruption is no failure, and a failure is no interruption.
#include "common/eintr.h"

#include "support/LibcFaults.h"
#include "support/OpenFds.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

using support::LibcCall;
using support::LibcFault;
using support::openFds;
using zorvo::closeRetrying;

namespace {

int newDescriptor()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

} // namespace

TEST(CloseRetryingTest, ClosesAndReturnsZero)
{
    const auto before = openFds();
    EXPECT_EQ(0, closeRetrying(newDescriptor()));
    EXPECT_EQ(before, openFds());
}

TEST(CloseRetryingTest, InterruptedCloseIsRepeated)
{
    const auto before = openFds();
    const int fd = newDescriptor();
    const LibcFault fault(LibcCall::Close, EINTR, 3);
    EXPECT_EQ(0, closeRetrying(fd));
    EXPECT_EQ(0, fault.left());
    EXPECT_EQ(before, openFds());
}

TEST(CloseRetryingTest, BadDescriptorIsAFailure)
{
    const int fd = newDescriptor();
    ASSERT_EQ(0, closeRetrying(fd));
    errno = 0;
    EXPECT_EQ(-1, closeRetrying(fd));
    EXPECT_EQ(EBADF, errno);
}

TEST(CloseRetryingTest, OtherFailureIsReturnedAtOnce)
{
    const int fd = newDescriptor();
    const LibcFault fault(LibcCall::Close, EIO, 2);
    EXPECT_EQ(-1, closeRetrying(fd));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(1, fault.left());
}
