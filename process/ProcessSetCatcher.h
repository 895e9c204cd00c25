// ProcessSetCatcher: reaps a known set of children from a SIGCHLD handler and wakes a select(2) loop.
//
// The handler stores each wait status in the table of children and writes a byte into a non-blocking pipe
// whose read end sits in the loop's set. Enter children only while SIGCHLD is blocked. One catcher can be
// installed at a time. While it is, waitpid(2) belongs to it: the handler reaps every child of the process
// and drops the statuses of those that are not in the table, so the exec helpers must not run meanwhile.
#pragma once

#include "process/FdOwner.h"

#include <csignal>
#include <cstdint>
#include <map>

namespace zorvo::process {

/// What is known of one child.
struct ProcessStatus {
    int reaped = 0; ///< 1 once a status was collected.
    int status = 0; ///< Raw wait status (waitpid(2)).
    int pid = 0;    ///< Set in the results of Pipe::run.
};

class ProcessSetCatcher {
public:
    ProcessSetCatcher() = default;
    ProcessSetCatcher(const ProcessSetCatcher&) = delete;
    ProcessSetCatcher& operator=(const ProcessSetCatcher&) = delete;

    /// remove(true) when an exception is propagating, else remove(false), whose exceptions leave; the handler
    /// is taken off in any case. So keep it in a local variable, not in a member or a smart pointer.
    ~ProcessSetCatcher() noexcept(false); // NOLINT(bugprone-exception-escape)

    /// Installs the handler and makes the control pipe. Throws std::logic_error "ProcessSetCatcher instance
    /// has been installed already" and SystemError "sigaction", "process set catcher control pipe" or
    /// "control pipe fcntl"; after any of these nothing is installed.
    void install();

    /// Closes the control pipe, forgets all children and puts the old disposition back. Does nothing when
    /// this catcher is not installed. Throws std::logic_error "there're some child processes still running"
    /// unless `force` (the catcher stays installed, without its pipe), and SystemError "restore sigaction".
    void remove(bool force);

    /// Empties the control pipe and returns the number of bytes that were in it. Keeps errno.
    int clear_control() noexcept;

    /// The signal handler; async-signal-safe, keeps errno.
    static void childHandler(int signal, siginfo_t* info, void* context);

    /// The children by pid. Insert only while SIGCHLD is blocked.
    std::map<int, ProcessStatus>& children() noexcept { return children_; }

    /// Children that exited or were killed.
    uint64_t finishedCount() const noexcept { return finished_; }

    /// Statuses collected for children in the table, stops included.
    uint64_t eventCount() const noexcept { return events_; }

    /// Read end of the control pipe, to be watched for reading; -1 when not installed.
    int controlFd() const noexcept { return controlRead_.get(); }

private:
    void _collect() noexcept;

    std::map<int, ProcessStatus> children_;
    volatile uint64_t finished_ = 0;
    volatile uint64_t events_ = 0;
    struct sigaction saved_ = {};
    FdOwner controlRead_;
    FdOwner controlWrite_;
};

} // namespace zorvo::process
