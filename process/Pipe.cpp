// Pipe: see the header.
#include "process/Pipe.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "process/signals.h"
#include "process/StartState.h"

#include <boost/bind/bind.hpp>

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <list>
#include <memory>
#include <stdexcept>

namespace zorvo::process {

namespace {

constexpr size_t chunkSize = 1024;
const char* const closeLabel = "pipe read-end close";

int selectorOrInherit(int selector)
{
    return selector == -1 ? static_cast<int>(kInheritFd) : selector;
}

/// The signals that a running pipeline depends on, whatever the caller made of them: SIGCHLD comes through,
/// and a child that stops reading its input costs an error and not this process.
class PumpSignals {
public:
    PumpSignals() : oldMask_()
    {
        sigset_t child;
        ::sigemptyset(&child);
        ::sigaddset(&child, SIGCHLD);
        retryOnEintr([&] { return ::sigprocmask(SIG_UNBLOCK, &child, &oldMask_); });
    }
    PumpSignals(const PumpSignals&) = delete;
    PumpSignals& operator=(const PumpSignals&) = delete;
    ~PumpSignals()
    {
        retryOnEintr([&] { return ::sigprocmask(SIG_SETMASK, &oldMask_, nullptr); });
    }

private:
    SigIgnorer ignorer_{SIGPIPE}; // first, as its mask is the one to end with
    sigset_t oldMask_;
};

/// The parent's ends of a running pipeline in one select(2) loop.
class Pump {
public:
    void addOutput(FdOwner& fd, const OutputReceiver& receiver)
    {
        watch(fd.get());
        outputs_.push_back(Output{&fd, &receiver});
    }

    void setInput(FdOwner& fd, const InputSource& source)
    {
        watch(fd.get());
        input_ = &fd;
        source_ = &source;
        more_ = static_cast<bool>(source);
        refill();
    }

    /// Moves data until every descriptor is closed and all children of `catcher` have finished.
    void run(ProcessSetCatcher& catcher)
    {
        checkSelectable(catcher.controlFd());
        while (input_ != nullptr || !outputs_.empty() || catcher.finishedCount() < catcher.children().size())
            pass(catcher);
    }

private:
    struct Output {
        FdOwner* fd;
        const OutputReceiver* receiver;
    };

    static void checkSelectable(int fd)
    {
        // fd_set has no room for it, and select(2) would write behind its end.
        if (fd >= FD_SETSIZE)
            throw SystemError("select", EMFILE);
    }

    static void watch(int fd)
    {
        checkSelectable(fd);
        if (retryOnEintr([&] { return ::fcntl(fd, F_SETFL, O_NONBLOCK); }) == -1)
            throw SystemError("fcntl", errno);
    }

    void pass(ProcessSetCatcher& catcher)
    {
        fd_set readable;
        fd_set writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        int last = catcher.controlFd();
        FD_SET(last, &readable);
        for (const Output& output : outputs_) {
            FD_SET(output.fd->get(), &readable);
            last = std::max(last, output.fd->get());
        }
        if (input_ != nullptr) {
            FD_SET(input_->get(), &writable);
            last = std::max(last, input_->get());
        }
        const int ready =
            retryOnEintr([&] { return ::select(last + 1, &readable, &writable, nullptr, nullptr); });
        if (ready == -1)
            throw SystemError("select", errno);

        if (FD_ISSET(catcher.controlFd(), &readable))
            catcher.clear_control();
        if (input_ != nullptr && FD_ISSET(input_->get(), &writable))
            writeInput();
        for (auto output = outputs_.begin(); output != outputs_.end();) {
            const bool open = !FD_ISSET(output->fd->get(), &readable) || readOutput(*output);
            output = open ? std::next(output) : outputs_.erase(output);
        }
    }

    /// One read. False at end of file, with the descriptor closed.
    bool readOutput(const Output& output)
    {
        buffer_.resize(chunkSize);
        const ssize_t size =
            retryOnEintr([&] { return ::read(output.fd->get(), buffer_.data(), buffer_.size()); });
        if (size == -1) {
            if (errno == EAGAIN)
                return true;
            throw SystemError("read", errno);
        }
        if (size == 0) {
            output.fd->close(closeLabel);
            return false;
        }
        buffer_.resize(static_cast<size_t>(size));
        (*output.receiver)(buffer_);
        return true;
    }

