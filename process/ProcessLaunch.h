// ProcessLaunch: one child process, from fork to exec, with its standard descriptors.
//
// The constructor returns as soon as the child exists; waitExec() tells whether it came to execute its
// program. What fails in the child before that travels back through a control pipe and is thrown here, in
// the parent, with the label of the failed step. Pipe is the public face; use this class directly only where
// a pipeline is not what is wanted.
#pragma once

#include "process/FdOwner.h"

#include <boost/function.hpp>

#include <cstddef>
#include <string>

namespace zorvo::process {

/// What a child's standard descriptor becomes; 0 or more is a caller's descriptor, duplicated and left open.
enum DescriptorSelector {
    kInheritFd = -2,     ///< Inherited unchanged.
    kDevNullFd = -3,     ///< /dev/null.
    kPipeFd = -4,        ///< A new pipe, whose other end the parent keeps.
    kSameAsStdoutFd = -5 ///< Standard error only: the descriptor chosen for standard output, which has to be
                         ///< an inherited one or a caller's: a pipe or /dev/null fails with "stderr dup2".
};

class ProcessLaunch {
public:
    /// Forks and starts `file` with `argv` (null-terminated). `cwd` (null: the parent's) becomes the working
    /// directory; `envp` (null: the parent's) the environment, with execve(2); without it `searchPath`
    /// chooses between execvp(3) and execv(3). `closeOtherFds` closes all descriptors from 3 on, `newSession`
    /// calls setsid(2), `childHook` (may be empty) runs in the child right before exec. The child gets the
    /// signal mask and dispositions of StartState.h. Throws std::invalid_argument "invalid FD for stdin",
    /// "... stdout", "... stderr", and SystemError "stdin /dev/null open", "stdin pipe", "stdout ...",
    /// "stderr ...", "pipe", "fork", "close"; no child is left then.
    ProcessLaunch(const char* const* argv, const char* file, const char* cwd, const char* const* envp,
                  bool closeOtherFds, bool searchPath, bool newSession,
                  const boost::function<void()>& childHook, int stdinFd, int stdoutFd, int stderrFd);
    ProcessLaunch(const ProcessLaunch&) = delete;
    ProcessLaunch& operator=(const ProcessLaunch&) = delete;

    /// Blocks until the child executes its program, or throws what the child threw: SystemError,
    /// std::runtime_error or std::exception, its text being the child's what(). SystemError "control pipe
    /// read" when the report cannot be read. Does not reap the child: after a failure waitExit() still has
    /// to.
    void waitExec();

    /// Blocks until the child ends and returns its raw wait status (waitpid(2)).
    /// Throws SystemError "unable to wait for child process exit".
    int waitExit();

    /// Kills the child (SIGKILL) and reaps it. For a child whose launch came to nothing.
    void end() noexcept;

    int pid() const noexcept { return pid_; }

    /// The parent's ends of the pipes; empty where the selector was not kPipeFd.
    FdOwner& stdinPipe() noexcept { return stdin_; }
    FdOwner& stdoutPipe() noexcept { return stdout_; }
    FdOwner& stderrPipe() noexcept { return stderr_; }

private:
    struct Standard;
    struct Program;
    [[noreturn]] void runChild(Standard& standard, const Program& program) noexcept;
    void prepareChild(Standard& standard, const Program& program);

    int pid_ = -1;
    FdOwner stdin_;
    FdOwner stdout_;
    FdOwner stderr_;
    PipeOwner control_;
};

/// The reading side of the control pipe: NUL-terminated records of a tag and a text, "ET: " for the type of
/// the exception, "EM: " for its what(), "EC: " for its errno value. Any other record goes to std::clog.
class LaunchReport {
public:
    /// Takes the next bytes of the report; records may be split anywhere.
    /// Throws boost::bad_lexical_cast for a code that is no number.
    void feed(const char* bytes, size_t size);

    /// Takes an unterminated rest as a last record. Returns when no exception was reported, else throws it:
    /// SystemError, std::runtime_error or a plain std::exception.
    void finish();

private:
    void takeRecord(const std::string& record);

    std::string type_;
    std::string message_;
    int code_ = 0;
    std::string partial_;
};

} // namespace zorvo::process
