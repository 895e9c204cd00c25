#include "common/eintr.h"

#include <unistd.h>

namespace zorvo {

int closeRetrying(int fd) noexcept
{
    bool interrupted = false;
    for (;;) {
        if (::close(fd) == 0 || (interrupted && errno == EBADF))
            return 0;
        if (errno != EINTR)
            return -1;
        interrupted = true;
    }
}

size_t writeAll(int fd, std::string_view bytes) noexcept
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written =
            retryOnEintr([&] { return ::write(fd, bytes.data() + done, bytes.size() - done); });
        if (written == -1)
            break;
        done += static_cast<size_t>(written);
    }
    return done;
}

std::optional<std::string> readAll(int fd)
{
    std::string text;
    char chunk[4096];
    for (;;) {
        const ssize_t got = retryOnEintr([&] { return ::read(fd, chunk, sizeof chunk); });
        if (got == -1)
            return std::nullopt;
        if (got == 0)
            return text;
        text.append(chunk, static_cast<size_t>(got));
    }
}

bool closeBuffer(std::filebuf& buffer)
{
    const bool flushed = buffer.pubsync() == 0;
    const int error = errno;
    errno = 0;
    // Linux has released the descriptor of an interrupted close(2), and everything is written by then.
    const bool closed = buffer.close() != nullptr || errno == EINTR;
    if (!flushed)
        errno = error;
    return flushed && closed;
}

} // namespace zorvo
