#include "common/writeText.h"

#include "common/FormattedText.h"
#include "common/eintr.h"

#include <ext/stdio_sync_filebuf.h>

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <ostream>

namespace zorvo {

namespace {

constexpr size_t maxPieces = 8;

/// Takes the first `count` bytes off the pieces.
void dropWritten(iovec* pieces, size_t number, size_t count) noexcept
{
    for (size_t i = 0; i < number; ++i) {
        const size_t part = std::min(count, pieces[i].iov_len);
        pieces[i].iov_base = static_cast<char*>(pieces[i].iov_base) + part;
        pieces[i].iov_len -= part;
        count -= part;
    }
}

void writePieces(int fd, std::initializer_list<std::string_view> pieces) noexcept
{
    iovec parts[maxPieces];
    size_t number = 0;
    size_t left = 0;
    for (const std::string_view piece : pieces) {
        if (number == maxPieces)
            break;
        parts[number++] = {const_cast<char*>(piece.data()), piece.size()};
        left += piece.size();
    }
    while (left > 0) {
        const ssize_t written = retryOnEintr([&] { return ::writev(fd, parts, static_cast<int>(number)); });
        if (written <= 0)
            return;
        dropWritten(parts, number, static_cast<size_t>(written));
        left -= static_cast<size_t>(written);
    }
}

} // namespace

void writeText(std::FILE* stream, std::initializer_list<std::string_view> pieces) noexcept
{
    const int error = errno;
    // stdio drops its buffer when write(2) is interrupted, so only what others left there goes through it.
    (void)std::fflush(stream);
    const int fd = ::fileno(stream);
    if (fd != -1) {
        writePieces(fd, pieces);
    } else {
        for (const std::string_view piece : pieces)
            (void)std::fwrite(piece.data(), 1, piece.size(), stream);
        (void)std::fflush(stream);
    }
    errno = error;
}

void writeText(std::ostream& stream, std::initializer_list<std::string_view> pieces)
{
    const std::ostream::sentry ready(stream);
    if (!ready)
        return;
    // What std::ios::sync_with_stdio(true), the default, puts under the standard streams.
    if (auto* const buffer = dynamic_cast<__gnu_cxx::stdio_sync_filebuf<char>*>(stream.rdbuf())) {
        writeText(buffer->file(), pieces);
        return;
    }
    for (const std::string_view piece : pieces)
        stream.write(piece.data(), static_cast<std::streamsize>(piece.size()));
}

void writeFormatted(std::FILE* stream, const char* format, ...) noexcept
{
    FormattedText text;
    va_list args;
    va_start(args, format);
    text.vappend(format, args);
    va_end(args);
    writeText(stream, {text.view()});
}

} // namespace zorvo
