// The constructor is the parent's side of a launch, _prepareChild the child's, and rethrowReport brings a
// failure back to the parent.
#include "process/ProcessLaunch.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/writeText.h"
#include "process/closefrom.h"
#include "process/signals.h"

#include <boost/lexical_cast.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace zorvo::process {

namespace {

constexpr int exitSystemError = 67;
constexpr int exitException = 66;
constexpr int exitForeign = 65;

constexpr std::string_view typeTag = "ET: ";
constexpr std::string_view messageTag = "EM: ";
constexpr std::string_view codeTag = "EC: ";
constexpr size_t tagLength = 4;

const char* const typeSystemError = "SystemError";
const char* const typeRuntimeError = "std::runtime_error";
const char* const typeException = "std::exception";

/// One standard descriptor of the child: a caller's or inherited number, or one that the launch opened.
struct ChildFd {
    int number = -1; ///< Negative: leave the child's descriptor alone.
    FdOwner created; ///< Owner of `number` where the launch opened it.

    void own(FdOwner&& fd)
    {
        created = std::move(fd);
        number = created.get();
    }
};

/// What the selectors mean for one of the three.
struct Stream {
    bool isRead; ///< By the child.
    const char* invalid;
    const char* devNullLabel;
    const char* pipeLabel;
};

constexpr Stream stdinStream = {true, "invalid FD for stdin", "stdin /dev/null open", "stdin pipe"};
constexpr Stream stdoutStream = {false, "invalid FD for stdout", "stdout /dev/null open", "stdout pipe"};
constexpr Stream stderrStream = {false, "invalid FD for stderr", "stderr /dev/null open", "stderr pipe"};

FdOwner openDevNull(const Stream& stream)
{
    const int flags = (stream.isRead ? O_RDONLY : O_WRONLY) | O_CLOEXEC;
    FdOwner fd(retryOnEintr([=] { return ::open("/dev/null", flags); }));
    if (!fd.isOpen())
        throw SystemError(stream.devNullLabel, errno);
    moveAboveStandard(fd, stream.devNullLabel);
    return fd;
}

/// Resolves `selector` into `child` and returns the parent's end of a new pipe, empty without one.
FdOwner resolve(int selector, const Stream& stream, ChildFd& child)
{
    if (selector == kInheritFd)
        return {};
    if (selector >= 0) {
        child.number = selector;
        return {};
    }
    if (selector == kDevNullFd) {
        child.own(openDevNull(stream));
        return {};
    }
    if (selector != kPipeFd)
        throw std::invalid_argument(stream.invalid);
    PipeOwner pipe;
    pipe.open(stream.pipeLabel);
    child.own(std::move(stream.isRead ? pipe.readEnd : pipe.writeEnd));
    return std::move(stream.isRead ? pipe.writeEnd : pipe.readEnd);
}

/// Lays `fd` over the standard descriptor `target` and closes what the launch opened.
void installStandard(ChildFd& fd, int target, const char* label)
{
    if (fd.number < 0 || fd.number == target)
        return;
    if (retryOnEintr([&] { return ::dup2(fd.number, target); }) == -1)
        throw SystemError(label, errno);
    fd.created.close("close");
}

/// Closes all descriptors from 3 on except `kept`, keeping errno.
void closeOthers(int kept) noexcept
{
    const int error = errno;
    constexpr rlim_t fallback = 20;
    struct rlimit limit = {};
    const rlim_t size = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : fallback;
    const int last = static_cast<int>(std::min<rlim_t>(size, INT_MAX)) - 1;
    closeRange(STDERR_FILENO + 1, std::min(kept - 1, last));
    closeRange(kept + 1, last);
    errno = error;
}

/// Sends one record with its NUL; a parent that went away is no longer interested.
void sendRecord(int fd, const std::string& record)
{
    if (fd >= 0)
        (void)writeAll(fd, {record.c_str(), record.size() + 1});
}

void sendReport(int fd, const char* type, const char* message)
{
    sendRecord(fd, std::string(typeTag).append(type));
    sendRecord(fd, std::string(messageTag).append(message));
}

/// Calls `take` for every record of a report: NUL ends each, except perhaps the last.
template <class Take>
void forEachRecord(std::string_view report, Take take)
{
    while (!report.empty()) {
        const size_t end = std::min(report.find('\0'), report.size());
        take(report.substr(0, end));
        report.remove_prefix(std::min(end + 1, report.size()));
    }
}

} // namespace

struct ProcessLaunch::Standard {
    ChildFd in;
    ChildFd out;
    ChildFd err;
};

struct ProcessLaunch::Program {
    const char* const* argv;
    const char* file;
    const char* cwd;
    const char* const* envp;
    bool closeOtherFds;
    bool searchPath;
    bool newSession;
    const boost::function<void()>& childHook;
};

