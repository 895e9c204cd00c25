// HeldLock: a flock(2) held by a test, and functions that tell who holds or waits for one.
#pragma once

#include "support/Blocked.h"
#include "support/ScratchDir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// Whether somebody holds the flock(2) on that file. A file that is not there is not locked.
inline bool isLocked(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

/// Names of the files in a directory that somebody has locked.
inline std::vector<std::string> lockedFilesIn(const std::string& directory)
{
    std::vector<std::string> locked;
    for (const std::string& name : listing(directory))
        if (isLocked(directory + '/' + name))
            locked.push_back(name);
    return locked;
}

inline bool lockIsFree(const std::string& path)
{
    return !isLocked(path);
}

/// Holds the flock(2) on a file from construction to release().
class HeldLock {
public:
    explicit HeldLock(std::string path)
        : path_(std::move(path)), fd_(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644))
    {
        if (fd_ == -1 || ::flock(fd_, LOCK_EX | LOCK_NB) != 0)
            throw std::runtime_error("cannot hold the lock " + path_);
    }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    ~HeldLock() { release(); }

    void release()
    {
        if (fd_ == -1)
            return;
        ::flock(fd_, LOCK_UN); // a forked child has the same open file and would keep the lock
        ::close(fd_);
        fd_ = -1;
    }

    /// Blocks until /proc/locks lists the child `pid` as waiting for this lock: true. False when the child
    /// ends first.
    bool isAwaitedBy(pid_t pid) const
    {
        struct stat status = {};
        ::stat(path_.c_str(), &status);
        for (;;) {
            if (awaitedInode(pid) == status.st_ino)
                return true;
            siginfo_t info = {};
            if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                info.si_pid == pid)
                return false;
            ::usleep(2000);
        }
    }

private:
    std::string path_;
    int fd_;
};

} // namespace support
