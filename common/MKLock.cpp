#include "common/MKLock.h"

#include "common/SystemError.h"
#include "common/mk_lock.h"

#include <cerrno>
#include <stdexcept>

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

MKLock::MKLock(const std::string& name, FilenameFlag filenameFlag, BlockFlag blockFlag)
{
    errno = 0;
    const int hashed = hashedArgument(filenameFlag);
    handle_.reset(blockFlag == Blocking ? mk_lock(name.c_str(), hashed)
                                        : mk_nonblock_lock(name.c_str(), hashed));
    if (!handle_)
        throw SystemError("lock() failed", ENOMEM);
    if (handle_->fd < 0)
        throw SystemError("lock() failed", errno);
    if (handle_->fd == 0 && blockFlag == NonBlockingThrow)
        throw std::runtime_error("lock(" + name + ") failed: file is already locked");
}

bool MKLock::isLocked() const noexcept
{
    return is_locked(handle_.get()) != 0;
}

void MKLock::Release::operator()(lock_handle* handle) const noexcept
{
    rm_lock(handle);
}

} // namespace zorvo
