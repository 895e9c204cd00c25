// openFds: the open descriptors of this process, to prove that an owner leaves none behind; readAll: reads
// one to its end.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace support {

/// Number and /proc/self/fd link text of every open descriptor, without the one used for looking.
inline std::map<int, std::string> openFds()
{
    std::map<int, std::string> result;
    DIR* const directory = ::opendir("/proc/self/fd");
    if (directory == nullptr)
        throw std::runtime_error("cannot open /proc/self/fd");
    while (const dirent* const entry = ::readdir(directory)) {
        if (entry->d_name[0] == '.')
            continue;
        const int fd = std::atoi(entry->d_name);
        if (fd == ::dirfd(directory))
            continue;
        char target[4096];
        const ssize_t length = ::readlinkat(::dirfd(directory), entry->d_name, target, sizeof target);
        result[fd] = length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
    }
    ::closedir(directory);
    return result;
}

/// Everything up to end of file, or to an error.
inline std::string readAll(int fd)
{
    std::string all;
    char part[65536];
    for (;;) {
        const ssize_t got = ::read(fd, part, sizeof part);
        if (got > 0)
            all.append(part, static_cast<size_t>(got));
        else if (got == 0 || errno != EINTR)
            return all;
    }
}

} // namespace support
