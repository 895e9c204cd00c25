#include "process/ProcessSetCatcher.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <utility>

namespace zorvo::process {

namespace {

/// The installed catcher; what the handler works on.
ProcessSetCatcher* volatile installed = nullptr;

} // namespace

void ProcessSetCatcher::install()
{
    if (installed != nullptr)
        throw std::logic_error("ProcessSetCatcher instance has been installed already");

    struct sigaction action = {};
    action.sa_sigaction = childHandler;
    action.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
    retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, nullptr, &action.sa_mask); });
    if (retryOnEintr([&] { return ::sigaction(SIGCHLD, &action, &saved_); }) != 0)
        throw SystemError("sigaction", errno);
    try {
        PipeOwner control;
        control.open("process set catcher control pipe");
        for (const int fd : {control.readEnd.get(), control.writeEnd.get()}) {
            if (!setNonBlocking(fd))
                throw SystemError("control pipe fcntl", errno);
        }
        controlRead_ = std::move(control.readEnd);
        controlWrite_ = std::move(control.writeEnd);
    } catch (...) {
        retryOnEintr([&] { return ::sigaction(SIGCHLD, &saved_, nullptr); });
        throw;
    }
    installed = this;
}

void ProcessSetCatcher::childHandler(int, siginfo_t*, void*)
{
    const int error = errno;
    if (installed != nullptr)
        installed->_collect();
    errno = error;
}

void ProcessSetCatcher::_collect() noexcept
{
    for (;;) {
        int status = 0;
        const pid_t pid = retryOnEintr([&] { return ::waitpid(-1, &status, WNOHANG); });
        if (pid <= 0)
            return;
        const auto child = children_.find(pid);
        if (child == children_.end())
            continue;
        child->second.reaped = 1;
        child->second.status = status;
        events_ = events_ + 1;
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            finished_ = finished_ + 1;
            // A full pipe is as good: one byte in it wakes the loop. After any other failure the end of the
            // pipe does, which is as readable.
            if (retryOnEintr([&] { return ::write(controlWrite_.get(), "t", 1); }) == -1 && errno != EAGAIN)
                controlWrite_.close_nothrow();
        }
    }
}

int ProcessSetCatcher::clear_control() noexcept
{
    const int error = errno;
    int count = 0;
    char byte = 0;
    while (retryOnEintr([&] { return ::read(controlRead_.get(), &byte, 1); }) > 0)
        ++count;
    errno = error;
    return count;
}

void ProcessSetCatcher::remove(bool force)
{
    if (installed != this)
        return;
    controlWrite_.close_nothrow(); // first: the handler must not write to a pipe without a reader
    controlRead_.close_nothrow();
    if (!force && finished_ < children_.size())
        throw std::logic_error("there're some child processes still running");
    // From here on the handler does nothing, so that it cannot meet a table half emptied.
    installed = nullptr;
    children_.clear();
    finished_ = 0;
    events_ = 0;
    if (retryOnEintr([&] { return ::sigaction(SIGCHLD, &saved_, nullptr); }) != 0) {
        installed = this;
        throw SystemError("restore sigaction", errno);
    }
}

ProcessSetCatcher::~ProcessSetCatcher() noexcept(false) // NOLINT(bugprone-exception-escape)
{
    const bool propagating = std::uncaught_exceptions() > 0;
    try {
        remove(propagating);
    } catch (...) {
        // The object goes away whatever happens; the handler must not be left with a dangling pointer.
        installed = nullptr;
        retryOnEintr([&] { return ::sigaction(SIGCHLD, &saved_, nullptr); });
        if (!propagating)
            throw;
    }
}

} // namespace zorvo::process
