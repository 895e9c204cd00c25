#include "common/AutocleanOFStream.h"

#include "common/eintr.h"

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
    if (!closeBuffer(*rdbuf()))
        setstate(std::ios::failbit);
}

} // namespace zorvo
