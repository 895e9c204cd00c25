// fork_exec: see the header.
#include "process/fork_exec.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/messlog2.h"
#include "common/writeText.h"
#include "common/zorvo_log.h"
#include "process/DirOwner.h"
#include "process/FdOwner.h"
#include "process/signals.h"
#include "process/StartState.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

using zorvo::closeRetrying;
using zorvo::retryOnEintr;
using zorvo::writeFormatted;
using zorvo::process::DirOwner;
using zorvo::process::FdOwner;
using zorvo::process::LaunchSignals;
using zorvo::process::PipeOwner;
using zorvo::process::restoreStartSignals;
using zorvo::process::SigIgnorer;

namespace {

const char* const utilityDirectory = "/usr/local/maru";
const char* const libexecDirectory = "/usr/lib64/zorvo-9.0";
const char* const shell = "/bin/sh";

constexpr int standardDescriptors = 3;
constexpr size_t maxListArguments = 100;
constexpr int childFailureStatus = 255;

// --- in the child, between fork and exec ---

/// The descriptor to put in place of standard descriptor `target`: never another standard one, which a dup2
/// onto that number would have changed by the time it is needed. -1 with errno.
int sourceFor(int target, int passed) noexcept
{
    if (passed == target)
        return passed;
    int fd = passed;
    if (fd == -1)
        fd = retryOnEintr([] { return ::open("/dev/null", O_RDWR); });
    if (fd >= 0 && fd < standardDescriptors)
        fd = retryOnEintr([fd] { return ::fcntl(fd, F_DUPFD, standardDescriptors); });
    return fd;
}

/// Makes the passed descriptors 0, 1 and 2 and closes them at their old numbers, once all are in place,
/// because one may have been passed twice. False with errno.
bool placeDescriptors(const std::array<int, standardDescriptors>& passed) noexcept
{
    std::array<int, standardDescriptors> source{};
    for (int target = 0; target < standardDescriptors; ++target) {
        int& fd = source[static_cast<size_t>(target)];
        fd = sourceFor(target, passed[static_cast<size_t>(target)]);
        if (fd == -1)
            return false;
    }
    for (int target = 0; target < standardDescriptors; ++target) {
        const int fd = source[static_cast<size_t>(target)];
        if (fd != target && retryOnEintr([=] { return ::dup2(fd, target); }) == -1)
            return false;
    }
    for (auto* fd = source.begin(); fd != source.end(); ++fd) {
        const bool closedBefore = std::find(source.begin(), fd, *fd) != fd;
        if (*fd >= standardDescriptors && !closedBefore && closeRetrying(*fd) != 0)
            return false;
    }
    return true;
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
    if (!placeDescriptors({in, out, err})) {
        writeFormatted(stderr, "fork_execv: dup() failed: %s\n", std::strerror(errno));
        failChild();
    }
    closefrom(standardDescriptors);
    execute(path, argv);
    writeFormatted(stderr, "fork_execv: execv(\"%s\") failed: %s\n", path, std::strerror(errno));
    failChild();
}

// --- collecting output ---

/// One stream of a child on its way into a buffer.
struct Capture {
    int fd = -1;
    char* buffer = nullptr;
    int size = 0;
    int used = 0;
    bool discard = false;
};
using Captures = std::array<Capture, 2>;

/// False with errno.
bool openPipe(FdOwner& readEnd, FdOwner& writeEnd) noexcept
{
    try {
        PipeOwner pipe;
        pipe.open("pipe");
        readEnd = std::move(pipe.readEnd);
        writeEnd = std::move(pipe.writeEnd);
    } catch (const zorvo::SystemError& e) {
        errno = e.code();
        return false;
    }
    if (readEnd.get() < FD_SETSIZE)
        return true;
    errno = EMFILE; // select(2) cannot watch it
    return false;
}

bool setNonBlocking(int fd) noexcept
{
    const int flags = retryOnEintr([=] { return ::fcntl(fd, F_GETFL); });
    return flags != -1 && retryOnEintr([=] { return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK); }) != -1;
}

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

/// Reads to the end of both streams and waits. A child that ended while something else holds its pipes open
/// is noticed in the first second without output; its exit code is taken and the pipes are given up.
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

/// The NUL-terminated text, to be freed by the caller; null when nothing was read.
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

