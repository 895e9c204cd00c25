// ProcessLaunch: one child process, from fork to exec, with its standard descriptors.
//
// The constructor returns as soon as the child exists; waitExec() says whether it came to execute its
// program. What fails in the child before that travels back through a control pipe and is thrown here, in
// the parent, with the label of the failed step. Pipe is the public face; use this class directly only where
// a pipeline is not what is wanted.
#pragma once

#include "process/FdOwner.h"

#include <boost/function.hpp>

#include <string_view>

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
    /// signal mask and dispositions of signals.h. Throws std::invalid_argument "invalid FD for stdin",
    /// "... stdout", "... stderr", and SystemError "stdin /dev/null open", "stdin pipe", "stdout ...",
    /// "stderr ...", "pipe", "fork", "close"; no child is left then.
    ProcessLaunch(const char* const* argv, const char* file, const char* cwd, const char* const* envp,
                  bool closeOtherFds, bool searchPath, bool newSession,
                  const boost::function<void()>& childHook, int stdinFd, int stdoutFd, int stderrFd);
    ProcessLaunch(const ProcessLaunch&) = delete;
    ProcessLaunch& operator=(const ProcessLaunch&) = delete;

    /// Closes the parent's ends, ignoring failures; the child goes on.
    ~ProcessLaunch() noexcept;

    /// Blocks until the child executes its program, or throws what the child threw: SystemError,
    /// std::runtime_error or std::exception, its text being the child's what(). SystemError "control pipe
    /// read" when the report cannot be read. The report is read to its end, and its pipe closed, before any
    /// of it is thrown. Does not reap the child: after a failure waitExit() still has to.
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
    [[noreturn]] void _runChild(Standard& standard, const Program& program) noexcept;
    [[noreturn]] void _prepareChild(Standard& standard, const Program& program);
    [[noreturn]] static void _execute(const Program& program);

    int pid_ = -1;
    FdOwner stdin_;
    FdOwner stdout_;
    FdOwner stderr_;
    PipeOwner control_;
};

/// Interprets what a child has sent through the control pipe: records that end with NUL (the last may lack
/// it), each a tag and a text: "ET: " the type of the exception, "EM: " its what(), "EC: " its errno value.
/// Throws it as SystemError, std::runtime_error or a plain std::exception; returns where no type is reported.
/// Any other record goes to std::clog. Throws boost::bad_lexical_cast for a code that is not a number.
void rethrowReport(std::string_view report);

} // namespace zorvo::process
