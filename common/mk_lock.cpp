// mk_lock: see the header.
#include "common/mk_lock.h"

#include "common/closeRetrying.h"
#include "common/messlog2.h"
#include "common/retryOnEintr.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const char* const lockDirectory = "/run/lock/files";

/// The MD5 of the library, looked up once; null when it cannot be had. Locks are taken for every domain.
const EVP_MD* md5()
{
    // Nothing but the digest is wanted from the library, so its configuration file stays unread.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    static std::unique_ptr<EVP_MD, void (*)(EVP_MD*)> fetched(nullptr, EVP_MD_free);
    if (!fetched)
        fetched.reset(EVP_MD_fetch(nullptr, "MD5", nullptr));
    return fetched.get();
}

bool addToDigest(EVP_MD_CTX* context, const char* text)
{
    return text == nullptr || *text == '\0' || EVP_DigestUpdate(context, text, std::strlen(text)) == 1;
}

} // namespace

int get_md5sum(const char* prefix, const char* text, char* buffer)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const EVP_MD* const type = md5();
    *buffer = '\0';
    if (!context || type == nullptr || EVP_DigestInit_ex(context.get(), type, nullptr) != 1 ||
        !addToDigest(context.get(), prefix) || !addToDigest(context.get(), text) ||
        EVP_DigestFinal_ex(context.get(), digest, &length) != 1)
        return -1;
    const char* const digits = "0123456789abcdef";
    for (size_t i = 0; i < length; ++i) {
        *buffer++ = digits[digest[i] >> 4];
        *buffer++ = digits[digest[i] & 0xF];
    }
    *buffer = '\0';
    return 0;
}

char* mk_flock_path(const char* name)
{
    char md5[md5_text_length + 1];
    if (get_md5sum("", name, md5) != 0) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t size = std::strlen(lockDirectory) + 1 + sizeof md5;
    char* const path = static_cast<char*>(std::malloc(size));
    if (path != nullptr)
        (void)std::snprintf(path, size, "%s/%s", lockDirectory, md5);
    return path;
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
    handle->fd = zorvo::retryOnEintr([&] { return ::open(path, open_flags | O_CLOEXEC, 0644); });
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
