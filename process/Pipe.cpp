#include "process/Pipe.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "process/signals.h"

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <stdexcept>

namespace zorvo::process {

namespace {

/// The bits of a wait status that make it a failure: the exit code and the signal.
constexpr int failureMask = 0xff7f;

int selectorOrInherit(int selector)
{
    return selector == -1 ? static_cast<int>(kInheritFd) : selector;
}

void closePipes(ProcessLaunch& launch) noexcept
{
    launch.stdinPipe().close_nothrow();
    launch.stdoutPipe().close_nothrow();
    launch.stderrPipe().close_nothrow();
}

/// After a failure: closes all pipes, so that the children see the end of their data, and waits for those
/// that the handler has not reaped.
void abandon(const boost::scoped_ptr<ProcessLaunch>* launches, size_t count, ProcessSetCatcher& catcher)
{
    const SigBlocker blocker(SIGCHLD);
    for (size_t i = 0; i < count; ++i)
        closePipes(*launches[i]);
    for (const auto& child : catcher.children()) {
        if (!child.second.reaped)
            retryOnEintr([&] { return ::waitpid(child.first, nullptr, 0); });
    }
}

/// The launch of process `index` of a pipeline.
std::unique_ptr<ProcessLaunch> launch(const std::vector<Parameters<PipeProcessFlags>>& processes,
                                      size_t index, int stdinFd, int lastStdout)
{
    const Parameters<PipeProcessFlags>& process = processes[index];
    if (process.program.empty() && process.arguments.empty())
        throw std::invalid_argument("a process without a program");
    const std::string& program = process.program.empty() ? process.arguments.front() : process.program;
    const bool searchPath = program.empty() || (program[0] != '.' && program[0] != '/');
    std::vector<const char*> argv;
    for (const std::string& argument : process.arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);

    const bool last = index + 1 == processes.size();
    return std::make_unique<ProcessLaunch>(
        argv.data(), program.c_str(),
        process.workingDirectory.empty() ? nullptr : process.workingDirectory.c_str(), process.environment,
        process.closeOtherFds, searchPath, false, process.childHook, stdinFd,
        last ? lastStdout : static_cast<int>(kPipeFd), selectorOrInherit(process.stderrFd));
}

/// Ends and reaps the first `count` of a pipeline that cannot be launched whole.
void endLaunched(const boost::scoped_ptr<ProcessLaunch>* launches, size_t count) noexcept
{
    for (size_t i = 0; i < count; ++i) {
        closePipes(*launches[i]);
        launches[i]->end();
    }
}

} // namespace

void launchAll(const std::vector<Parameters<PipeProcessFlags>>& processes, int firstStdin, int lastStdout,
               ProcessSetCatcher& catcher, boost::scoped_ptr<ProcessLaunch>* launches,
               std::vector<ProcessStatus>& statuses)
{
    const LaunchSignals signals;
    const SigBlocker blocker(SIGCHLD);
    catcher.install();
    statuses.assign(processes.size(), ProcessStatus());
    size_t launched = 0; // what stands in the other slots is of an earlier use
    try {
        for (size_t i = 0; i < processes.size(); ++i) {
            const int stdinFd = i == 0 ? firstStdin : launches[i - 1]->stdoutPipe().get();
            launches[i].reset(launch(processes, i, stdinFd, lastStdout).release());
            launched = i + 1;
            launches[i]->waitExec();
            const int pid = launches[i]->pid();
            catcher.children()[pid] = ProcessStatus();
            statuses[i].pid = pid;
            // From now on only the new process reads it, so that the one before notices when it ends.
            if (i > 0)
                launches[i - 1]->stdoutPipe().close("pipe read-end close");
            if (processes[i].launchCallback)
                processes[i].launchCallback(pid);
        }
    } catch (...) {
        endLaunched(launches, launched);
        throw;
    }
}

void Pipe::_fillProcessFlags()
{
    for (Parameters<PipeProcessFlags>& process : processes_) {
        if (process.workingDirectory.empty())
            process.workingDirectory = workingDirectory;
        if (environment != nullptr && process.environment != nullptr)
            process.environment = environment;
        process.closeOtherFds = process.closeOtherFds || closeOtherFds;
        if (!process.childHook)
            process.childHook = childHook;
        if (process.stderrFd == -1 && stderrFd != -1) {
            process.stderrFd = stderrFd;
            process.stderrReceiver = stderrReceiver;
        }
        if (!process.launchCallback)
            process.launchCallback = launchCallback;
    }
}

/// Feeds and collects until all processes have ended.
void Pipe::_pump(const boost::scoped_ptr<ProcessLaunch>* launches, ProcessSetCatcher& catcher)
{
    const size_t count = processes_.size();
    Pump pump;
    if (launches[0]->stdinPipe().isOpen())
        pump.setInput(launches[0]->stdinPipe(), stdinSource);
    if (launches[count - 1]->stdoutPipe().isOpen())
        pump.addOutput(launches[count - 1]->stdoutPipe(), stdoutReceiver);
    for (size_t i = 0; i < count; ++i) {
        if (launches[i]->stderrPipe().isOpen())
            pump.addOutput(launches[i]->stderrPipe(), processes_[i].stderrReceiver);
    }
    pump.run(catcher);

    for (ProcessStatus& status : statuses_) {
        const auto child = catcher.children().find(status.pid);
        if (child == catcher.children().end())
            throw std::out_of_range("no such pid");
        status.reaped = child->second.reaped;
        status.status = child->second.status;
    }
    if (pump.inputRefused() && (statuses_.front().status & failureMask) == 0)
        throw SystemError("write", EPIPE);
}

int Pipe::run()
{
    if (!statuses_.empty())
        throw std::logic_error("the pipe has been launched already");
    if (processes_.empty())
        throw std::logic_error("No processes to launch were assigned so far");
    _fillProcessFlags();

    const size_t count = processes_.size();
    LaunchSignals signals;
    signals.adapt();
    const auto launches = std::make_unique<boost::scoped_ptr<ProcessLaunch>[]>(count);
    ProcessSetCatcher catcher;
    launchAll(processes_, selectorOrInherit(stdinFd), selectorOrInherit(stdoutFd), catcher, launches.get(),
              statuses_);
    try {
        _pump(launches.get(), catcher);
    } catch (...) {
        abandon(launches.get(), count, catcher);
        throw;
    }
    return statuses_.back().status;
}

void collectOutput(std::string& target, const std::vector<char>& chunk)
{
    target.append(chunk.begin(), chunk.end());
}

OutputReceiver makeStringReceiver(std::string& target)
{
    return [&target](const std::vector<char>& chunk) { collectOutput(target, chunk); };
}

} // namespace zorvo::process
