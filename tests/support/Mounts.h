// Mounts: mounts of a test's own.
#pragma once

#include "support/Child.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace support {

/// From now on nobody sees this process's mounts except its children. False where the kernel refuses that.
[[nodiscard]] inline bool makeMountsPrivate()
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// False where the kernel refuses private mounts, as in many containers: what needs them has to be skipped.
inline bool canMount()
{
    static const bool can = waitFor(forkChild([] { return makeMountsPrivate() ? 0 : 1; })) == 0;
    return can;
}

/// Puts an empty file system at `path`, for a process with mounts of its own.
[[nodiscard]] inline bool mountEmpty(const std::string& path)
{
    return ::mount("tmpfs", path.c_str(), "tmpfs", 0, nullptr) == 0;
}

/// One mount that only this process and its children see, undone at the end. Throws std::system_error.
class ScopedMount {
public:
    /// As mount(2); a bind mount can be read-only at once.
    ScopedMount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
                const char* options = nullptr)
        : target_(target)
    {
        if (!makeMountsPrivate() || ::mount(source.c_str(), target.c_str(), type, flags, options) != 0)
            throw std::system_error(errno, std::generic_category(), "mount " + target);
        if ((flags & MS_BIND) != 0 && (flags & MS_RDONLY) != 0 &&
            ::mount("none", target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "make read-only: " + target);
    }
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    ~ScopedMount() { ::umount2(target_.c_str(), MNT_DETACH); }

private:
    std::string target_;
};

} // namespace support