/// fork_execv_getouterr and, with a null `err`, fork_execv_getout; `function` is the one to name in reports.
int runCaptured(const char* function, char** out, char** err, const char* path, char* const argv[])
{
    std::array<FdOwner, 2> readEnds;
    std::array<FdOwner, 2> writeEnds;
    const size_t number = err != nullptr ? 2 : 1;
    for (size_t i = 0; i < number; ++i)
        if (!openPipe(readEnds[i], writeEnds[i]))
            messlog2(1, 0, "%s: pipe() failed", function);
    for (size_t i = 0; i < number; ++i)
        if (!setNonBlocking(readEnds[i].get()))
            messlog2(1, 0, "%s: fcntl(O_NONBLOCK) failed", function);

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

// --- variable lists ---

using ArgumentVector = std::array<char*, maxListArguments + 2>;

/// `first`, unless null, and what the list holds up to its null, but at most 100 of it.
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

/// Runs the utility with `argv`, whose element 0 is filled in here.
int runUtility(const char* directoryFormat, const char* directory, const char* name, char* argv[])
{
    if (std::strchr(name, '/') != nullptr) {
        errno = 0; // no system call failed
        messlog2(0, 0, "Utility name '%s' is invalid. Use only utility name without path.", name);
        return -1;
    }
    char* const path = asprintf_safe(directoryFormat, directory, name);
    argv[0] = path;
    const int result = fork_execv_log(path, argv, 0);
    std::free(path);
    return result;
}

// --- shell commands ---

pid_t startShell(const char* command, int in, int out)
{
    const char* const argv[] = {"sh", "-c", command, nullptr};
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == 0)
        runChild(in, out, STDERR_FILENO, shell, const_cast<char* const*>(argv));
    return pid;
}

int reportNoShell(const char* command)
{
    messlog2(0, 0, "popen_exec: failed to execute command: %s\n", command);
    return -1;
}

void reportShellFailure(const char* command, int result)
{
    if (result == 0)
        return;
    errno = 0; // the command failed, no system call did
    messlog2(0, 0, "popen_exec: command failed code: %d , %s\n", result, command);
}

/// With a null `output` what the command prints is read and dropped.
int runShell(const char* command, char** output)
{
    FdOwner readEnd;
    FdOwner writeEnd;
    if (!openPipe(readEnd, writeEnd) || !setNonBlocking(readEnd.get()))
        return reportNoShell(command);
    const pid_t pid = startShell(command, STDIN_FILENO, writeEnd.get());
    if (pid == -1)
        return reportNoShell(command);
    writeEnd.close_nothrow();
    Captures captures;
    captures[0].fd = readEnd.release();
    captures[0].discard = output == nullptr;
    const int result = collect(pid, command, captures);
    char* const text = takeText(captures[0]);
    if (output != nullptr)
        *output = text;
    reportShellFailure(command, result);
    return result;
}

/// Returns how many bytes could be written.
size_t writeInput(int fd, const char* input, size_t size) noexcept
{
    size_t done = 0;
    while (done < size) {
        const ssize_t written = retryOnEintr([&] { return ::write(fd, input + done, size - done); });
        if (written < 0)
            break;
        done += static_cast<size_t>(written);
    }
    return done;
}

// --- fork_execv_fd ---

/// The child of fork_execv_fd: a failure travels as its errno through `control`, which a successful exec
/// closes.
[[noreturn]] void runControlledChild(int in, int out, int control, const char* path,
                                     char* const argv[]) noexcept
{
    constexpr int controlFd = standardDescriptors;
    if (placeDescriptors({in, out, STDERR_FILENO}) &&
        (control == controlFd || retryOnEintr([=] { return ::dup3(control, controlFd, O_CLOEXEC); }) != -1)) {
        control = controlFd;
        closefrom(controlFd + 1);
        execute(path, argv);
    }
    const int error = errno;
    retryOnEintr([&] { return ::write(control, &error, sizeof error); });
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
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == -1)
        messlog2(1, 0, "fork_execv_pipes: fork() failed");
    if (pid == 0)
        runChild(in, out, err, path, argv);
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
    if (!openPipe(readEnd, writeEnd)) {
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
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == -1)
        messlog2(1, 0, "fork_execv: fork() failed");
    if (pid == 0)
        runChild(-1, STDOUT_FILENO, STDERR_FILENO, path, argv);
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
    const auto room = static_cast<size_t>(*size - *used - 1);
    const ssize_t got = retryOnEintr([&] { return ::read(*fd, *buffer + *used, room); });
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

int path_exec(const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(path, list);
    va_end(list);
    return fork_execv_log(path, argv.data(), 0);
}

int path_exec_raw(const char* path, ...)
{
    va_list list;
    va_start(list, path);
    const ArgumentVector argv = collectArguments(nullptr, list);
    va_end(list);
    return fork_execv_log(path, argv.data(), 0);
}

