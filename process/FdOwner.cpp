#include "process/FdOwner.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace zorvo::process {

FdOwner& FdOwner::operator=(FdOwner&& other) noexcept
{
    if (this != &other) {
        close_nothrow();
        fd_ = other.release();
    }
    return *this;
}

FdOwner::~FdOwner()
{
    close_nothrow();
}

void FdOwner::close(const char* label)
{
    const int fd = release();
    if (fd >= 0 && closeRetrying(fd) != 0)
        throw SystemError(label, errno);
}

void FdOwner::close_nothrow() noexcept
{
    const int error = errno;
    const int fd = release();
    if (fd >= 0)
        closeRetrying(fd);
    errno = error;
}

void moveAboveStandard(FdOwner& fd, const char* label)
{
    if (fd.get() > STDERR_FILENO)
        return;
    const int moved = retryOnEintr([&] { return ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
    if (moved == -1)
        throw SystemError(label, errno);
    fd = FdOwner(moved);
}

PipeOwner::~PipeOwner() noexcept(false) // NOLINT(bugprone-exception-escape)
{
    if (std::uncaught_exceptions() == 0) {
        readEnd.close("pipe read-end close");
        writeEnd.close("pipe write-end close");
    }
}

void PipeOwner::open(const char* label)
{
    int ends[2];
    if (retryOnEintr([&] { return ::pipe2(ends, O_CLOEXEC); }) != 0)
        throw SystemError(label, errno);
    readEnd = FdOwner(ends[0]);
    writeEnd = FdOwner(ends[1]);
    moveAboveStandard(readEnd, label);
    moveAboveStandard(writeEnd, label);
}

bool setNonBlocking(int fd) noexcept
{
    return retryOnEintr([=] { return ::fcntl(fd, F_SETFL, O_NONBLOCK); }) != -1;
}

void ensureStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        const bool closed = retryOnEintr([=] { return ::fcntl(fd, F_GETFD); }) == -1 && errno == EBADF;
        // Every lower one is open, so open(2) returns this number.
        if (closed && retryOnEintr([] { return ::open("/dev/null", O_RDWR); }) == -1)
            throw SystemError("/dev/null open", errno);
    }
}

} // namespace zorvo::process
