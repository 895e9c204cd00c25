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
    flush();
    // Everything is written by now, and Linux has released the descriptor of an interrupted close(2).
    if (good() && rdbuf()->close() == nullptr && errno != EINTR)
        setstate(std::ios::failbit);
}

} // namespace zorvo
