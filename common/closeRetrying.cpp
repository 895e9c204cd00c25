// closeRetrying: see the header.
#include "common/closeRetrying.h"

#include <unistd.h>

#include <cerrno>

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

} // namespace zorvo
