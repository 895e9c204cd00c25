// MKLock: see the header.
#include "common/MKLock.h"

#include "common/SystemError.h"
#include "common/mk_lock.h"

#include <cerrno>

namespace zorvo {

namespace {

int hashedArgument(FilenameFlag flag)
{
    switch (flag) {
    case HashedName:
        return 1;
    case PlainName:
        return 0;
    }
    return -1;
}

} // namespace

MKLock::MKLock(const std::string& name, FilenameFlag filenameFlag, BlockFlag blockFlag) : handle_(nullptr)
{
    errno = 0;
    const int hashed = hashedArgument(filenameFlag);
    handle_ = blockFlag == Blocking ? mk_lock(name.c_str(), hashed) : mk_nonblock_lock(name.c_str(), hashed);
    if (handle_ == nullptr)
        throw SystemError("lock() failed", ENOMEM);
    if (handle_->fd < 0) {
        const int error = errno;
        rm_lock(handle_);
        throw SystemError("lock() failed", error);
    }
    if (handle_->fd == 0 && blockFlag == NonBlockingThrow) {
        rm_lock(handle_);
        throw std::runtime_error("lock(" + name + ") failed: file is already locked");
    }
}

MKLock::~MKLock()
{
    rm_lock(handle_);
}

bool MKLock::isLocked() const noexcept
{
    return is_locked(handle_) != 0;
}

} // namespace zorvo
