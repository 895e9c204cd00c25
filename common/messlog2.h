// messlog2: an error report to the user on standard error and, deliberately once more, on standard output.
#pragma once

#include <cstdarg>

/// Program name put in front of reports (its last path component, then ": "); null: no prefix. Borrowed.
extern const char* PROGNAME;

/// Reports the formatted message, with "\nSystem error NUMBER: TEXT" appended where errno is not 0 on entry.
/// `exit_status` other than 0 ends the process with exit(3); otherwise returns 0. `flag` has no effect.
int messlog2(int exit_status, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vmesslog2(int exit_status, int flag, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

/// Writes a text as it is, and a newline unless it ends with one, to both streams; ends the process like
/// messlog2. Write errors are ignored.
int ex_messlog(const char* text, int exit_status, int flag);

/// vasprintf(3) into a new malloc'd string, to be freed by the caller. A failure is reported as
/// "Cannot allocate memory: REASON" and ends the process with status 1.
char* asprintf_safe(const char* format, ...) __attribute__((format(printf, 1, 2)));
