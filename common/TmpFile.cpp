// TmpFile: see the header.
#include "common/TmpFile.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zorvo {

namespace {

constexpr size_t bufferSize = 2048;

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
    return {path, fd};
}

} // namespace

TmpFileBase::Data::Data(const std::pair<std::string, int>& pathAndDescriptor)
    : path(pathAndDescriptor.first), buffer(pathAndDescriptor.second, std::ios::out, bufferSize)
{
}

TmpFileBase::TmpFileBase(const std::string& prefix) : data_(init_tmp(prefix)) {}

TmpFile::TmpFile(const std::string& prefix, bool autoclean)
    : TmpFileBase(prefix), std::ostream(&data_.buffer), autoclean_(autoclean)
{
}

TmpFile::~TmpFile()
{
    if (autoclean_ && retryOnEintr([&] { return ::unlink(data_.path.c_str()); }) != 0 && errno != ENOENT)
        (void)std::fprintf(stderr, "TmpFile autoclean failed: %s\n", std::strerror(errno));
}

// A closed buffer has no descriptor to ask for.
bool TmpFile::requireOpen() noexcept
{
    if (!data_.buffer.is_open())
        errno = EBADF;
    return data_.buffer.is_open();
}

void TmpFile::writeLines(std::list<std::string>::const_iterator line,
                         std::list<std::string>::const_iterator last)
{
    if (!good())
        return;
    // What was inserted before comes first.
    bool written = requireOpen() && data_.buffer.pubsync() == 0;
    std::string text;
    for (const int fd = written ? data_.buffer.fd() : -1; written && line != last; ++line) {
        text.assign(*line).push_back('\n');
        written = writeAll(fd, text) == text.size();
    }
    if (!written)
        setstate(badbit);
}

int TmpFile::chmod(unsigned mode) noexcept
{
    return requireOpen() ? retryOnEintr([&] { return ::fchmod(data_.buffer.fd(), mode); }) : -1;
}

int TmpFile::sync()
{
    if (!requireOpen() || data_.buffer.pubsync() != 0)
        return -1;
    return retryOnEintr([&] { return ::fsync(data_.buffer.fd()); });
}

int TmpFile::close()
{
    return closeBuffer(data_.buffer) ? 0 : -1;
}

} // namespace zorvo
