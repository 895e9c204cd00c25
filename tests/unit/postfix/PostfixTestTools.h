// What the tests of postfix/ share: lock files seen from outside, faults made by the kernel, mounts, and the
// message of an exception together with its exact type.
#pragma once

#include "support/Child.h"
#include "support/ScratchDir.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace support {

inline const char* const lockDirectory = "/run/lock/files";

/// The lock file of a name, computed independently of the product.
inline std::string lockFileOf(const std::string& name)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    size_t size = 0;
    if (EVP_Q_digest(nullptr, "MD5", nullptr, name.data(), name.size(), digest, &size) != 1)
        throw std::runtime_error("no MD5");
    std::string text = std::string(lockDirectory) + '/';
    for (size_t i = 0; i < size; ++i) {
        text += "0123456789abcdef"[digest[i] >> 4];
        text += "0123456789abcdef"[digest[i] & 15];
    }
    return text;
}

/// The source file of a lookup table "TYPE:PATH".
inline std::string sourceOf(const std::string& table)
{
    return table.substr(table.find(':') + 1);
}

/// Name of the database file that postmap(1) makes of it, in the directory of the source file.
inline std::string databaseNameOf(const std::string& table)
{
    const std::string suffix = table.compare(0, 5, "lmdb:") == 0 ? ".lmdb" : ".db";
    return table.substr(table.rfind('/') + 1) + suffix;
}

/// Holds the flock(2) on a file from construction to release().
class HeldLock {
public:
    explicit HeldLock(const std::string& path) : path_(path)
    {
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ == -1 || ::flock(fd_, LOCK_EX | LOCK_NB) != 0)
            throw std::runtime_error("cannot hold the lock " + path);
    }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    ~HeldLock() { release(); }

    void release()
    {
        if (fd_ == -1)
            return;
        ::flock(fd_, LOCK_UN); // A forked child has the same open file and would keep the lock.
        ::close(fd_);
        fd_ = -1;
    }

    /// Blocks until the child `pid` is listed in /proc/locks as waiting for this lock: true. False when the
    /// child ends first.
    bool isAwaitedBy(pid_t pid) const
    {
        struct stat status = {};
        ::stat(path_.c_str(), &status);
        for (;;) {
            std::ifstream locks("/proc/locks");
            for (std::string line; std::getline(locks, line);) {
                std::istringstream words(line);
                std::string number, arrow, kind, advisory, access, place;
                pid_t waiter = 0;
                words >> number >> arrow >> kind >> advisory >> access >> waiter >> place;
                if (arrow == "->" && kind == "FLOCK" && waiter == pid &&
                    place.substr(place.rfind(':') + 1) == std::to_string(status.st_ino))
                    return true;
            }
            siginfo_t info{};
            if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                info.si_pid == pid)
                return false;
            ::usleep(2000);
        }
    }

private:
    std::string path_;
    int fd_ = -1;
};

/// Whether nobody holds the flock(2) on `path`.
inline bool lockIsFree(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    const bool isFree = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return isFree;
}

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

/// Whether this test may mount: not where scripts/sandbox had to do without namespaces.
inline bool canMount()
{
    return ::access("/run/sandbox.direct", F_OK) != 0;
}

/// A mount namespace of this process's own, so that no mount made in it is seen outside of the test.
inline void takeMountNamespace()
{
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        throw std::runtime_error("cannot have a mount namespace");
}

/// One mount in a mount namespace of this test's own, undone at the end.
class ScopedMount {
public:
    ScopedMount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
                const char* options = nullptr)
        : target_(target)
    {
        takeMountNamespace();
        if (::mount(source.c_str(), target.c_str(), type, flags, options) != 0)
            throw std::runtime_error("cannot mount " + target);
        if ((flags & MS_BIND) != 0 && (flags & MS_RDONLY) != 0 &&
            ::mount("none", target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
            throw std::runtime_error("cannot make read-only: " + target);
    }
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    ~ScopedMount() { ::umount2(target_.c_str(), MNT_DETACH); }

private:
    std::string target_;
};

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

/// Makes main.cf look old: Postfix's tools wait while it was changed in the last two seconds.
inline void ageMainCf()
{
    const timespec longAgo[2] = {{1000000000, 0}, {1000000000, 0}};
    if (::utimensat(AT_FDCWD, "/etc/postfix/main.cf", longAgo, 0) != 0)
        throw std::runtime_error("cannot change the time of main.cf");
}

/// Runs a shell command; its standard output. Fails the caller with an exception when it does not exit with
/// 0.
inline std::string outputOf(const std::string& command)
{
    FILE* const pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("popen");
    std::string text;
    char part[4096];
    for (size_t got = 0; (got = std::fread(part, 1, sizeof part, pipe)) > 0;)
        text.append(part, got);
    if (::pclose(pipe) != 0)
        throw std::runtime_error("failed: " + command);
    return text;
}

} // namespace support
