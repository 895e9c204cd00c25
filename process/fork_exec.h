// fork_exec: plain functions that run a program, wait for it and translate its end.
//
// Argument vectors are null-terminated and begin with the program's name. Variable lists do likewise and end
// with a (char*)NULL; of them at most 100 arguments are taken. Unless said otherwise a function blocks until
// its child has ended and returns the child's exit code, or -1 when it was killed, stopped or lost, which is
// logged through zorvo_log. Three kinds of failure: no resources in the parent: messlog2 and exit(1); no exec
// in the child: a line on its standard error and status 255; trouble with waiting: a log line and -1.
// Children start with the signals of StartState.h and without descriptors beyond 2. Not for use while a
// ProcessSetCatcher is installed, which would reap the children first.
#pragma once

#include <cstddef>
#include <sys/types.h>
#include <unistd.h>

/// Runs `path` with standard output and error captured, waits. On a result other than 0 with `quiet` 0 the
/// captured output goes to standard error and "PATH execution failed:\nERROR TEXT" or "PATH execution failed
/// (no output)" is reported through messlog2.
int fork_execv_log(const char* path, char* const argv[], int quiet);
int fork_execl_log(int quiet, const char* path, ...);

/// Runs `path` with standard output and error captured into new NUL-terminated malloc'd buffers for the
/// caller to free; null where nothing was written. Standard input is inherited. When the child ends while a
/// process it left behind keeps the pipes open, returns within about a second; what comes later is lost.
int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]);
int fork_execl_getouterr(char** out, char** err, const char* path, ...);

/// The same with standard output captured only; standard error is inherited.
int fork_execv_getout(char** out, const char* path, char* const argv[]);
int fork_execl_getout(char** out, const char* path, ...);

/// Forks and executes `path` with the given descriptors as 0, 1 and 2 (-1: /dev/null; 0, 1, 2 in their own
/// place: inherited). One descriptor may be given twice. Returns the pid at once; the caller waits. The
/// descriptors stay open in the parent.
pid_t fork_execv_pipes(int in, int out, int err, const char* path, char* const argv[]);
pid_t fork_execl_pipes(int in, int out, int err, const char* path, ...);

/// Runs `path` with `fd_in` and `fd_out` as standard input and output (-1: /dev/null), waits. 0, 1 and 2 are
/// refused. Failures are reported on standard error. -1 for every end but an exit, and when the program could
/// not be executed.
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
/// always leaves room for a NUL. At end of file and after an error `*fd` is closed and set to -1.
void read_to_buf(int* fd, char** buffer, int* size, int* used);

/// fork_execv_log of `path`, reporting failures. path_exec puts `path` in front of the list as the program's
/// name; path_exec_raw takes the list as the whole argument vector.
int path_exec(const char* path, ...);
int path_exec_raw(const char* path, ...);

/// Runs the product's utility `name` from /usr/local/maru/admin/sbin (util_libexec: /usr/lib64/zorvo-9.0)
/// through fork_execv_log, reporting failures; its path is put in front of the list as the program's name.
/// A name with a "/" is refused with a report and -1. util_exec_args takes the arguments behind the name as a
/// null-terminated array.
int util_exec(const char* name, ...);
int util_exec_args(const char* name, char* const args[]);
int util_libexec(const char* name, ...);

/// Runs a command line with /bin/sh -c, waits. Returns its exit code, or -1 when it could not be run or was
/// killed; a result other than 0 is reported through messlog2. popen_exec drops its output,
/// popen_exec_getoutput puts it into a new NUL-terminated malloc'd buffer for the caller (null: nothing was
/// written); both stop reading as fork_execv_getouterr does. popen_exec_with_input writes `size` bytes of
/// `input` to its standard input; a command that exits with 0 without having taken them all is reported and
/// -1.
int popen_exec(const char* command);
int popen_exec_getoutput(const char* command, char** output);
int popen_exec_with_input(const char* command, const char* input, size_t size);

/// Forks, executes `path`, waits and returns the raw wait status, or -1. Without a fork the process ends with
/// status 1 and "Unable to fork".
int do_exec(const char* path, char* const argv[]);

/// In a child: makes `in`, `out` and `err` its descriptors 0, 1 and 2 and closes all others. Returns 0, or -1
/// with errno; -1 is no descriptor here (EBADF).
int prepare_fds_to_exec(int in, int out, int err);

/// Closes every descriptor from `lowfd` upwards. Takes the place of the C library's function of this name.
extern "C" void closefrom(int lowfd) noexcept; // NOLINT(readability-redundant-declaration)

/// The two strategies of closefrom: by the names in /proc/self/fd, 0, or -1 when that cannot be relied upon
/// (some may be closed already then); and by number, which keeps errno.
int closefrom_through_proc(int lowfd) noexcept;
void closefrom_max(int lowfd) noexcept;

/// The descriptor number that a name in /proc/self/fd stands for; -1 for anything but a decimal number of at
/// most 2147483647 without a leading zero.
int proc_pid_fd_str_to_int(const char* name) noexcept;
