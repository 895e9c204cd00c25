// openRetrying: opens a file stream, again while the open is interrupted.
#pragma once

#include <cerrno>
#include <ios>
#include <string>

namespace zorvo {

/// stream.open(path, mode), repeated while open(2) fails with EINTR. Any other failure leaves failbit set, as
/// open() does. May block.
template <class FileStream>
void openRetrying(FileStream& stream, const std::string& path, std::ios::openmode mode)
{
    do {
        stream.clear();
        errno = 0;
        stream.open(path, mode);
    } while (!stream.is_open() && errno == EINTR);
}

} // namespace zorvo
