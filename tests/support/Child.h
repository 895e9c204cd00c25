// Child: runs test code in a process of its own, for tests that change or end a process.
#pragma once

#include "support/Capture.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

/// waitpid(2) for one child, retried while interrupted; the wait status.
inline int waitFor(pid_t child)
{
    int status = -1;
    while (::waitpid(child, &status, 0) == -1)
        if (errno != EINTR)
            throw std::runtime_error("cannot wait for a child process");
    return status;
}

/// Forks a child that runs `body` and leaves with its result through _exit(2): no destructors, no atexit
/// functions. An escaping exception gives status 255.
inline pid_t forkChild(const std::function<int()>& body)
{
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == -1)
        throw std::runtime_error("cannot fork");
    if (child != 0)
        return child;
    int status = 255;
    try {
        status = body();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "escaped: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "escaped: an unknown exception\n");
    }
    std::cout.flush();
    std::clog.flush();
    std::fflush(nullptr);
    ::_exit(status);
}

/// What a finished child left: wait status and both streams.
struct ChildResult {
    int status = -1;
    std::string out;
    std::string err;

    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

/// Runs `body` in a child to its end. Its streams are captured, so nothing of it reaches the test's output.
inline ChildResult runInChild(const std::function<int()>& body)
{
    Capture capture;
    ChildResult result;
    result.status = waitFor(forkChild(body));
    result.out = capture.out();
    result.err = capture.err();
    return result;
}

/// Children of this process, ended ones included.
inline std::vector<pid_t> childrenOfThis()
{
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        int parent = 0;
        const int pid = std::atoi(entry.path().filename().c_str());
        std::string stat;
        if (pid != 0)
            std::getline(std::ifstream(entry.path() / "stat"), stat, '\0'); // empty: ended meanwhile
        const size_t name = stat.rfind(')');
        if (name != std::string::npos && std::sscanf(stat.c_str() + name, ") %*c %d", &parent) == 1 &&
            parent == ::getpid())
            found.push_back(pid);
    }
    return found;
}

/// Ends this process by a signal, without a core file.
[[noreturn]] inline void dieOf(int signal)
{
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::signal(signal, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    ::sigprocmask(SIG_UNBLOCK, &mask, nullptr);
    ::raise(signal);
    ::_exit(98);
}

/// True when this process has no child left, running or unreaped. Reaps nothing.
inline bool hasNoChildren()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

} // namespace support
