// What the tests of mk_lock and MKLock share: other processes that hold or wait for locks, a missing lock
// directory.
#pragma once

#include "support/Blocked.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/HeldLock.h"
#include "support/Mounts.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace locktest {

/// Messages from and to a child; made before it is forked.
struct Pipes {
    int said[2];
    int told[2];

    Pipes()
    {
        if (::pipe(said) != 0 || ::pipe(told) != 0)
            throw std::runtime_error("cannot make pipes");
    }
    /// The child's part.
    void keepChildsEnds() const
    {
        ::close(said[0]);
        ::close(told[1]);
    }
    /// The parent's part.
    void keepParentsEnds() const
    {
        ::close(said[1]);
        ::close(told[0]);
    }
};

/// Reads one byte; '\0' at the end of the pipe.
inline char readByte(int fd)
{
    char byte = 0;
    ssize_t got = 0;
    do
        got = ::read(fd, &byte, 1);
    while (got == -1 && errno == EINTR);
    return got == 1 ? byte : '\0';
}

inline void writeByte(int fd, char byte)
{
    if (::write(fd, &byte, 1) != 1)
        ::_exit(98);
}

/// A process that takes a lock by `take`, says so, and holds it until it is released or killed.
class Holder {
public:
    explicit Holder(const std::function<void()>& take)
    {
        const Pipes pipes;
        pid_ = support::forkChild([&] {
            pipes.keepChildsEnds();
            take();
            writeByte(pipes.said[1], 'L');
            readByte(pipes.told[0]);
            return 0;
        });
        pipes.keepParentsEnds();
        release_ = pipes.told[1];
        const char first = readByte(pipes.said[0]);
        ::close(pipes.said[0]);
        if (first != 'L') {
            end();
            throw std::runtime_error("the other process got no lock");
        }
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() { end(); }

    /// Lets the process end; the lock is free afterwards.
    void end()
    {
        if (pid_ == 0)
            return;
        ::close(release_);
        support::waitFor(pid_);
        pid_ = 0;
    }

    /// Kills it with SIGKILL.
    void kill()
    {
        ::kill(pid_, SIGKILL);
        end();
    }

private:
    pid_t pid_ = 0;
    int release_ = -1;
};

/// A process that, once told, takes a lock by `take`, and says so when it has it.
class Waiter {
public:
    /// Forked before the caller takes the lock, so that it inherits no descriptor of it.
    explicit Waiter(const std::function<void()>& take)
    {
        const Pipes pipes;
        pid_ = support::forkChild([&] {
            pipes.keepChildsEnds();
            if (readByte(pipes.told[0]) != 'G')
                return 97;
            take();
            writeByte(pipes.said[1], 'L');
            return 0;
        });
        pipes.keepParentsEnds();
        said_ = pipes.said[0];
        go_ = pipes.told[1];
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter()
    {
        ::close(go_);
        ::close(said_);
        if (pid_ != 0) {
            ::kill(pid_, SIGKILL);
            support::waitFor(pid_);
        }
    }

    /// Starts the attempt; true when the process is found waiting, false when it got the lock at once.
    bool startsToWait()
    {
        writeByte(go_, 'G');
        return support::waitsForFlockBeforeWriting(pid_, said_);
    }

    /// Waits until the process has had its lock and has ended well.
    bool got()
    {
        const bool said = readByte(said_) == 'L';
        const int status = support::waitFor(pid_);
        pid_ = 0;
        return said && status == 0;
    }

private:
    pid_t pid_ = 0;
    int said_ = -1;
    int go_ = -1;
};

/// Runs `body` in a child that sees an empty /run/lock.
inline support::ChildResult withoutLockDirectory(const std::function<int()>& body)
{
    return support::runInChild([&] {
        if (support::makeMountsPrivate() && support::mountEmpty("/run/lock"))
            return body();
        // No private mounts here: move the directory aside for a moment.
        const std::string aside = std::string(support::lockDirectory) + ".aside";
        if (std::rename(support::lockDirectory, aside.c_str()) != 0)
            return 96;
        const int result = body();
        return std::rename(aside.c_str(), support::lockDirectory) == 0 ? result : 95;
    });
}

} // namespace locktest
