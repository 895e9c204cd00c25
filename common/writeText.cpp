#include "common/writeText.h"

#include "common/eintr.h"

#include <ext/stdio_sync_filebuf.h>

#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ostream>

namespace zorvo {

namespace {

/// Takes the first `count` bytes off the pieces.
void dropWritten(iovec* pieces, int number, size_t count)
{
    for (int i = 0; i < number && count > 0; ++i) {
        const size_t part = count < pieces[i].iov_len ? count : pieces[i].iov_len;
        pieces[i].iov_base = static_cast<char*>(pieces[i].iov_base) + part;
        pieces[i].iov_len -= part;
        count -= part;
    }
}

} // namespace

void writeText(std::FILE* stream, std::initializer_list<std::string_view> pieces) noexcept
{
    constexpr int maxPieces = 8;
    const int error = errno;
    // stdio drops its buffer when write(2) is interrupted, so only what others left there goes through it.
    (void)std::fflush(stream);
    const int fd = ::fileno(stream);
    iovec parts[maxPieces];
    int number = 0;
    size_t left = 0;
    for (const std::string_view piece : pieces) {
        if (fd == -1)
            (void)std::fwrite(piece.data(), 1, piece.size(), stream);
        else if (number < maxPieces)
            parts[number++] = {const_cast<char*>(piece.data()), piece.size()};
        left += piece.size();
    }
    if (fd == -1)
        (void)std::fflush(stream);
    while (fd != -1 && left > 0) {
        const ssize_t written = retryOnEintr([&] { return ::writev(fd, parts, number); });
        if (written <= 0)
            break;
        dropWritten(parts, number, static_cast<size_t>(written));
        left -= static_cast<size_t>(written);
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

FormattedText::FormattedText(const char* format, va_list args) noexcept
{
    const int error = errno;
    va_list again;
    va_copy(again, args);
    small_[0] = '\0';
    int length = std::vsnprintf(small_, sizeof small_, format, args);
    if (length >= static_cast<int>(sizeof small_)) {
        const size_t size = static_cast<size_t>(length) + 1;
        large_ = static_cast<char*>(std::malloc(size));
        errno = error;
        if (large_ != nullptr)
            (void)std::vsnprintf(large_, size, format, again);
        else
            length = sizeof small_ - 1;
    }
    va_end(again);
    text_ =
        std::string_view(large_ != nullptr ? large_ : small_, length > 0 ? static_cast<size_t>(length) : 0);
    errno = error;
}

FormattedText::~FormattedText()
{
    std::free(large_);
}

void writeFormatted(std::FILE* stream, const char* format, ...) noexcept
{
    va_list args;
    va_start(args, format);
    const FormattedText text(format, args);
    va_end(args);
    writeText(stream, {text.view()});
}

} // namespace zorvo
