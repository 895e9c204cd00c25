// Small tools shared by the tests of this directory: assertions in a process of their own, exceptions as
// text, signal states, handshakes.
#pragma once

#include "common/SystemError.h"
#include "support/Child.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>

namespace tools {

/// Number of assertions that failed in the running test so far.
inline int failures()
{
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    int count = 0;
    for (int i = 0; i < result.total_part_count(); ++i)
        count += result.GetTestPartResult(i).failed() ? 1 : 0;
    return count;
}

/// Runs `body`, assertions and all, in a forked child: it may change signals, limits, mounts, descriptors.
inline void inOwnProcess(const std::function<void()>& body)
{
    const pid_t child = support::forkChild([&body] {
        const int before = failures();
        body();
        return failures() == before ? 0 : 1;
    });
    EXPECT_EQ(support::waitFor(child), 0) << "the child's own report stands above";
}

/// Dynamic type of an exception, without the wrapper that Boost throws its own in.
inline std::string typeName(const std::exception& exception)
{
    int failed = 0;
    const std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &failed), std::free);
    std::string name = failed == 0 ? readable.get() : typeid(exception).name();
    const std::string wrapper = "boost::wrapexcept<";
    if (name.compare(0, wrapper.size(), wrapper) == 0)
        name = name.substr(wrapper.size(), name.size() - wrapper.size() - 1);
    return name;
}

/// What `body` throws, as "TYPE: TEXT", for a SystemError "TYPE(CODE): TEXT"; "nothing" where it does not.
inline std::string thrownBy(const std::function<void()>& body)
{
    try {
        body();
    } catch (const zorvo::SystemError& e) {
        return typeName(e) + "(" + std::to_string(e.code()) + "): " + e.what();
    } catch (const std::exception& e) {
        return typeName(e) + ": " + e.what();
    } catch (...) {
        return "something else";
    }
    return "nothing";
}

/// The text that thrownBy gives for a plain SystemError.
inline std::string systemError(const std::string& label, int code)
{
    return "zorvo::SystemError(" + std::to_string(code) + "): " + zorvo::SystemError(label, code).what();
}

/// The same for a failure that a child reported: its text has the reason already.
inline std::string childSystemError(const std::string& label, int code)
{
    return systemError(zorvo::SystemError(label, code).what(), code);
}

/// The bit of a signal in the masks of /proc/PID/status.
constexpr uint64_t bit(int signal)
{
    return uint64_t{1} << (signal - 1);
}

/// Blocked and ignored signals of a process.
struct Signals {
    uint64_t blocked = 0;
    uint64_t ignored = 0;
};

inline bool operator==(const Signals& one, const Signals& other)
{
    return one.blocked == other.blocked && one.ignored == other.ignored;
}

inline std::ostream& operator<<(std::ostream& stream, const Signals& signals)
{
    return stream << std::hex << "blocked " << signals.blocked << ", ignored " << signals.ignored << std::dec;
}

/// From the text of a /proc/PID/status.
inline Signals signalsIn(const std::string& status)
{
    Signals signals;
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 7, "SigBlk:") == 0)
            signals.blocked = std::stoull(line.substr(7), nullptr, 16);
        if (line.compare(0, 7, "SigIgn:") == 0)
            signals.ignored = std::stoull(line.substr(7), nullptr, 16);
    }
    return signals;
}

/// Of this process.
inline Signals ownSignals()
{
    std::ifstream status("/proc/self/status");
    return signalsIn({std::istreambuf_iterator<char>(status), std::istreambuf_iterator<char>()});
}

inline void block(int signal)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ASSERT_EQ(::sigprocmask(SIG_BLOCK, &set, nullptr), 0);
}

inline void unblock(int signal)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    ASSERT_EQ(::sigprocmask(SIG_UNBLOCK, &set, nullptr), 0);
}

inline bool isBlocked(int signal)
{
    sigset_t set;
    sigemptyset(&set);
    ::sigprocmask(SIG_BLOCK, nullptr, &set);
    return sigismember(&set, signal) == 1;
}

/// The current disposition of a signal.
inline struct sigaction dispositionOf(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action;
}

/// Waits until `child` has ended; it stays to be reaped.
inline void waitUntilEnded(pid_t child)
{
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) == -1)
        if (errno != EINTR)
            throw std::runtime_error("cannot wait for the end of a child");
}

/// Waits until `child` is stopped; the stop stays to be reported.
inline void waitUntilStopped(pid_t child)
{
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WNOWAIT) == -1)
        if (errno != EINTR)
            throw std::runtime_error("cannot wait for the stop of a child");
}

/// Processes wait at a gate until another one lets them through.
class Gate {
public:
    Gate()
    {
        if (::pipe2(ends_, O_CLOEXEC) != 0)
            throw std::runtime_error("cannot make a gate");
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    /// Lets `count` processes through, at once or when they come.
    void open(size_t count = 1)
    {
        const std::string passes(count, 'x');
        if (::write(ends_[1], passes.data(), passes.size()) != static_cast<ssize_t>(passes.size()))
            throw std::runtime_error("cannot open a gate");
    }
    void wait()
    {
        char pass = 0;
        while (::read(ends_[0], &pass, 1) == -1)
            if (errno != EINTR)
                throw std::runtime_error("cannot wait at a gate");
    }

private:
    int ends_[2] = {-1, -1};
};

/// Everything up to end of file.
inline std::string readAll(int fd)
{
    std::string all;
    char part[4096];
    for (;;) {
        const ssize_t got = ::read(fd, part, sizeof part);
        if (got > 0)
            all.append(part, static_cast<size_t>(got));
        else if (got == 0 || errno != EINTR)
            return all;
    }
}

/// Makes the calling process's mounts its own, so that those of a test end with it.
inline bool makeMountsPrivate()
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// False where the kernel lets no process have mounts of its own; what needs them has to be skipped then.
inline bool mountsCanBePrivate()
{
    return support::waitFor(support::forkChild([] { return makeMountsPrivate() ? 0 : 1; })) == 0;
}

/// An empty file system at `path`.
inline void mountEmpty(const std::string& path)
{
    ASSERT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, nullptr), 0) << std::strerror(errno);
}

} // namespace tools
