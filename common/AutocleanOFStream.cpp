// AutocleanOFStream: see the header.
#include "common/AutocleanOFStream.h"

#include "common/openRetrying.h"
#include "common/retryOnEintr.h"

#include <unistd.h>

#include <cerrno>

namespace zorvo {

AutocleanOFStream::AutocleanOFStream(const std::string& path) : path_(path)
{
    openRetrying(*this, path_, std::ios::out);
}

AutocleanOFStream::~AutocleanOFStream()
{
    const int error = errno;
    retryOnEintr([&] { return ::unlink(path_.c_str()); });
    errno = error;
}

void AutocleanOFStream::close()
{
    const bool flushed = rdbuf()->pubsync() == 0;
    errno = 0;
    // Linux has released the descriptor of an interrupted close(2), and everything is written by then.
    const bool closed = rdbuf()->close() != nullptr || errno == EINTR;
    if (!flushed || !closed)
        setstate(std::ios::failbit);
}

} // namespace zorvo
