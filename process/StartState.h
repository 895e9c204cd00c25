// StartState: the descriptors and signals a process was started with, made sane for this program and given
// back to every program that it launches.
//
// A caller may start us with descriptor 0, 1 or 2 closed, with SIGCHLD ignored or blocked, with SIGPIPE
// ignored or not. Launching needs SIGCHLD; a reader that went away must cost a report, not the process;
// and the launched tools must see none of what is changed here.
#pragma once

#include <csignal>

namespace zorvo::process {

/// Opens /dev/null on whichever of the descriptors 0, 1 and 2 is closed, so that no file opened later gets
/// one of these numbers. Throws SystemError "/dev/null open".
void ensureStandardDescriptors();

/// Records the signal mask and the dispositions of SIGCHLD and SIGPIPE as this process was started with, then
/// unblocks both, sets SIGCHLD to its default and ignores SIGPIPE (a failed write reports EPIPE instead).
/// For main, once. Throws SystemError "sigprocmask" or "sigaction".
void takeOverSignals();

/// Within its scope a launched program starts with the mask and the SIGCHLD and SIGPIPE dispositions of the
/// moment this was constructed. Does nothing after takeOverSignals(), whose record counts then.
class LaunchSignals {
public:
    LaunchSignals() noexcept;
    LaunchSignals(const LaunchSignals&) = delete;
    LaunchSignals& operator=(const LaunchSignals&) = delete;
    ~LaunchSignals();

private:
    bool active_;
};

/// In a child between fork and exec: puts the recorded mask and dispositions back; without a record does
/// nothing. Async-signal-safe; failures are ignored.
void restoreStartSignals() noexcept;

} // namespace zorvo::process
