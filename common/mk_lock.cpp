#include "common/mk_lock.h"

#include "common/eintr.h"
#include "common/messlog2.h"

// The digest by itself (MD5(3)): the interface above it loads a provider and a configuration file, which
// costs more than the rest of the start, and refuses MD5 where only FIPS algorithms are allowed.
#define OPENSSL_API_COMPAT 10100
#include <openssl/md5.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr char lockDirectory[] = "/run/lock/files/";

bool addToDigest(MD5_CTX* context, const char* text)
{
    return text == nullptr || MD5_Update(context, text, std::strlen(text)) == 1;
}

/// open(2) to a descriptor above the standard ones: in a handle 0 means "held elsewhere", and what this
/// process prints must not end in a lock file.
int openLockFile(const char* path, int flags)
{
    const int fd = zorvo::retryOnEintr([=] { return ::open(path, flags | O_CLOEXEC, 0644); });
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    zorvo::closeRetrying(fd);
    errno = error;
    return moved;
}

} // namespace

int get_md5sum(const char* prefix, const char* text, char* buffer)
{
    MD5_CTX context;
    unsigned char digest[MD5_DIGEST_LENGTH];
    *buffer = '\0';
    if (MD5_Init(&context) != 1 || !addToDigest(&context, prefix) || !addToDigest(&context, text) ||
        MD5_Final(digest, &context) != 1)
        return -1;
    const char* const digits = "0123456789abcdef";
    for (const unsigned char byte : digest) {
        *buffer++ = digits[byte >> 4];
        *buffer++ = digits[byte & 0xF];
    }
    *buffer = '\0';
    return 0;
}

char* mk_flock_path(const char* name)
{
    constexpr size_t directoryLength = sizeof lockDirectory - 1;
    char* const path = static_cast<char*>(std::malloc(directoryLength + md5_text_length + 1));
    if (path == nullptr)
        return nullptr;
    std::memcpy(path, lockDirectory, directoryLength);
    if (get_md5sum("", name, path + directoryLength) == 0)
        return path;
    std::free(path);
    errno = ENOMEM;
    return nullptr;
}

lock_handle* mk_lock_(const char* name, int open_flags, int operation, int hashed)
{
    auto* const handle = static_cast<lock_handle*>(std::malloc(sizeof(lock_handle)));
    if (handle == nullptr)
        return nullptr;
    handle->fd = 0;
    handle->path = hashed != 0 ? mk_flock_path(name) : strdup(name);
    if (handle->path == nullptr) {
        handle->fd = -1;
        return handle;
    }
    const char* const path = handle->path;
    handle->fd = openLockFile(path, open_flags);
    if (handle->fd < 0) {
        const int error = errno;
        messlog2(0, 0, "Unable to open file \"%s\": %s.", path, std::strerror(error));
        errno = error;
        return handle;
    }
    if (zorvo::retryOnEintr([&] { return ::flock(handle->fd, operation); }) != 0) {
        const int error = errno;
        zorvo::closeRetrying(handle->fd);
        handle->fd = error == EAGAIN ? 0 : -1;
        errno = error;
    }
    return handle;
}

lock_handle* mk_lock(const char* name, int hashed)
{
    return mk_lock_(name, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX, hashed);
}

lock_handle* mk_nonblock_lock(const char* name, int hashed)
{
    return mk_lock_(name, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX | LOCK_NB, hashed);
}

int rm_lock(lock_handle* handle)
{
    if (handle == nullptr)
        return -1;
    int result = 0;
    if (handle->fd > 0 && zorvo::closeRetrying(handle->fd) != 0) {
        messlog2(0, 0, "An error occured during closing '%s' file: %s\n", handle->path, std::strerror(errno));
        result = -1;
    }
    std::free(handle->path);
    std::free(handle);
    return result;
}

int free_lock(lock_handle* handle)
{
    return rm_lock(handle);
}

int is_locked(const lock_handle* handle)
{
    return handle != nullptr && handle->fd > 0 ? 1 : 0;
}

int is_already_locked(const lock_handle* handle)
{
    return handle == nullptr || handle->fd == 0 ? 1 : 0;
}
