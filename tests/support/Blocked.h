// Blocked: seeing, without a clock, that another process waits for a lock.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace support {

/// True while the kernel lists `process` as waiting for a flock(2) (proc(5), /proc/locks).
inline bool waitsForFlock(pid_t process)
{
    std::ifstream locks("/proc/locks");
    std::string line;
    while (std::getline(locks, line)) {
        std::istringstream words(line);
        std::string number, arrow, kind, advisory, mode;
        pid_t owner = 0;
        if (words >> number >> arrow >> kind >> advisory >> mode >> owner && arrow == "->" &&
            kind == "FLOCK" && owner == process)
            return true;
    }
    return false;
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
        if (waitsForFlock(process))
            return !readable(fd);
        if (readable(fd))
            return false;
        ::usleep(1000);
    }
}

} // namespace support