int util_exec(const char* name, ...)
{
    va_list list;
    va_start(list, name);
    ArgumentVector argv = collectArguments(name, list);
    va_end(list);
    return runUtility("%s/admin/sbin/%s", utilityDirectory, name, argv.data());
}

int util_exec_args(const char* name, char* const args[])
{
    size_t number = 0;
    while (args[number] != nullptr)
        ++number;
    const std::unique_ptr<char*[]> argv(new (std::nothrow) char*[number + 2]);
    if (!argv) {
        errno = ENOMEM;
        messlog2(1, 0, "Cannot allocate memory");
    }
    std::copy_n(args, number + 1, argv.get() + 1);
    return runUtility("%s/admin/sbin/%s", utilityDirectory, name, argv.get());
}

int util_libexec(const char* name, ...)
{
    va_list list;
    va_start(list, name);
    ArgumentVector argv = collectArguments(name, list);
    va_end(list);
    return runUtility("%s/%s", libexecDirectory, name, argv.data());
}

int popen_exec(const char* command)
{
    return runShell(command, nullptr);
}

int popen_exec_getoutput(const char* command, char** output)
{
    *output = nullptr;
    return runShell(command, output);
}

int popen_exec_with_input(const char* command, const char* input, size_t size)
{
    const LaunchSignals signals; // the command itself starts with SIGPIPE as it is now
    const SigIgnorer ignorer(SIGPIPE);
    FdOwner readEnd;
    FdOwner writeEnd;
    if (!openPipe(readEnd, writeEnd))
        return reportNoShell(command);
    const pid_t pid = startShell(command, readEnd.get(), STDOUT_FILENO);
    if (pid == -1)
        return reportNoShell(command);
    readEnd.close_nothrow();
    const size_t written = writeInput(writeEnd.get(), input, size);
    if (written < size)
        messlog2(0, 0, "Failed to execute command with input: only %lu of %lu bytes were written.",
                 static_cast<unsigned long>(written), static_cast<unsigned long>(size));
    writeEnd.close_nothrow();
    const int result = fork_exec_waitpid(pid, command, nullptr);
    reportShellFailure(command, result);
    return result == 0 && written < size ? -1 : result;
}

int do_exec(const char* path, char* const argv[])
{
    const pid_t pid = retryOnEintr([] { return ::fork(); });
    if (pid == -1)
        messlog2(1, 0, "Unable to fork");
    if (pid == 0)
        runChild(STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, path, argv);
    int status = 0;
    return retryOnEintr([&] { return ::waitpid(pid, &status, 0); }) == -1 ? -1 : status;
}

int prepare_fds_to_exec(int in, int out, int err)
{
    if (in < 0 || out < 0 || err < 0) {
        errno = EBADF; // -1 does not stand for /dev/null here
        return -1;
    }
    if (!placeDescriptors({in, out, err}))
        return -1;
    closefrom(standardDescriptors);
    return 0;
}

extern "C" void closefrom(int lowfd) noexcept
{
    if (closefrom_through_proc(lowfd) != 0)
        closefrom_max(lowfd);
}

int closefrom_through_proc(int lowfd) noexcept
{
    DirOwner directory("/proc/self/fd");
    if (!directory.isOpen())
        return -1;
    const int own = directory.fd();
    const int tableSize = ::getdtablesize();
    bool ownSeen = false;
    // Beyond that many open descriptors closing by number is the cheaper way.
    for (int left = std::max(tableSize / 10, 100); left > 0; --left) {
        const dirent* const entry = directory.next();
        if (entry == nullptr)
            return errno == 0 && ownSeen ? 0 : -1;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        const int fd = proc_pid_fd_str_to_int(entry->d_name);
        if (fd == -1 || fd >= tableSize)
            return -1;
        if (fd == own)
            ownSeen = true;
        else if (fd >= lowfd)
            closeRetrying(fd);
    }
    return -1; // some were not looked at
}

void closefrom_max(int lowfd) noexcept
{
    const int error = errno;
    lowfd = std::max(lowfd, 0);
    // One call where the kernel has it: the table may have a thousand million numbers.
    if (::close_range(static_cast<unsigned>(lowfd), UINT_MAX, 0) != 0)
        for (int fd = ::getdtablesize(); fd >= lowfd; --fd)
            closeRetrying(fd);
    errno = error;
}

int proc_pid_fd_str_to_int(const char* name) noexcept
{
    if (*name == '\0' || (*name == '0' && name[1] != '\0'))
        return -1;
    long number = 0;
    for (; *name != '\0'; ++name) {
        if (*name < '0' || *name > '9')
            return -1;
        number = number * 10 + (*name - '0');
        if (number > INT_MAX)
            return -1;
    }
    return static_cast<int>(number);
}
