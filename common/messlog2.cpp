// messlog2: see the header.
#include "common/messlog2.h"

#include "common/writeText.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

const char* PROGNAME = nullptr;

namespace {

/// A malloc'd text that grows; a failure to grow cuts it.
struct GrowingText {
    char* data;
    size_t size;
    size_t length;
};

bool grow(GrowingText& text, size_t size)
{
    char* const data = static_cast<char*>(std::realloc(text.data, size));
    if (data == nullptr)
        return false;
    text.data = data;
    text.size = size;
    return true;
}

__attribute__((format(printf, 3, 0))) void vappend(GrowingText& text, int error, const char* format,
                                                   va_list args)
{
    va_list again;
    va_copy(again, args);
    errno = error; // for "%m"
    int length = std::vsnprintf(text.data + text.length, text.size - text.length, format, args);
    if (length > 0) {
        const size_t needed = text.length + static_cast<size_t>(length) + 1;
        if (needed > text.size && grow(text, needed)) {
            errno = error;
            length = std::vsnprintf(text.data + text.length, text.size - text.length, format, again);
        }
    }
    va_end(again);
    if (length < 0)
        text.data[text.length] = '\0';
    text.length += std::strlen(text.data + text.length);
}

__attribute__((format(printf, 3, 4))) void append(GrowingText& text, int error, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vappend(text, error, format, args);
    va_end(args);
}

} // namespace

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
    constexpr size_t initialSize = 4096;
    GrowingText text = {static_cast<char*>(std::malloc(initialSize)), initialSize, 0};
    if (text.data == nullptr) {
        errno = error;
        return ex_messlog("Can't allocate memory for error message", exit_status, flag);
    }
    text.data[0] = '\0';
    vappend(text, error, format, args);
    if (error != 0)
        append(text, error, "\nSystem error %d: %s", error, std::strerror(error));
    const int result = ex_messlog(text.data, exit_status, flag);
    std::free(text.data);
    errno = error; // callers go on to throw or return with it
    return result;
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
