// StartState: see the header.
#include "process/StartState.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace zorvo::process {

namespace {

/// What a launched program is to start with.
struct SignalState {
    sigset_t mask;
    struct sigaction child;
    struct sigaction pipe;
};

SignalState recorded;
bool isRecorded = false;

/// Null, or the name of the call that failed, with errno.
const char* record() noexcept
{
    isRecorded = false;
    if (retryOnEintr([] { return ::sigprocmask(SIG_SETMASK, nullptr, &recorded.mask); }) != 0)
        return "sigprocmask";
    if (retryOnEintr([] { return ::sigaction(SIGCHLD, nullptr, &recorded.child); }) != 0 ||
        retryOnEintr([] { return ::sigaction(SIGPIPE, nullptr, &recorded.pipe); }) != 0)
        return "sigaction";
    isRecorded = true;
    return nullptr;
}

void setDisposition(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    if (retryOnEintr([&] { return ::sigaction(signal, &action, nullptr); }) != 0)
        throw SystemError("sigaction", errno);
}

} // namespace

void ensureStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        const bool closed = retryOnEintr([&] { return ::fcntl(fd, F_GETFD); }) == -1 && errno == EBADF;
        // Every lower one is open, so open(2) returns this number.
        if (closed && retryOnEintr([] { return ::open("/dev/null", O_RDWR); }) == -1)
            throw SystemError("/dev/null open", errno);
    }
}

void takeOverSignals()
{
    if (const char* const failed = record())
        throw SystemError(failed, errno);
    sigset_t mask = recorded.mask;
    ::sigdelset(&mask, SIGCHLD);
    ::sigdelset(&mask, SIGPIPE);
    setDisposition(SIGCHLD, SIG_DFL);
    setDisposition(SIGPIPE, SIG_IGN);
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &mask, nullptr); }) != 0)
        throw SystemError("sigprocmask", errno);
}

LaunchSignals::LaunchSignals() noexcept : active_(!isRecorded && record() == nullptr) {}

LaunchSignals::~LaunchSignals()
{
    if (active_)
        isRecorded = false;
}

void restoreStartSignals() noexcept
{
    if (!isRecorded)
        return;
    retryOnEintr([] { return ::sigaction(SIGCHLD, &recorded.child, nullptr); });
    retryOnEintr([] { return ::sigaction(SIGPIPE, &recorded.pipe, nullptr); });
    retryOnEintr([] { return ::sigprocmask(SIG_SETMASK, &recorded.mask, nullptr); });
}

} // namespace zorvo::process
