#include "process/closefrom.h"

#include "common/eintr.h"
#include "process/DirOwner.h"
#include "process/proc_parsers.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using zorvo::closeRetrying;
using zorvo::process::DirOwner;

extern "C" void closefrom(int lowfd) noexcept
{
    if (closefrom_through_proc(lowfd) != 0)
        closefrom_max(lowfd);
}

int closefrom_through_proc(int lowfd) noexcept
{
    DirOwner directory("/proc/self/fd");
    if (!directory.isOpen())
        return -1;
    const int own = directory.fd();
    const int tableSize = ::getdtablesize();
    bool ownSeen = false;
    // Beyond that many open descriptors closing by number is the cheaper way.
    for (int left = std::max(tableSize / 10, 100); left > 0; --left) {
        const dirent* const entry = directory.next();
        if (entry == nullptr)
            return errno == 0 && ownSeen ? 0 : -1;
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        const int fd = proc_pid_fd_str_to_int(entry->d_name);
        if (fd == -1 || fd >= tableSize)
            return -1;
        if (fd == own)
            ownSeen = true;
        else if (fd >= lowfd)
            closeRetrying(fd);
    }
    return -1; // some were not looked at
}

void closefrom_max(int lowfd) noexcept
{
    zorvo::process::closeRange(lowfd, ::getdtablesize());
}

namespace zorvo::process {

void closeRange(int first, int last) noexcept
{
    const int error = errno;
    // The limit may be a thousand million, so one call where the kernel takes it. Numbers below 0 it does
    // not.
    if (first <= last && ::close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) != 0) {
        for (int fd = last; fd >= first; --fd)
            closeRetrying(fd);
    }
    errno = error;
}

} // namespace zorvo::process
