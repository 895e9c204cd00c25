// Small tools shared by the tests of this directory: assertions in a process of their own, exceptions as
// text, signals, handshakes.
#pragma once

#include "common/SystemError.h"
#include "process/signals.h"
#include "support/Child.h"
#include "support/OpenFds.h"
#include "support/SignalStates.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
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

/// Puts this process into a state that takeOverSignals() has to change in every way: SIGCHLD ignored and
/// blocked, SIGPIPE blocked, and SIGUSR1 blocked, which it must leave alone. Calls that function and returns
/// the state before.
inline support::Signals takeOverOddSignals()
{
    ::signal(SIGCHLD, SIG_IGN);
    ::signal(SIGPIPE, SIG_DFL);
    block(SIGCHLD);
    block(SIGPIPE);
    block(SIGUSR1);
    const support::Signals start = support::ownSignals();
    zorvo::process::takeOverSignals();
    return start;
}

/// The current disposition of a signal.
inline struct sigaction dispositionOf(int signal)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action;
}

/// After each test no child and no descriptor may be left.
class NothingLeftTest : public testing::Test {
protected:
    NothingLeftTest() : fds_(support::openFds()) {}
    ~NothingLeftTest() override { checkNothingIsLeft(); }

    void checkNothingIsLeft() const
    {
        EXPECT_TRUE(support::hasNoChildren());
        EXPECT_EQ(support::openFds(), fds_);
    }

private:
    std::map<int, std::string> fds_;
};

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

} // namespace tools
