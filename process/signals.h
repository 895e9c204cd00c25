// signals: what this process does to its signals, each in a scope that puts back what it found, and what the
// programs that it launches get to see of it: nothing.
//
// A caller may start us with SIGCHLD ignored or blocked, with SIGPIPE ignored or not. Launching needs
// SIGCHLD, and a reader that went away must cost an error, not the process. So LaunchSignals records what a
// launched program is to start with, its adapt() makes this process fit, and restoreStartSignals() gives the
// record back in the child. All of this acts on the calling thread's mask: for single-threaded programs.
#pragma once

#include <csignal>

namespace zorvo::process {

/// Blocks one signal within its scope.
class SigBlocker {
public:
    /// Throws SystemError "get sigprocmask", "sigaddset" or "set sigprocmask"; nothing is changed then.
    explicit SigBlocker(int signal);
    SigBlocker(const SigBlocker&) = delete;
    SigBlocker& operator=(const SigBlocker&) = delete;

    /// Puts the mask back that the constructor found. A failure throws SystemError "restore sigprocmask"
    /// unless an exception is in flight: a variable of a function, not a member of an object.
    ~SigBlocker() noexcept(false); // NOLINT(bugprone-exception-escape)

private:
    sigset_t oldMask_;
};

/// The signal mask and the dispositions of the two signals that launching changes.
struct SignalState {
    sigset_t mask;
    struct sigaction child;
    struct sigaction pipe;
};

/// Within its scope a launched program starts with the signals of the moment at which this was constructed;
/// of nested scopes the outermost one counts, and takeOverSignals() more than any.
class LaunchSignals {
public:
    /// Records, changes nothing. Throws SystemError "sigprocmask" or "sigaction".
    LaunchSignals();
    LaunchSignals(const LaunchSignals&) = delete;
    LaunchSignals& operator=(const LaunchSignals&) = delete;

    /// Puts back what adapt() changed; a failure is ignored.
    ~LaunchSignals();

    /// Makes this process fit to launch and feed programs, to the end of the scope: SIGCHLD and SIGPIPE come
    /// through, SIGPIPE is ignored (a failed write reports EPIPE instead), SIGCHLD is not. A handler of
    /// SIGCHLD stays. Throws SystemError "sigprocmask" or "sigaction".
    void adapt();

private:
    SignalState found_;
    bool outermost_;
    bool adapted_ = false;
};

/// LaunchSignals with adapt() to the end of the process, for main: reports written while the process ends
/// must not be killed by a lost reader either. Call it once. Throws as they do.
void takeOverSignals();

/// In a child between fork and exec: puts the recorded mask and dispositions back; without a record does
/// nothing. Async-signal-safe; failures are ignored.
void restoreStartSignals() noexcept;

} // namespace zorvo::process
