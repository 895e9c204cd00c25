// MKLock: scoped owner of one lock of mk_lock.
#pragma once

#include <memory>
#include <string>

struct lock_handle;

namespace zorvo {

/// How the name given to MKLock leads to the lock file; any other value acts as HashedName.
enum FilenameFlag : int {
    HashedName = 0, ///< A file in /run/lock/files named by the MD5 of the name.
    PlainName = 1   ///< The name is the lock file's path.
};

/// What MKLock does about a lock held elsewhere; any other value acts as NonBlockingQuiet.
enum BlockFlag : int {
    Blocking = 0,         ///< Wait without limit.
    NonBlockingThrow = 1, ///< Throw.
    NonBlockingQuiet = 2  ///< Hold nothing, without an error.
};

/// Holds an exclusive lock from construction to destruction. It excludes other processes and other MKLock
/// objects of this process alike: two Blocking locks on one name in one process wait for ever.
class MKLock {
public:
    /// Throws SystemError "lock() failed" with the errno of the failed open(2) or flock(2), and
    /// std::runtime_error "lock(NAME) failed: file is already locked" for NonBlockingThrow.
    MKLock(const std::string& name, FilenameFlag filenameFlag, BlockFlag blockFlag);
    MKLock(const MKLock&) = delete;
    MKLock& operator=(const MKLock&) = delete;
    ~MKLock() = default;

    /// False only after NonBlockingQuiet met a lock held elsewhere.
    bool isLocked() const noexcept;

private:
    struct Release {
        void operator()(lock_handle* handle) const noexcept;
    };

    std::unique_ptr<lock_handle, Release> handle_;
};

} // namespace zorvo
