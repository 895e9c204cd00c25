// Blocked: finds out, without a clock, that another process waits for a lock.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace support {

/// The inode of the file for whose flock(2) the kernel lists `process` as waiting (proc(5), /proc/locks); 0
/// when it waits for none.
inline ino_t awaitedInode(pid_t process)
{
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, arrow, kind, advisory, mode, place;
        pid_t waiter = 0;
        if (words >> number >> arrow >> kind >> advisory >> mode >> waiter >> place && arrow == "->" &&
            kind == "FLOCK" && waiter == process)
            return std::stoul(place.substr(place.rfind(':') + 1));
    }
    return 0;
}

/// True when `fd` has something to read or has ended, now.
inline bool readable(int fd)
{
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

/// Returns once `process` waits for a flock(2): true; or once `fd` has something to read: false.
inline bool waitsForFlockBeforeWriting(pid_t process, int fd)
{
    for (;;) {
        if (awaitedInode(process) != 0)
            return !readable(fd);
        if (readable(fd))
            return false;
        ::usleep(1000);
    }
}

} // namespace support
