// DirOwner: one open directory stream, closed with its owner. For walks over /proc.
#pragma once

#include <dirent.h>

namespace zorvo::process {

class DirOwner {
public:
    /// Opens `path`, close-on-exec. Look at isOpen(); errno gives the reason of a failure.
    explicit DirOwner(const char* path) noexcept;
    DirOwner(const DirOwner&) = delete;
    DirOwner& operator=(const DirOwner&) = delete;
    ~DirOwner(); ///< Closes silently and keeps errno.

    bool isOpen() const noexcept { return dir_ != nullptr; }

    /// The next entry, valid until the next call. Null at the end (errno 0) and after an error (errno set).
    const dirent* next() noexcept;

    /// The directory's descriptor, borrowed.
    int fd() const noexcept { return ::dirfd(dir_); }

private:
    DIR* dir_;
};

} // namespace zorvo::process
