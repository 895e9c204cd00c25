// fork_exec: plain functions that run a program, wait for it and translate its end.
//
// Argument vectors are null-terminated and begin with the program's name. Variable lists do so too, and end
// with a (char*)NULL; at most 100 of their arguments are taken. Unless said otherwise a function blocks until
// its child has ended and returns the child's exit code, or -1 when it was killed, stopped or lost, which is
// logged through zorvo_log. Three kinds of failure: no resources in the parent: messlog2 and exit(1); no exec
// in the child: a line on its standard error and status 255; trouble with waiting: a log line and -1.
// Children start with the signals of signals.h and without descriptors beyond 2. Not for use while a
// ProcessSetCatcher is installed, which would reap the children first.
#pragma once

#include "process/FdOwner.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <sys/types.h>

/// Runs `path` with standard output and error captured, waits. On a result other than 0 with `quiet` 0 the
/// captured output goes to standard error and "PATH execution failed:\nERROR TEXT" or "PATH execution failed
/// (no output)" is reported through messlog2.
int fork_execv_log(const char* path, char* const argv[], int quiet);
int fork_execl_log(int quiet, const char* path, ...);

/// Runs `path` with standard output and error captured into new NUL-terminated malloc'd buffers for the
/// caller to free; null where nothing was written. Standard input is inherited. When the child ends while a
/// process that it started keeps the pipes open, returns within about a second; what comes later is lost.
int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]);
int fork_execl_getouterr(char** out, char** err, const char* path, ...);

/// The same with standard output captured only; standard error is inherited.
int fork_execv_getout(char** out, const char* path, char* const argv[]);
int fork_execl_getout(char** out, const char* path, ...);

/// Forks and executes `path` with the given descriptors as 0, 1 and 2 (-1: /dev/null; 0, 1, 2 in their own
/// place: inherited). Returns the pid at once; the caller waits. The descriptors stay open in the parent. In
/// the child they are put into place one after the other, and each is closed at its old number before the
/// next one's turn: one that is given twice, or a standard one in another's place, is gone by then, and the
/// child fails or starts without it. Give dup(2)s of such.
pid_t fork_execv_pipes(int in, int out, int err, const char* path, char* const argv[]);
pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...);

/// Runs `path` with `fd_in` and `fd_out` as standard input and output (-1: /dev/null), waits. 0, 1 and 2 are
/// refused. Failures are reported on standard error. -1 for every end except an exit, and when the program
/// could not be executed.
int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]);

/// Runs `path` with standard input from /dev/null, waits.
int fork_execv(const char* path, char* const argv[]);

/// Waits for `pid` (also for a stop) and translates: the exit code; -1 for a kill, a stop, a negative pid or
/// a failed wait, each of them logged with `name` (null: "<unknown>"). `status` gets the raw wait status
/// unless null.
int fork_exec_waitpid(pid_t pid, const char* name, int* status);

/// -1 for a `pid` of -1, else fork_exec_waitpid(pid, name, NULL).
int fork_exec_getres(pid_t pid, const char* name);

/// One read from a non-blocking pipe into a growing malloc'd buffer of `*size` bytes, `*used` of them filled;
/// always leaves space for a NUL. At end of file and after an error `*fd` is closed and set to -1.
void read_to_buf(int* fd, char** buffer, int* size, int* used);

/// Forks, executes `path`, waits and returns the raw wait status, or -1. Without a fork the process ends with
/// status 1 and "Unable to fork".
int do_exec(const char* path, char* const argv[]);

/// In a child: makes `in`, `out` and `err`, in this order, its descriptors 0, 1 and 2 and closes all others.
/// One descriptor may be given twice; a standard one in another's place must not have been replaced by then.
/// Returns 0, or -1 with errno; -1 is not a descriptor here (EBADF).
int prepare_fds_to_exec(int in, int out, int err);

// What these functions share with run_utility.
namespace zorvo::process {

constexpr size_t maxListArguments = 100;
using ArgumentVector = std::array<char*, maxListArguments + 2>;

/// `first`, unless null, and what the list holds up to its null, at most 100 of it.
ArgumentVector collectArguments(const char* first, va_list list);

/// fork_execv_pipes that returns -1, with errno, where fork(2) fails.
pid_t startProgram(int in, int out, int err, const char* path, char* const argv[]);

/// One stream of a child on its way into a malloc'd buffer.
struct Capture {
    int fd = -1; ///< Owned: read_to_buf closes it.
    char* buffer = nullptr;
    int size = 0;
    int used = 0;
    bool discard = false; ///< Read and drop.
};
using Captures = std::array<Capture, 2>;

/// A pipe whose read end can be watched by select(2) (else EMFILE). False with errno.
[[nodiscard]] bool openCapturePipe(FdOwner& readEnd, FdOwner& writeEnd) noexcept;

/// Reads to the end of both streams, waits for `pid` and returns what fork_exec_waitpid does. A child that
/// ended while something else holds its pipes open is noticed in the first second without output; its exit
/// code is taken then and the pipes are given up.
int collect(pid_t pid, const char* name, Captures& captures);

/// The NUL-terminated text, to be freed by the caller; null when nothing was read.
char* takeText(Capture& capture) noexcept;

} // namespace zorvo::process
