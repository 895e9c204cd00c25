#include "process/fork_exec.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/messlog2.h"
#include "common/writeText.h"
#include "common/zorvo_log.h"
#include "process/closefrom.h"
#include "process/signals.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

using zorvo::closeRetrying;
using zorvo::retryOnEintr;
using zorvo::writeAll;
using zorvo::writeFormatted;
using zorvo::process::ArgumentVector;
using zorvo::process::Capture;
using zorvo::process::Captures;
using zorvo::process::collectArguments;
using zorvo::process::FdOwner;
using zorvo::process::openCapturePipe;
using zorvo::process::PipeOwner;
using zorvo::process::restoreStartSignals;
using zorvo::process::setNonBlocking;
using zorvo::process::startProgram;

namespace {

constexpr int standardDescriptors = 3;
constexpr int childFailureStatus = 255;

// --- in the child, between fork and exec ---

/// `fd`, or a new descriptor of /dev/null where that is -1; -1 with errno.
int orDevNull(int fd) noexcept
{
    return fd != -1 ? fd : retryOnEintr([] { return ::open("/dev/null", O_RDWR); });
}

/// Makes `fd` the descriptor `target`, too. False with errno.
bool layOver(int fd, int target) noexcept
{
    return fd == target || retryOnEintr([=] { return ::dup2(fd, target); }) != -1;
}

/// Makes `passed` (-1: /dev/null) the descriptor `target` and closes it at its old number. False with errno.
bool place(int passed, int target) noexcept
{
    const int fd = orDevNull(passed);
    return fd != -1 && layOver(fd, target) && (fd == target || closeRetrying(fd) == 0);
}

/// Replaces the process image; returns only on failure. The program gets the signals that we were started
/// with.
void execute(const char* path, char* const argv[]) noexcept
{
    restoreStartSignals();
    retryOnEintr([&] { return ::execv(path, argv); });
}

[[noreturn]] void failChild() noexcept
{
    std::exit(childFailureStatus);
}

[[noreturn]] void runChild(int in, int out, int err, const char* path, char* const argv[]) noexcept
{
    if (!place(in, STDIN_FILENO) || !place(out, STDOUT_FILENO) || !place(err, STDERR_FILENO)) {
        writeFormatted(stderr, "fork_execv: dup() failed: %s\n", std::strerror(errno));
        failChild();
    }
    closefrom(standardDescriptors);
    execute(path, argv);
    writeFormatted(stderr, "fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(errno));
    failChild();
}

// --- collecting output ---

/// select(2) for at most a second.
int waitReadable(const Captures& captures, fd_set& readable) noexcept
{
    return retryOnEintr([&] {
        FD_ZERO(&readable);
        int highest = -1;
        for (const Capture& capture : captures) {
            if (capture.fd != -1)
                FD_SET(capture.fd, &readable);
            highest = std::max(highest, capture.fd);
        }
        timeval timeout = {1, 0};
        return ::select(highest + 1, &readable, nullptr, nullptr, &timeout);
    });
}

void readSome(Capture& capture) noexcept
{
    read_to_buf(&capture.fd, &capture.buffer, &capture.size, &capture.used);
    if (capture.discard)
        capture.used = 0;
}

} // namespace

namespace zorvo::process {

ArgumentVector collectArguments(const char* first, va_list list)
{
    ArgumentVector argv{};
    size_t number = 0;
    if (first != nullptr)
        argv[number++] = const_cast<char*>(first);
    const size_t end = number + maxListArguments;
    while (number < end && (argv[number] = va_arg(list, char*)) != nullptr)
        ++number;
    argv[number] = nullptr;
    return argv;
}

pid_t startProgram(int in, int out, int err, const char* path, char* const argv[])
{
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == 0)
        runChild(in, out, err, path, argv);
    return pid;
}

bool openCapturePipe(FdOwner& readEnd, FdOwner& writeEnd) noexcept
{
    try {
        PipeOwner pipe;
        pipe.open("pipe");
        readEnd = std::move(pipe.readEnd);
        writeEnd = std::move(pipe.writeEnd);
    } catch (const SystemError& e) {
        errno = e.code();
        return false;
    }
    if (readEnd.get() < FD_SETSIZE)
        return true;
    errno = EMFILE;
    return false;
}

int collect(pid_t pid, const char* name, Captures& captures)
{
    while (captures[0].fd != -1 || captures[1].fd != -1) {
        fd_set readable;
        if (waitReadable(captures, readable) > 0) {
            for (Capture& capture : captures)
                if (capture.fd != -1 && FD_ISSET(capture.fd, &readable))
                    readSome(capture);
            continue;
        }
        int status = 0;
        const pid_t ended = retryOnEintr([&] { return ::waitpid(pid, &status, WNOHANG); });
        if (ended == 0)
            continue;
        for (Capture& capture : captures)
            FdOwner(std::exchange(capture.fd, -1)).close_nothrow();
        return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int status = 0;
    return fork_exec_waitpid(pid, name, &status);
}

char* takeText(Capture& capture) noexcept
{
    char* const text = std::exchange(capture.buffer, nullptr);
    if (capture.used == 0) {
        std::free(text);
        return nullptr;
    }
    text[capture.used] = '\0';
    return text;
}

} // namespace zorvo::process

namespace {

/// fork_execv_getouterr and, with a null `err`, fork_execv_getout; `function` is the one to name in reports.
int runCaptured(const char* function, char** out, char** err, const char* path, char* const argv[])
{
    std::array<FdOwner, 2> readEnds;
    std::array<FdOwner, 2> writeEnds;
    const size_t number = err != nullptr ? 2 : 1;
    for (size_t i = 0; i < number; ++i) {
        if (!openCapturePipe(readEnds[i], writeEnds[i]))
            messlog2(1, 0, "%s: pipe() failed", function);
    }
    for (size_t i = 0; i < number; ++i) {
        if (!setNonBlocking(readEnds[i].get()))
            messlog2(1, 0, "%s: fcntl(O_NONBLOCK) failed", function);
    }

    const int errorFd = err != nullptr ? writeEnds[1].get() : STDERR_FILENO;
    const pid_t pid = fork_execv_pipes(STDIN_FILENO, writeEnds[0].get(), errorFd, path, argv);
    Captures captures;
    for (size_t i = 0; i < number; ++i) {
        writeEnds[i].close_nothrow();
        captures[i].fd = readEnds[i].release();
    }
    const int result = collect(pid, path, captures);
    *out = takeText(captures[0]);
    if (err != nullptr)
        *err = takeText(captures[1]);
    return result;
}

// --- fork_execv_fd ---

/// The child of fork_execv_fd: a failure travels as its errno through `control`, which a successful exec
/// closes.
[[noreturn]] void runControlledChild(int in, int out, int control, const char* path,
                                     char* const argv[]) noexcept
{
    constexpr int controlFd = standardDescriptors;
    in = orDevNull(in);
    out = orDevNull(out);
    // The control pipe last: it may take the number of a given descriptor, but not the other way round.
    if (in != -1 && out != -1 && layOver(in, STDIN_FILENO) && layOver(out, STDOUT_FILENO) &&
        (control == controlFd || retryOnEintr([=] { return ::dup3(control, controlFd, O_CLOEXEC); }) != -1)) {
        control = controlFd;
        closefrom(controlFd + 1);
        execute(path, argv);
    }
    const int error = errno;
    (void)writeAll(control, {reinterpret_cast<const char*>(&error), sizeof error});
    failChild();
}

/// The exit code, or -1 and a line on standard error.
int waitReporting(pid_t pid)
{
    int status = 0;
    if (retryOnEintr([&] { return ::waitpid(pid, &status, WUNTRACED); }) == -1)
        writeFormatted(stderr, "Error occured during waiting the child process with pid: %d: %s\n", pid,
                       std::strerror(errno));
    else if (WIFEXITED(status))
        return WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        writeFormatted(stderr, "The child process with pid %d killed by signal %i\n", pid, WTERMSIG(status));
    else if (WIFSTOPPED(status))
        writeFormatted(stderr, "The child process with pid %d stopped by signal %i\n", pid, WSTOPSIG(status));
    return -1;
}

} // namespace

int fork_execv_log(const char* path, char* const argv[], int quiet)
{
    char* out = nullptr;
    char* err = nullptr;
    const int result = fork_execv_getouterr(&out, &err, path, argv);
    if (result != 0 && quiet == 0) {
        if (out != nullptr)
            zorvo::writeText(stderr, {out});
        errno = 0; // the program failed, no system call did
        if (err != nullptr)
            messlog2(0, 0, "%s execution failed:\n%s", path, err);
        else
            messlog2(0, 0, "%s execution failed (no output)", path);
    }
    std::free(out);
    std::free(err);
    return result;
}

int fork_execl_log(int quiet, const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(nullptr, list);
    va_end(list);
    return fork_execv_log(path, argv.data(), quiet);
}

int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[])
{
    *out = nullptr;
    *err = nullptr;
    return runCaptured("fork_execv_getouterr", out, err, path, argv);
}

