// ProcessLaunch: see the header. The way to read this file: the constructor is the parent's side of a launch,
// prepareChild the child's, LaunchReport the way back of a failure.
#include "process/ProcessLaunch.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "process/StartState.h"

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
#include <stdexcept>

namespace zorvo::process {

namespace {

constexpr int exitSystemError = 67;
constexpr int exitException = 66;
constexpr int exitForeign = 65;

const char* const typeTag = "ET: ";
const char* const messageTag = "EM: ";
const char* const codeTag = "EC: ";
constexpr size_t tagLength = 4;

const char* const typeSystemError = "SystemError";
const char* const typeRuntimeError = "std::runtime_error";
const char* const typeException = "std::exception";

/// One standard descriptor of the child: a caller's or inherited number, or one that the launch opened.
struct ChildFd {
    int number = -1; ///< Negative: leave the child's descriptor alone.
    FdOwner created; ///< The descriptor behind `number` where the launch opened it.

    void own(FdOwner&& fd)
    {
        created = std::move(fd);
        number = created.get();
    }

    void openDevNull(int flags, const char* label)
    {
        FdOwner fd(retryOnEintr([&] { return ::open("/dev/null", flags | O_CLOEXEC); }));
        if (!fd.isOpen())
            throw SystemError(label, errno);
        moveAboveStandard(fd, label);
        own(std::move(fd));
    }
};

/// Which end of a new pipe the child gets.
enum class ChildEnd { Read, Write };

FdOwner openPipe(ChildFd& child, ChildEnd childEnd, const char* label)
{
    PipeOwner pipe;
    pipe.open(label);
    child.own(std::move(childEnd == ChildEnd::Read ? pipe.readEnd : pipe.writeEnd));
    return std::move(childEnd == ChildEnd::Read ? pipe.writeEnd : pipe.readEnd);
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

/// close_range(2) for the descriptors first to last, ignoring failures.
void closeAll(int first, int last) noexcept
{
    if (first > last || ::close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0)
        return;
    for (int fd = first; fd <= last; ++fd)
        closeRetrying(fd);
}

/// Closes all descriptors from 3 on but `kept`, keeping errno.
void closeOthers(int kept) noexcept
{
    const int error = errno;
    constexpr rlim_t fallback = 20;
    struct rlimit limit = {};
    const rlim_t size = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : fallback;
    const int last = static_cast<int>(std::min<rlim_t>(size, INT_MAX)) - 1;
    closeAll(STDERR_FILENO + 1, std::min(kept - 1, last));
    closeAll(kept + 1, last);
    errno = error;
}

/// Sends one record; a parent that went away is no longer interested.
void sendRecord(int fd, const std::string& record)
{
    if (fd >= 0)
        (void)retryOnEintr([&] { return ::write(fd, record.c_str(), record.size() + 1); });
}

void sendReport(int fd, const char* type, const char* message)
{
    sendRecord(fd, std::string(typeTag) + type);
    sendRecord(fd, std::string(messageTag) + message);
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
    if (stdinFd >= 0)
        standard.in.number = stdinFd;
    else if (stdinFd == kDevNullFd)
        standard.in.openDevNull(O_RDONLY, "stdin /dev/null open");
    else if (stdinFd == kPipeFd)
        stdin_ = openPipe(standard.in, ChildEnd::Read, "stdin pipe");
    else if (stdinFd != kInheritFd)
        throw std::invalid_argument("invalid FD for stdin");

    if (stdoutFd >= 0)
        standard.out.number = stdoutFd;
    else if (stdoutFd == kInheritFd)
        standard.out.number = STDOUT_FILENO; // what kSameAsStdoutFd copies
    else if (stdoutFd == kDevNullFd)
        standard.out.openDevNull(O_WRONLY, "stdout /dev/null open");
    else if (stdoutFd == kPipeFd)
        stdout_ = openPipe(standard.out, ChildEnd::Write, "stdout pipe");
    else
        throw std::invalid_argument("invalid FD for stdout");

    if (stderrFd >= 0)
        standard.err.number = stderrFd;
    else if (stderrFd == kDevNullFd)
        standard.err.openDevNull(O_WRONLY, "stderr /dev/null open");
    else if (stderrFd == kPipeFd)
        stderr_ = openPipe(standard.err, ChildEnd::Write, "stderr pipe");
    else if (stderrFd == kSameAsStdoutFd)
        standard.err.number = standard.out.number;
    else if (stderrFd != kInheritFd)
        throw std::invalid_argument("invalid FD for stderr");

    control_.open("pipe");
    pid_ = retryOnEintr([] { return ::fork(); });
    if (pid_ == -1)
        throw SystemError("fork", errno);
    if (pid_ == 0)
        runChild(standard, Program{argv, file, cwd, envp, closeOtherFds, searchPath, newSession, childHook});

    try {
        control_.writeEnd.close("close");
        for (ChildFd* const fd : {&standard.in, &standard.out, &standard.err})
            fd->created.close("close");
    } catch (...) {
        end(); // nobody else will know of it
        throw;
    }
}

// Runs between fork and exec. The program is single-threaded, so allocating and throwing are safe here.
void ProcessLaunch::prepareChild(Standard& standard, const Program& program)
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

void ProcessLaunch::runChild(Standard& standard, const Program& program) noexcept
{
    const int control = control_.writeEnd.get();
    int status = exitForeign;
    try {
        prepareChild(standard, program);
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
    LaunchReport report;
    char chunk[1024];
    for (;;) {
        const ssize_t size =
            retryOnEintr([&] { return ::read(control_.readEnd.get(), chunk, sizeof chunk); });
        if (size == -1)
            throw SystemError("control pipe read", errno);
        if (size == 0)
            break;
        report.feed(chunk, static_cast<size_t>(size));
    }
    control_.readEnd.close("pipe read-end close");
    report.finish();
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

void LaunchReport::feed(const char* bytes, size_t size)
{
    const char* const end = bytes + size;
    while (bytes != end) {
        const char* const stop = std::find(bytes, end, '\0');
        partial_.append(bytes, stop);
        if (stop == end)
            return;
        takeRecord(std::exchange(partial_, std::string()));
        bytes = stop + 1;
    }
}

void LaunchReport::takeRecord(const std::string& record)
{
    const std::string tag = record.substr(0, tagLength);
    if (tag == typeTag)
        type_ = record.substr(tagLength);
    else if (tag == messageTag)
        message_ = record.substr(tagLength);
    else if (tag == codeTag)
        code_ = boost::lexical_cast<int>(record.substr(tagLength));
    else
        std::clog << "child output: " << record << std::endl;
}

void LaunchReport::finish()
{
    if (!partial_.empty())
        takeRecord(std::exchange(partial_, std::string()));
    if (type_.empty())
        return;
    if (message_.empty())
        message_ = "an error in child process";
    if (type_ == typeSystemError)
        throw SystemError(message_, code_);
    if (type_ == typeRuntimeError)
        throw std::runtime_error(message_);
    if (type_ == typeException)
        throw std::exception();
}

} // namespace zorvo::process
