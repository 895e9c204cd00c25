// closeBuffer: see the header.
#include "common/closeBuffer.h"

#include <cerrno>

namespace zorvo {

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