int fork_execl_getouterr(char** out, char** err, const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(nullptr, list);
    va_end(list);
    return fork_execv_getouterr(out, err, path, argv.data());
}

int fork_execv_getout(char** out, const char* path, char* const argv[])
{
    *out = nullptr;
    return runCaptured("fork_execv_getout", out, nullptr, path, argv);
}

int fork_execl_getout(char** out, const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(nullptr, list);
    va_end(list);
    return fork_execv_getout(out, path, argv.data());
}

pid_t fork_execv_pipes(int in, int out, int err, const char* path, char* const argv[])
{
    const pid_t pid = startProgram(in, out, err, path, argv);
    if (pid == -1)
        messlog2(1, 0, "fork_execv_pipes: fork() failed");
    return pid;
}

pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(nullptr, list);
    va_end(list);
    return fork_execv_pipes(in, out, err, path, argv.data());
}

int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[])
{
    const auto isStandard = [](int fd) { return fd >= 0 && fd < standardDescriptors; };
    if (isStandard(fd_in) || isStandard(fd_out)) {
        writeFormatted(stderr, "values 0,1,2 not allowed for variables fd_in & fd_out\n");
        return -1;
    }
    FdOwner readEnd;
    FdOwner writeEnd;
    if (!openCapturePipe(readEnd, writeEnd)) {
        writeFormatted(stderr, "fork_exec_fd pipe(): %s", std::strerror(errno));
        return -1;
    }
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == -1) {
        writeFormatted(stderr, "Error occured during fork():\n%s", std::strerror(errno));
        return -1;
    }
    if (pid == 0)
        runControlledChild(fd_in, fd_out, writeEnd.get(), path, argv);
    writeEnd.close_nothrow();

    int error = 0;
    const ssize_t got = retryOnEintr([&] { return ::read(readEnd.get(), &error, sizeof error); });
    if (got != static_cast<ssize_t>(sizeof error))
        return waitReporting(pid);
    writeFormatted(stderr, "Error occured during execv():\n%s", std::strerror(error));
    retryOnEintr([&] { return ::waitpid(pid, nullptr, 0); });
    return -1;
}

