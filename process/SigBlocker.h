// SigBlocker: one signal blocked for the calling thread within a scope.
#pragma once

#include <csignal>

namespace zorvo::process {

class SigBlocker {
public:
    /// Throws SystemError "get sigprocmask", "sigaddset" or "set sigprocmask".
    explicit SigBlocker(int signal);
    SigBlocker(const SigBlocker&) = delete;
    SigBlocker& operator=(const SigBlocker&) = delete;

    /// Puts the mask back that the constructor found. A failure throws SystemError "restore sigprocmask"
    /// unless an exception is in flight.
    ~SigBlocker() noexcept(false); // NOLINT(bugprone-exception-escape)

private:
    sigset_t oldMask_;
};

} // namespace zorvo::process
