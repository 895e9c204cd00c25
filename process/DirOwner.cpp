#include "process/DirOwner.h"

#include "common/eintr.h"

#include <cerrno>

namespace zorvo::process {

DirOwner::DirOwner(const char* path) noexcept
{
    do
        dir_ = ::opendir(path);
    while (dir_ == nullptr && errno == EINTR);
}

DirOwner::~DirOwner()
{
    if (dir_ == nullptr)
        return;
    const int error = errno;
    const int fd = this->fd();
    // An interrupted closedir(3) has freed the stream already, so that only the descriptor may be left.
    if (::closedir(dir_) != 0 && errno == EINTR)
        closeRetrying(fd);
    errno = error;
}

const dirent* DirOwner::next() noexcept
{
    const dirent* entry = nullptr;
    do {
        errno = 0;
        entry = ::readdir(dir_);
    } while (entry == nullptr && errno == EINTR);
    return entry;
}

} // namespace zorvo::process
