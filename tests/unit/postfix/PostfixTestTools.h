// What the tests of postfix/ share: faults made by the kernel, and the message of an exception together with
// its exact type.
#pragma once

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace support {

/// Puts a filter of system calls (seccomp(2)) on this process for good.
inline void installFilter(sock_filter* program, size_t length)
{
    sock_fprog filter{static_cast<unsigned short>(length), program};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        throw std::runtime_error("cannot make system calls fail");
}

/// From now on these system calls of this process fail with `error`. Cannot be undone: for a child.
inline void failSystemCalls(const std::vector<unsigned>& numbers, unsigned error)
{
    std::vector<sock_filter> program;
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const unsigned number : numbers) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    installFilter(program.data(), program.size());
}

/// The number that the descriptor opened `ahead` openings from now will have.
inline int nextDescriptor(int ahead)
{
    std::vector<int> taken;
    for (int i = 0; i <= ahead; ++i)
        taken.push_back(::fcntl(0, F_DUPFD_CLOEXEC, 0));
    const int result = taken.back();
    for (const int fd : taken)
        ::close(fd);
    return result;
}

/// From now on close(2) of this descriptor number fails with `error`. Cannot be undone: for a child.
inline void failCloseOf(int fd, unsigned error)
{
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close, 0, 3),
                             BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(fd), 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    installFilter(program, sizeof program / sizeof program[0]);
}

/// What `action` throws as an `E` or anything derived: its what(). Another exception is shown with its type,
/// none at all as "(no exception)".
template <class E, class Action>
std::string messageOf(Action action)
{
    try {
        try {
            action();
        } catch (const E& e) {
            return e.what();
        }
    } catch (const std::exception& e) {
        return std::string("(another exception: ") + typeid(e).name() + ": " + e.what() + ')';
    }
    return "(no exception)";
}

/// The same for exactly the type E.
template <class E, class Action>
std::string exactMessageOf(Action action)
{
    try {
        action();
    } catch (const std::exception& e) {
        if (typeid(e) == typeid(E))
            return e.what();
        return std::string("(another exception: ") + typeid(e).name() + ": " + e.what() + ')';
    }
    return "(no exception)";
}

} // namespace support