int fork_execv(const char* path, char* const argv[])
{
    const pid_t pid = startProgram(-1, STDOUT_FILENO, STDERR_FILENO, path, argv);
    if (pid == -1)
        messlog2(1, 0, "fork_execv: fork() failed");
    return fork_exec_waitpid(pid, path, nullptr);
}

int fork_exec_waitpid(pid_t pid, const char* name, int* status)
{
    if (name == nullptr)
        name = "<unknown>";
    if (pid < 0) {
        zorvo_log(LOG_ERR, "fork before spawning '%s' failed", name);
        return -1;
    }
    int ownStatus = 0;
    if (status == nullptr)
        status = &ownStatus;
    const pid_t ended = retryOnEintr([&] { return ::waitpid(pid, status, WUNTRACED); });
    const long asked = pid;
    const long answered = ended;
    if (ended == -1) {
        const int error = errno;
        zorvo_log(LOG_ERR, "waitpid(%ld) for '%s' process failed: %s (%d)", asked, name, std::strerror(error),
                  error);
    } else if (ended == 0) {
        zorvo_log(LOG_ERR, "waitpid(%ld) for '%s' process returned unexpected 0 code", asked, name);
    } else if (WIFEXITED(*status)) {
        return WEXITSTATUS(*status);
    } else if (WIFSIGNALED(*status)) {
        zorvo_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' killed by signal %d", asked, answered, name,
                  WTERMSIG(*status));
    } else if (WIFSTOPPED(*status)) {
        zorvo_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' stopped by signal %d", asked, answered, name,
                  WSTOPSIG(*status));
    } else if (WIFCONTINUED(*status)) {
        zorvo_log(LOG_WARNING, "waitpid(%ld)=%ld: process '%s' continued", asked, answered, name);
    }
    return -1;
}

int fork_exec_getres(pid_t pid, const char* name)
{
    return pid == -1 ? -1 : fork_exec_waitpid(pid, name, nullptr);
}

void read_to_buf(int* fd, char** buffer, int* size, int* used)
{
    if (*size <= *used + 2048) {
        // A text that cannot be counted in an int is as much too large as one that does not fit in memory.
        const bool countable = *size <= INT_MAX / 2;
        const int newSize = *size < 4097 ? *size + 4096 : countable ? *size * 2 : 0;
        char* const larger =
            newSize != 0 ? static_cast<char*>(std::realloc(*buffer, static_cast<size_t>(newSize))) : nullptr;
        if (larger == nullptr) {
            errno = ENOMEM;
            messlog2(1, 0, "Cannot allocate memory");
        }
        *buffer = larger;
        *size = newSize;
    }
    const auto space = static_cast<size_t>(*size - *used - 1);
    const ssize_t got = retryOnEintr([&] { return ::read(*fd, *buffer + *used, space); });
    if (got > 0) {
        *used += static_cast<int>(got);
        return;
    }
    if (got == -1 && errno == EAGAIN)
        return;
    const int error = got == 0 ? 0 : errno;
    closeRetrying(*fd);
    *fd = -1;
    if (error != 0) {
        writeFormatted(stderr, "fork_exec*: read(pipe) failed: %s\n", std::strerror(error));
        errno = 0;
    }
}

int do_exec(const char* path, char* const argv[])
{
    const pid_t pid = startProgram(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, path, argv);
    if (pid == -1)
        messlog2(1, 0, "Unable to fork");
    int status = 0;
    return retryOnEintr([&] { return ::waitpid(pid, &status, 0); }) == -1 ? -1 : status;
}

int prepare_fds_to_exec(int in, int out, int err)
{
    if (in < 0 || out < 0 || err < 0) {
        errno = EBADF; // -1 does not stand for /dev/null here
        return -1;
    }
    if (!layOver(in, STDIN_FILENO) || !layOver(out, STDOUT_FILENO) || !layOver(err, STDERR_FILENO))
        return -1;
    closefrom(standardDescriptors);
    return 0;
}
