#include "process/run_utility.h"

#include "common/eintr.h"
#include "common/messlog2.h"
#include "process/FdOwner.h"
#include "process/fork_exec.h"
#include "process/signals.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

using zorvo::writeAll;
using zorvo::process::ArgumentVector;
using zorvo::process::Captures;
using zorvo::process::collect;
using zorvo::process::collectArguments;
using zorvo::process::FdOwner;
using zorvo::process::LaunchSignals;
using zorvo::process::openCapturePipe;
using zorvo::process::setNonBlocking;
using zorvo::process::startProgram;
using zorvo::process::takeText;

namespace {

const char* const utilityDirectory = "/usr/local/maru";
const char* const libexecDirectory = "/usr/lib64/zorvo-9.0";
const char* const shell = "/bin/sh";

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

/// The pid, or -1.
pid_t startShell(const char* command, int in, int out)
{
    const char* const argv[] = {"sh", "-c", command, nullptr};
    return startProgram(in, out, STDERR_FILENO, shell, const_cast<char* const*>(argv));
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
    if (!openCapturePipe(readEnd, writeEnd) || !setNonBlocking(readEnd.get()))
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

} // namespace

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
    LaunchSignals signals; // a command that does not read its input is a result, not the end of this process
    signals.adapt();
    FdOwner readEnd;
    FdOwner writeEnd;
    if (!openCapturePipe(readEnd, writeEnd))
        return reportNoShell(command);
    const pid_t pid = startShell(command, readEnd.get(), STDOUT_FILENO);
    if (pid == -1)
        return reportNoShell(command);
    readEnd.close_nothrow();
    const size_t written = writeAll(writeEnd.get(), {input, size});
    if (written < size)
        messlog2(0, 0, "Failed to execute command with input: only %lu of %lu bytes were written.",
                 static_cast<unsigned long>(written), static_cast<unsigned long>(size));
    writeEnd.close_nothrow();
    const int result = fork_exec_waitpid(pid, command, nullptr);
    reportShellFailure(command, result);
    return result == 0 && written < size ? -1 : result;
}
