// run_utility: plain functions that run a program by path, one of the product's utilities by name, or a shell
// command, and report a failure.
//
// What fork_exec.h says of its functions holds for these too.
#pragma once

#include <cstddef>

/// fork_execv_log of `path`, reporting failures. path_exec puts `path` in front of the list as the program's
/// name; path_exec_raw takes the list as the whole argument vector.
int path_exec(const char* path, ...);
int path_exec_raw(const char* path, ...);

/// Runs the product's utility `name` from /usr/local/maru/admin/sbin (util_libexec: /usr/lib64/zorvo-9.0)
/// through fork_execv_log, reporting failures; its path is put in front of the list as the program's name.
/// A name with a "/" is refused with a report and -1. util_exec_args takes the arguments after the name as a
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
