// System calls and file streams that survive a signal, and reading and writing of whole buffers.
//
//     const std::optional<std::string> text = readAll(fd);
//     if (!text)
//         throw SystemError("read", errno);
#pragma once

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <ios>
#include <optional>
#include <string>
#include <string_view>

namespace zorvo {

/// Calls `call` until it returns something other than -1 with errno EINTR, and returns that. Adds nothing of
/// its own, so it is async-signal-safe where `call` is.
template <class Call>
auto retryOnEintr(Call call) noexcept(noexcept(call())) -> decltype(call())
{
    decltype(call()) result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// close(2), repeated while it is interrupted. Returns 0, or -1 with errno. A repetition that finds the
/// descriptor already gone counts as success: Linux releases it even when the call was interrupted.
/// Async-signal-safe.
int closeRetrying(int fd) noexcept;

/// Writes all of `bytes`, in as many calls of write(2) as it takes. Returns how many were written: all of
/// them, or fewer with the errno of the call that failed (EAGAIN for a full non-blocking descriptor). May
/// block. Async-signal-safe.
[[nodiscard]] size_t writeAll(int fd, std::string_view bytes) noexcept;

/// Reads from `fd` to the end of file. Empty with the errno of the call that failed; what had been read by
/// then is lost. May block. Throws std::bad_alloc.
[[nodiscard]] std::optional<std::string> readAll(int fd);

/// stream.open(path, mode), repeated while open(2) fails with EINTR. Any other failure leaves failbit set, as
/// open() does. May block.
template <class FileStream>
void openRetrying(FileStream& stream, const std::string& path, std::ios::openmode mode)
{
    do {
        stream.clear();
        errno = 0;
        stream.open(path, mode);
    } while (!stream.is_open() && errno == EINTR);
}

/// Flushes and closes the buffer's file. True when all of it was written; else false with errno, the file
/// being closed all the same.
[[nodiscard]] bool closeBuffer(std::filebuf& buffer);

} // namespace zorvo
