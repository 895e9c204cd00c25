// System calls that survive a signal.
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
