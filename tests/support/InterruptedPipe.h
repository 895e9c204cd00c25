// InterruptedPipe: a standard stream on which real signals interrupt every write.
#pragma once

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>

namespace support {

/// Puts a pipe that has space for one write(2) (O_DIRECT in pipe(2)), and is full, in place of a descriptor.
/// Each write there blocks until SIGALRM, whose handler is installed without SA_RESTART, interrupts it; at
/// every third signal the handler makes space. For use in a child (support::runInChild): nothing is put back.
class InterruptedPipe {
public:
    explicit InterruptedPipe(int fd)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { takeEveryThirdTime(); };
        const itimerval often{{0, 200}, {0, 200}};
        if (::pipe2(state().ends, O_CLOEXEC | O_NONBLOCK | O_DIRECT) != 0 ||
            ::fcntl(state().ends[1], F_SETPIPE_SZ, 4096) != 4096 || ::write(state().ends[1], "*", 1) != 1 ||
            ::fcntl(state().ends[1], F_SETFL, O_DIRECT) == -1 || ::dup2(state().ends[1], fd) == -1 ||
            ::sigaction(SIGALRM, &action, nullptr) != 0 || ::setitimer(ITIMER_REAL, &often, nullptr) != 0)
            throw std::runtime_error("cannot arrange interruptions");
    }
    InterruptedPipe(const InterruptedPipe&) = delete;
    InterruptedPipe& operator=(const InterruptedPipe&) = delete;

    /// Ends the interruptions. What was written since construction.
    std::string text()
    {
        const itimerval never{};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        while (take()) {
        }
        return std::string(state().taken + 1, state().size - 1);
    }

private:
    struct State {
        int ends[2];
        int signals;
        char taken[65536];
        size_t size;
    };

    static State& state()
    {
        static State only;
        return only;
    }
    static bool take()
    {
        State& all = state();
        const ssize_t got = ::read(all.ends[0], all.taken + all.size, sizeof all.taken - all.size);
        all.size += got > 0 ? static_cast<size_t>(got) : 0;
        return got > 0;
    }
    static void takeEveryThirdTime()
    {
        const int error = errno;
        if (++state().signals % 3 == 0)
            (void)take();
        errno = error;
    }
};

} // namespace support