    /// Takes the next bytes from the source, or closes the descriptor where there are none.
    void refill()
    {
        pending_.clear();
        written_ = 0;
        while (more_ && pending_.empty())
            more_ = (*source_)(pending_);
        if (pending_.empty()) {
            input_->close(closeLabel);
            input_ = nullptr;
        }
    }

    void writeInput()
    {
        const ssize_t size = retryOnEintr(
            [&] { return ::write(input_->get(), pending_.data() + written_, pending_.size() - written_); });
        if (size == -1) {
            if (errno == EAGAIN)
                return;
            throw SystemError("write", errno);
        }
        written_ += static_cast<size_t>(size);
        if (written_ == pending_.size())
            refill();
    }

    std::list<Output> outputs_;
    std::vector<char> buffer_;
    FdOwner* input_ = nullptr;
    const InputSource* source_ = nullptr;
    bool more_ = false;
    std::vector<char> pending_;
    size_t written_ = 0;
};

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

/// Launches process `index` of a pipeline and returns when it executes its program.
void launchOne(const std::vector<Parameters<PipeProcessFlags>>& processes, size_t index, int firstStdin,
               int lastStdout, boost::scoped_ptr<ProcessLaunch>* launches)
{
    const Parameters<PipeProcessFlags>& process = processes[index];
    if (process.program.empty() && process.arguments.empty())
        throw std::invalid_argument("a process without a program");
    const std::string& program = process.program.empty() ? process.arguments.front() : process.program;
    const bool searchPath = program.empty() || (program[0] != '.' && program[0] != '/');
    std::vector<const char*> argv;
    argv.reserve(process.arguments.size() + 1);
    for (const std::string& argument : process.arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);

    const bool last = index + 1 == processes.size();
    const int stdinFd = index == 0 ? firstStdin : launches[index - 1]->stdoutPipe().get();
    launches[index].reset(new ProcessLaunch(
        argv.data(), program.c_str(),
        process.workingDirectory.empty() ? nullptr : process.workingDirectory.c_str(), process.environment,
        process.closeOtherFds, searchPath, false, process.childHook, stdinFd,
        last ? lastStdout : static_cast<int>(kPipeFd), selectorOrInherit(process.stderrFd)));
    launches[index]->waitExec();
}

/// Ends and reaps what was launched of a pipeline that cannot be launched whole.
void endLaunched(const boost::scoped_ptr<ProcessLaunch>* launches, size_t count) noexcept
{
    for (size_t i = 0; i < count && launches[i]; ++i) {
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
    // Launches of an earlier use are nothing that a failure may end.
    std::for_each(launches, launches + processes.size(), [](auto& launch) { launch.reset(); });
    try {
        for (size_t i = 0; i < processes.size(); ++i) {
            launchOne(processes, i, firstStdin, lastStdout, launches);
            const int pid = launches[i]->pid();
            catcher.children()[pid] = ProcessStatus();
            statuses[i].pid = pid;
            // From now on only the new process reads it, so that the one before sees when nobody does.
            if (i > 0)
                launches[i - 1]->stdoutPipe().close(closeLabel);
            if (processes[i].launchCallback)
                processes[i].launchCallback(pid);
        }
    } catch (...) {
        endLaunched(launches, processes.size());
        throw;
    }
}

void Pipe::fillProcessFlags()
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

int Pipe::run()
{
    if (!statuses_.empty())
        throw std::logic_error("the pipe has been launched already");
    if (processes_.empty())
        throw std::logic_error("No processes to launch were assigned so far");
    fillProcessFlags();

    const size_t count = processes_.size();
    const std::unique_ptr<boost::scoped_ptr<ProcessLaunch>[]> launches(
        new boost::scoped_ptr<ProcessLaunch>[count]);
    ProcessSetCatcher catcher;
    launchAll(processes_, selectorOrInherit(stdinFd), selectorOrInherit(stdoutFd), catcher, launches.get(),
              statuses_);
    try {
        const PumpSignals signals;
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
    return boost::bind(&collectOutput, boost::ref(target), boost::placeholders::_1);
}

} // namespace zorvo::process
