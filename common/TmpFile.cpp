#include "common/TmpFile.h"

#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/writeText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace zorvo {

namespace {

std::pair<std::string, int> init_tmp(const std::string& prefix)
{
    std::string path;
    // A fresh template every time: the call that failed may have changed it.
    const int fd = retryOnEintr([&] {
        path = prefix + "XXXXXX";
        return ::mkostemp(path.data(), O_CLOEXEC);
    });
    if (fd == -1)
        throwSystemError("mkstemp() failed: ", errno);
    return {std::move(path), fd};
}

int removeFile(const std::string& path) noexcept
{
    return retryOnEintr([&] { return ::unlink(path.c_str()); });
}

/// Throws filesystem_error with the name of the failed step and errno.
[[noreturn]] void throwFilesystemError(const char* step, const std::string& path)
{
    const std::error_code error(errno, std::system_category());
    throw std::filesystem::filesystem_error(step, path, error);
}

} // namespace

TmpFileBase::Data::Data(std::pair<std::string, int> pathAndDescriptor)
    : path(std::move(pathAndDescriptor.first))
{
    constexpr size_t bufferSize = 2048;
    const int fd = pathAndDescriptor.second;
    try {
        buffer = __gnu_cxx::stdio_filebuf<char>(fd, std::ios::out, bufferSize);
    } catch (...) {
        removeFile(path);
        throw;
    }
    // The buffer had no memory for its FILE, and did not take the descriptor.
    if (!buffer.is_open()) {
        const int error = errno;
        closeRetrying(fd);
        removeFile(path);
        throwSystemError("mkstemp() failed: ", error);
    }
}

TmpFileBase::TmpFileBase(const std::string& prefix) : data_(init_tmp(prefix)) {}

TmpFile::TmpFile(const std::string& prefix, bool autoclean)
    : TmpFileBase(prefix), std::ostream(&data_.buffer), autoclean_(autoclean)
{
}

TmpFile::~TmpFile()
{
    if (autoclean_ && removeFile(data_.path) != 0 && errno != ENOENT)
        writeText(stderr, {"TmpFile autoclean failed: ", std::strerror(errno), "\n"});
}

void TmpFile::replace(const std::string& target, unsigned mode)
{
    exceptions(std::ios::badbit | std::ios::failbit); // throws where the stream has failed before
    flush();
    const int fd = data_.buffer.fd();
    if (retryOnEintr([=] { return ::fchmod(fd, mode); }) != 0)
        throwFilesystemError("chmod", data_.path);
    // After a power failure the name must stand for the old or the new file, never for an empty one.
    if (retryOnEintr([=] { return ::fsync(fd); }) != 0)
        throwFilesystemError("fsync", data_.path);
    autoclean_ = false;
    if (closeBuffer(data_.buffer) &&
        retryOnEintr([&] { return ::rename(data_.path.c_str(), target.c_str()); }) == 0)
        return;
    const int error = errno;
    removeFile(data_.path);
    throw mail::FSError("rename", data_.path, target, error);
}

} // namespace zorvo
