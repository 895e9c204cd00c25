#include "common/zorvo_log.h"

#include "common/FormattedText.h"
#include "common/writeText.h"

#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int LogLevel = LOG_INFO;
const char* LogLocation = nullptr;
int LogOpts = LOG_PID;
int LogFacility = LOG_MAIL;
char LogIdent[64] = "";
char LogTraceId[64] = "";

void (*zorvo_log)(int priority, const char* format, ...) = _zorvo_utility_log;
void (*zorvo_logv)(int priority, const char* format, va_list args) = _zorvo_utility_logv;

namespace {

const char* const traceIdVariable = "ZORVO_LOG_TRACE_ID";
const char* const levelVariable = "ZORVO_LOG_LEVEL";

/// Takes the trace id that the parent exported, or makes one and exports it.
void initTraceId()
{
    const char* const inherited = std::getenv(traceIdVariable);
    if (inherited != nullptr && *inherited != '\0') {
        (void)std::snprintf(LogTraceId, sizeof LogTraceId, "%s", inherited);
        return;
    }
    const int initial = std::toupper(static_cast<unsigned char>(*program_invocation_short_name));
    (void)std::snprintf(LogTraceId, sizeof LogTraceId, "%c%ld", initial, static_cast<long>(::getpid()));
    ::setenv(traceIdVariable, LogTraceId, 1);
}

bool isSyslogMode()
{
    return zorvo_logv == _zorvo_utility_syslogv;
}

} // namespace

void zorvo_log_init(const char* location, int level, int facility, int options, const char* ident)
{
    LogFacility = facility;
    LogLocation = location;
    if (location != nullptr) {
        zorvo_log = _zorvo_utility_log;
        zorvo_logv = _zorvo_utility_logv;
        zorvo_log_set_level(level);
        return;
    }
    ::closelog();
    LogOpts = options | LOG_PID;
    (void)std::snprintf(LogIdent, sizeof LogIdent, "%s",
                        ident != nullptr ? ident : program_invocation_short_name);
    if ((LogOpts & ZORVO_LOG_TRACE) != 0)
        initTraceId();
    ::openlog(LogIdent, LogOpts & (LOG_PID | LOG_CONS | LOG_PERROR), LogFacility);
    zorvo_log = _zorvo_utility_syslog;
    zorvo_logv = _zorvo_utility_syslogv;
    zorvo_log_set_level(level);
}

void zorvo_log_set_level(int level)
{
    int chosen = level & LOG_PRIMASK;
    if ((level & ZORVO_LOG_LEVEL_FROM_ENV) != 0) {
        const char* const wanted = std::getenv(levelVariable);
        if (wanted != nullptr && *wanted >= '0' && *wanted <= '7' && wanted[1] == '\0' &&
            *wanted - '0' > chosen)
            chosen = *wanted - '0';
    }
    LogLevel = chosen;
    if (isSyslogMode())
        ::setlogmask(LOG_UPTO(chosen));
}

int zorvo_log_get_opts()
{
    return LogOpts;
}

void _zorvo_utility_log(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    _zorvo_utility_logv(priority, format, args);
    va_end(args);
}

void _zorvo_utility_logv(int priority, const char* format, va_list args)
{
    if (priority > LogLevel)
        return;
    const bool toBoth = LogLocation == nullptr || ::strcasecmp(LogLocation, "console") == 0;
    if (!toBoth && ::strcasecmp(LogLocation, "stderr") != 0)
        return;
    zorvo::FormattedText text;
    text.vappend(format, args);
    zorvo::writeText(stderr, {text.view(), "\n"});
    if (toBoth)
        zorvo::writeText(stdout, {text.view(), "\n"});
}

void _zorvo_utility_syslog(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    _zorvo_utility_syslogv(priority, format, args);
    va_end(args);
}

void _zorvo_utility_syslogv(int priority, const char* format, va_list args)
{
    const int error = errno;
    if ((LogOpts & ZORVO_LOG_TRACE) != 0 && LogTraceId[0] != '\0') {
        char line[8192];
        const int prefix = std::snprintf(line, sizeof line, "%s: ", LogTraceId);
        errno = error; // for "%m"
        (void)std::vsnprintf(line + prefix, sizeof line - static_cast<size_t>(prefix), format, args);
        ::syslog(priority, "%s", line);
    } else {
        ::vsyslog(priority, format, args);
    }
    errno = error;
}
