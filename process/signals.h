// SigBlocker and SigIgnorer: one signal blocked for the calling thread, or ignored, within a scope.
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

/// Ignores a signal within its scope and then puts the disposition back that it found. A program launched in
/// the scope inherits this, so record what it is to start with first (LaunchSignals).
class SigIgnorer {
public:
    explicit SigIgnorer(int signal) noexcept;
    SigIgnorer(const SigIgnorer&) = delete;
    SigIgnorer& operator=(const SigIgnorer&) = delete;
    ~SigIgnorer();

private:
    int signal_;
    struct sigaction before_ = {};
    sigset_t oldMask_ = {};
};

} // namespace zorvo::process
