#include "common/messlog2.h"

#include "common/FormattedText.h"
#include "common/writeText.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

const char* PROGNAME = nullptr;

int messlog2(int exit_status, int flag, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = vmesslog2(exit_status, flag, format, args);
    va_end(args);
    return result;
}

int vmesslog2(int exit_status, int flag, const char* format, va_list args)
{
    const int error = errno;
    zorvo::FormattedText text;
    if (!text.reserve(4096))
        return ex_messlog("Can't allocate memory for error message", exit_status, flag);
    text.vappend(format, args);
    if (error != 0)
        text.append("\nSystem error %d: %s", error, std::strerror(error));
    return ex_messlog(text.c_str(), exit_status, flag);
}

int ex_messlog(const char* text, int exit_status, int /*flag*/)
{
    std::string_view program;
    if (PROGNAME != nullptr) {
        const char* const slash = std::strrchr(PROGNAME, '/');
        program = slash != nullptr ? slash + 1 : PROGNAME;
    }
    const std::string_view separator = PROGNAME != nullptr ? ": " : "";
    const std::string_view message = text;
    const std::string_view end = !message.empty() && message.back() == '\n' ? "" : "\n";
    zorvo::writeText(stderr, {program, separator, message, end});
    zorvo::writeText(stdout, {program, separator, message, end});
    if (exit_status != 0)
        std::exit(exit_status);
    return 0;
}

char* asprintf_safe(const char* format, ...)
{
    char* text = nullptr;
    va_list args;
    va_start(args, format);
    const int length = ::vasprintf(&text, format, args);
    va_end(args);
    if (length < 0)
        messlog2(1, 0, "Cannot allocate memory: %s", std::strerror(errno));
    return text;
}
