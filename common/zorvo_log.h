// zorvo_log: the leveled logger of the plain-function helpers, reached through two process-wide function
// pointers.
//
// Without zorvo_log_init messages up to LOG_INFO go to standard error and standard output as bare lines.
// zorvo_log_init chooses between that console back end and syslog(3). Not thread-safe, not
// async-signal-safe. No function here fails visibly.
#pragma once

#include <cstdarg>

/// Option bit of zorvo_log_init in addition to those of openlog(3): put a trace id in front of syslog lines.
constexpr int ZORVO_LOG_TRACE = 0x40;

/// Level bit of zorvo_log_init and zorvo_log_set_level: let ZORVO_LOG_LEVEL in the environment raise it.
constexpr int ZORVO_LOG_LEVEL_FROM_ENV = 8;

extern int LogLevel;            ///< Messages of a greater priority number are dropped; LOG_INFO at first.
extern const char* LogLocation; ///< Console mode: null, "console" or "stderr". Borrowed from the caller.
extern int LogOpts;             ///< openlog(3) options and ZORVO_LOG_TRACE; LOG_PID at first.
extern int LogFacility;         ///< syslog(3) facility; LOG_MAIL at first.
extern char LogIdent[64];       ///< syslog(3) ident.
extern char LogTraceId[64];     ///< Trace id put in front of syslog lines.

/// Current entry points; `priority` is one of syslog(3), 0 (LOG_EMERG) to 7 (LOG_DEBUG).
extern void (*zorvo_log)(int priority, const char* format, ...);
extern void (*zorvo_logv)(int priority, const char* format, va_list args);

/// Chooses the back end and the level. `location` non-null: the console back end; "console" means both
/// standard streams, "stderr" standard error, without regard to case, anything else nothing at all; the text
/// is borrowed and has to stay. `location` null: syslog with `facility`, `options` and `ident` (null: the
/// program's short name, at most 63 characters). With ZORVO_LOG_TRACE in `options` the trace id comes from
/// the environment variable ZORVO_LOG_TRACE_ID, or is made here and exported for child processes.
void zorvo_log_init(const char* location, int level, int facility, int options, const char* ident);

/// Sets the level to the low three bits of `level`. With ZORVO_LOG_LEVEL_FROM_ENV a ZORVO_LOG_LEVEL of one
/// digit 0 to 7 can raise it, never lower it. In syslog mode setlogmask(3) is set to match.
void zorvo_log_set_level(int level);

/// LogOpts.
int zorvo_log_get_opts();

/// The console back end.
void _zorvo_utility_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void _zorvo_utility_logv(int priority, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));

/// The syslog back end. With a trace id lines are cut at 8191 bytes.
void _zorvo_utility_syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void _zorvo_utility_syslogv(int priority, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
