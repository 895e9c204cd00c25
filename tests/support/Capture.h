// Capture: what this process and its children write to standard output and standard error.
//
// The descriptors 1 and 2 themselves are redirected, so stdio, iostreams, write(2) and child processes are
// all seen. Call out() and err() before any assertion: GoogleTest prints on the same descriptors.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

namespace support {

/// Redirects from construction until stop(), out(), err() or destruction, whichever comes first.
class Capture {
public:
    Capture()
    {
        flushAll();
        for (int i = 0; i < 2; ++i) {
            file_[i] = ::memfd_create("capture", MFD_CLOEXEC);
            saved_[i] = ::fcntl(i + 1, F_DUPFD_CLOEXEC, 3);
            if (file_[i] == -1 || saved_[i] == -1 || ::dup2(file_[i], i + 1) == -1)
                throw std::runtime_error("cannot capture the standard streams");
        }
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    ~Capture()
    {
        stop();
        for (const int fd : file_)
            ::close(fd);
    }

    /// Puts the standard streams back. Text can still be asked for.
    void stop()
    {
        if (stopped_)
            return;
        stopped_ = true;
        flushAll();
        for (int i = 0; i < 2; ++i) {
            ::dup2(saved_[i], i + 1);
            ::close(saved_[i]);
        }
    }

    std::string out() { return text(0); }
    std::string err() { return text(1); }

private:
    static void flushAll()
    {
        std::cout.flush();
        std::cerr.flush();
        std::clog.flush();
        std::fflush(stdout);
        std::fflush(stderr);
    }

    std::string text(int i)
    {
        stop();
        std::string all;
        char part[4096];
        ssize_t got = 0;
        while ((got = ::pread(file_[i], part, sizeof part, static_cast<off_t>(all.size()))) > 0)
            all.append(part, static_cast<size_t>(got));
        return all;
    }

    int file_[2] = {-1, -1};
    int saved_[2] = {-1, -1};
    bool stopped_ = false;
};

} // namespace support
