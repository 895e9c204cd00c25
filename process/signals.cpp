// signals: see the header.
#include "process/signals.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <cerrno>
#include <exception>

namespace zorvo::process {

SigBlocker::SigBlocker(int signal) : oldMask_()
{
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, nullptr, &oldMask_); }) != 0)
        throw SystemError("get sigprocmask", errno);
    sigset_t mask = oldMask_;
    if (::sigaddset(&mask, signal) != 0)
        throw SystemError("sigaddset", errno);
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &mask, nullptr); }) != 0)
        throw SystemError("set sigprocmask", errno);
}

SigBlocker::~SigBlocker() noexcept(false) // NOLINT(bugprone-exception-escape)
{
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &oldMask_, nullptr); }) != 0 &&
        std::uncaught_exceptions() == 0)
        throw SystemError("restore sigprocmask", errno);
}

SigIgnorer::SigIgnorer(int signal) noexcept : signal_(signal)
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    retryOnEintr([&] { return ::sigaction(signal_, &ignore, &before_); });
    sigset_t ignored;
    ::sigemptyset(&ignored);
    ::sigaddset(&ignored, signal_);
    retryOnEintr([&] { return ::sigprocmask(SIG_UNBLOCK, &ignored, &oldMask_); });
}

SigIgnorer::~SigIgnorer()
{
    retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &oldMask_, nullptr); });
    retryOnEintr([&] { return ::sigaction(signal_, &before_, nullptr); });
}

} // namespace zorvo::process
