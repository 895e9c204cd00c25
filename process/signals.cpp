#include "process/signals.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <cerrno>
#include <exception>
#include <optional>

namespace zorvo::process {

namespace {

/// What launched programs start with. Empty: with what there is.
std::optional<SignalState> startState;

SignalState currentState()
{
    SignalState state = {};
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, nullptr, &state.mask); }) != 0)
        throw SystemError("sigprocmask", errno);
    if (retryOnEintr([&] { return ::sigaction(SIGCHLD, nullptr, &state.child); }) != 0 ||
        retryOnEintr([&] { return ::sigaction(SIGPIPE, nullptr, &state.pipe); }) != 0)
        throw SystemError("sigaction", errno);
    return state;
}

void setDisposition(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    if (retryOnEintr([&] { return ::sigaction(signal, &action, nullptr); }) != 0)
        throw SystemError("sigaction", errno);
}

void makeFit(const SignalState& found)
{
    if (found.child.sa_handler == SIG_IGN)
        setDisposition(SIGCHLD, SIG_DFL);
    setDisposition(SIGPIPE, SIG_IGN);
    sigset_t mask = found.mask;
    ::sigdelset(&mask, SIGCHLD);
    ::sigdelset(&mask, SIGPIPE);
    if (retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &mask, nullptr); }) != 0)
        throw SystemError("sigprocmask", errno);
}

/// The mask first: a SIGPIPE in between must not kill a process that has it blocked.
void putBack(const SignalState& state) noexcept
{
    retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &state.mask, nullptr); });
    retryOnEintr([&] { return ::sigaction(SIGCHLD, &state.child, nullptr); });
    retryOnEintr([&] { return ::sigaction(SIGPIPE, &state.pipe, nullptr); });
}

} // namespace

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

LaunchSignals::LaunchSignals() : found_(currentState()), outermost_(!startState)
{
    if (outermost_)
        startState = found_;
}

LaunchSignals::~LaunchSignals()
{
    if (adapted_)
        putBack(found_);
    if (outermost_)
        startState.reset();
}

void LaunchSignals::adapt()
{
    adapted_ = true;
    makeFit(found_);
}

void takeOverSignals()
{
    startState = currentState();
    makeFit(*startState);
}

void restoreStartSignals() noexcept
{
    if (startState)
        putBack(*startState);
}

} // namespace zorvo::process
