// Pipe: runs one external program, or several as a pipeline, to the end, with data fed to the first one's
// standard input and output collected through callbacks.
//
//     Pipe pipe;
//     pipe.processes().push_back(Parameters<PipeProcessFlags>("/usr/sbin/postconf", "-h", "mynetworks"));
//     std::string out;
//     pipe.stdoutFd = kPipeFd;
//     pipe.stdoutReceiver = makeStringReceiver(out);
//     int status = pipe.run();
//
// A selector that is not set means that the child inherits the parent's descriptor and nothing is captured.
// run() installs a SIGCHLD handler while it works (ProcessSetCatcher), ignores SIGPIPE and blocks; it is for
// single-threaded programs. A Pipe runs once.
//
// A process that ends without having read its input has usually said why: then its status and its error
// output are the result, as if it had read all. Only one that ends with status 0 nevertheless makes run()
// throw, so that no lost input passes for success.
#pragma once

#include "process/ProcessLaunch.h"
#include "process/ProcessSetCatcher.h"
#include "process/Pump.h"

#include <boost/function.hpp>
#include <boost/scoped_ptr.hpp>

#include <string>
#include <vector>

namespace zorvo::process {

/// Settings of one process; in a Pipe, the defaults for those processes that do not set their own.
struct CommonFlags {
    std::string workingDirectory;              ///< Empty: the parent's.
    const char* const* environment = nullptr;  ///< Null: the parent's. Borrowed until the launch.
    bool closeOtherFds = false;                ///< Close all descriptors from 3 on.
    boost::function<void()> childHook;         ///< Runs in the child right before exec.
    int stderrFd = -1;                         ///< DescriptorSelector or descriptor; -1: kInheritFd.
    OutputReceiver stderrReceiver;             ///< Needed with kPipeFd.
    boost::function<void(int)> launchCallback; ///< Called in the parent with the pid after each exec.
};

struct PipeFlags : CommonFlags {
    int stdinFd = -1;              ///< Of the first process; -1: kInheritFd.
    InputSource stdinSource;       ///< Feeds the first process when stdinFd is kPipeFd.
    int stdoutFd = -1;             ///< Of the last process; -1: kInheritFd.
    OutputReceiver stdoutReceiver; ///< Needed with kPipeFd.
};

/// The settings of a process inside a Pipe.
struct PipeProcessFlags : CommonFlags {};

/// One process: its settings, its program and its arguments.
template <class Flags>
struct Parameters : Flags {
    Parameters() = default;

    /// The argument vector: the first string always, then the others up to the first empty one.
    Parameters(const std::string& arg0, const std::string& arg1 = std::string(),
               const std::string& arg2 = std::string(), const std::string& arg3 = std::string(),
               const std::string& arg4 = std::string(), const std::string& arg5 = std::string(),
               const std::string& arg6 = std::string(), const std::string& arg7 = std::string(),
               const std::string& arg8 = std::string(), const std::string& arg9 = std::string())
    {
        arguments.reserve(10);
        arguments.push_back(arg0);
        for (const std::string* arg : {&arg1, &arg2, &arg3, &arg4, &arg5, &arg6, &arg7, &arg8, &arg9}) {
            if (arg->empty())
                break;
            arguments.push_back(*arg);
        }
    }

    std::string program; ///< Empty: the first argument. Searched in PATH unless it begins with '.' or '/'.
    std::vector<std::string> arguments; ///< Element 0 is the program's name as the child sees it.
};

class Pipe : public PipeFlags {
public:
    Pipe() = default;
    virtual ~Pipe() = default;

    /// Launches all processes, feeds and collects until every pipe is closed, waits for every child.
    /// Returns the raw wait status of the last process. Throws std::logic_error "the pipe has been launched
    /// already" and "No processes to launch were assigned so far"; what ProcessLaunch, Pump, a receiver or
    /// the source throws; SystemError "write" with EPIPE, with the statuses stored, when the first process
    /// has ended with status 0 before it took all its input.
    /// After any failure no child and no descriptor is left: the children of a pipeline that could not be
    /// launched whole are killed, all others are waited for.
    int run();

    /// The processes in pipeline order.
    std::vector<Parameters<PipeProcessFlags>>& processes() noexcept { return processes_; }

    /// One result a process in pipeline order, with its pid; empty before run().
    const std::vector<ProcessStatus>& statuses() const noexcept { return statuses_; }

private:
    void _fillProcessFlags();
    void _pump(const boost::scoped_ptr<ProcessLaunch>* launches, ProcessSetCatcher& catcher);

    std::vector<Parameters<PipeProcessFlags>> processes_;
    std::vector<ProcessStatus> statuses_;
};

/// Starts all processes of a pipeline in order, each after the one before came to execute its program, and
/// enters them in the table of `catcher`, which is installed here; SIGCHLD is blocked meanwhile. `launches`
/// is an array of as many owners as there are processes; `statuses` gets an element with the pid for each.
/// A launch replaces its slot's previous one when its turn comes. After a failure every child started here
/// has been ended and reaped.
void launchAll(const std::vector<Parameters<PipeProcessFlags>>& processes, int firstStdin, int lastStdout,
               ProcessSetCatcher& catcher, boost::scoped_ptr<ProcessLaunch>* launches,
               std::vector<ProcessStatus>& statuses);

/// Appends the bytes of `chunk` to `target`.
void collectOutput(std::string& target, const std::vector<char>& chunk);

/// A receiver that appends everything to `target`, which has to outlive it.
OutputReceiver makeStringReceiver(std::string& target);

} // namespace zorvo::process