ProcessLaunch::ProcessLaunch(const char* const* argv, const char* file, const char* cwd,
                             const char* const* envp, bool closeOtherFds, bool searchPath, bool newSession,
                             const boost::function<void()>& childHook, int stdinFd, int stdoutFd,
                             int stderrFd)
{
    Standard standard;
    stdin_ = resolve(stdinFd, stdinStream, standard.in);
    stdout_ = resolve(stdoutFd, stdoutStream, standard.out);
    if (stdoutFd == kInheritFd)
        standard.out.number = STDOUT_FILENO; // what kSameAsStdoutFd copies
    if (stderrFd == kSameAsStdoutFd)
        standard.err.number = standard.out.number;
    else
        stderr_ = resolve(stderrFd, stderrStream, standard.err);

    control_.open("pipe");
    pid_ = retryOnEintr([] { return ::fork(); });
    if (pid_ == -1)
        throw SystemError("fork", errno);
    if (pid_ == 0)
        _runChild(standard, Program{argv, file, cwd, envp, closeOtherFds, searchPath, newSession, childHook});

    try {
        control_.writeEnd.close("close");
        for (ChildFd* const fd : {&standard.in, &standard.out, &standard.err})
            fd->created.close("close");
    } catch (...) {
        end(); // the caller will not learn of this child
        throw;
    }
}

ProcessLaunch::~ProcessLaunch() noexcept
{
    control_.readEnd.close_nothrow();
    control_.writeEnd.close_nothrow();
}

// Runs between fork and exec. The program is single-threaded, so allocating and throwing are safe here.
void ProcessLaunch::_prepareChild(Standard& standard, const Program& program)
{
    control_.readEnd.close("close");
    const int control = control_.writeEnd.get();
    if (retryOnEintr([&] { return ::fcntl(control, F_SETFD, FD_CLOEXEC); }) == -1)
        throw SystemError("control pipe close-on-exec fcntl", errno);
    for (FdOwner* const fd : {&stdin_, &stdout_, &stderr_})
        fd->close("close");
    installStandard(standard.in, STDIN_FILENO, "stdin dup2");
    installStandard(standard.out, STDOUT_FILENO, "stdout dup2");
    installStandard(standard.err, STDERR_FILENO, "stderr dup2");
    if (program.cwd != nullptr && retryOnEintr([&] { return ::chdir(program.cwd); }) != 0)
        throw SystemError("cwd chdir", errno);
    if (program.closeOtherFds)
        closeOthers(control);
    if (program.newSession && ::setsid() == -1)
        throw SystemError("setsid", errno);
    restoreStartSignals();
    if (program.childHook)
        program.childHook();

    _execute(program);
}

void ProcessLaunch::_execute(const Program& program)
{
    // exec takes the vectors without const for historical reasons and changes nothing (POSIX, exec).
    const auto* const argv = const_cast<char* const*>(program.argv);
    const auto* const envp = const_cast<char* const*>(program.envp);
    const char* label = "execv";
    if (envp != nullptr) {
        label = "execve";
        retryOnEintr([&] { return ::execve(program.file, argv, envp); });
    } else if (program.searchPath) {
        label = "execvp";
        retryOnEintr([&] { return ::execvp(program.file, argv); });
    } else {
        retryOnEintr([&] { return ::execv(program.file, argv); });
    }
    throw SystemError(label, errno);
}

void ProcessLaunch::_runChild(Standard& standard, const Program& program) noexcept
{
    const int control = control_.writeEnd.get();
    int status = exitForeign;
    try {
        _prepareChild(standard, program);
    } catch (const SystemError& e) {
        sendReport(control, typeSystemError, e.what());
        char code[47];
        (void)std::snprintf(code, sizeof code, "EC: %d", e.code());
        sendRecord(control, code);
        status = exitSystemError;
    } catch (const std::runtime_error& e) {
        sendReport(control, typeRuntimeError, e.what());
        status = exitException;
    } catch (const std::exception& e) {
        sendReport(control, typeException, e.what());
        status = exitException;
    } catch (...) {
        sendReport(control, typeRuntimeError, "unknown error");
    }
    std::exit(status);
}

void ProcessLaunch::waitExec()
{
    const std::optional<std::string> report = readAll(control_.readEnd.get());
    if (!report)
        throw SystemError("control pipe read", errno);
    control_.readEnd.close("pipe read-end close");
    rethrowReport(*report);
}

void ProcessLaunch::end() noexcept
{
    ::kill(pid_, SIGKILL);
    retryOnEintr([&] { return ::waitpid(pid_, nullptr, 0); });
}

int ProcessLaunch::waitExit()
{
    int status = 0;
    if (retryOnEintr([&] { return ::waitpid(pid_, &status, 0); }) <= 0)
        throw SystemError("unable to wait for child process exit", errno);
    return status;
}

void rethrowReport(std::string_view report)
{
    std::string type;
    std::string message;
    int code = 0;
    forEachRecord(report, [&](std::string_view record) {
        const std::string_view tag = record.substr(0, tagLength);
        const std::string_view text = record.substr(tag.size());
        if (tag == typeTag) {
            type = text;
        } else if (tag == messageTag) {
            message = text;
        } else if (tag == codeTag) {
            code = boost::lexical_cast<int>(text);
        } else {
            writeText(std::clog, {"child output: ", record, "\n"});
            std::clog.flush();
        }
    });
    if (type.empty())
        return;
    if (message.empty())
        message = "an error in child process";
    if (type == typeSystemError)
        throw SystemError(message, code);
    if (type == typeRuntimeError)
        throw std::runtime_error(message);
    if (type == typeException)
        throw std::exception();
}

} // namespace zorvo::process
