// The definitions below replace those of the C library in this program.
#include "unit/process/FailingCall.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>

// A sanitizer's runtime calls some of these functions before it is ready for code that it watches.
#define UNWATCHED __attribute__((no_sanitize("address", "undefined")))

namespace {

using faults::Call;
using faults::Who;

struct Counters {
    std::atomic<int> calls;
    std::atomic<int> failed;
};

struct Scope {
    bool open = false;
    Call call = Call::open;
    int nth = 0;
    int error = 0;
    Who who = Who::parent;
    pid_t owner = -1;
    void (*action)() = nullptr; ///< Called in place of the failure.
};

Scope scope;
bool untypedEntries = false;
bool waitScripted = false;
pid_t waitResult = 0;
int waitStatus = 0;

/// Shared with all descendants.
Counters& counters()
{
    static Counters* const shared = [] {
        void* const memory =
            ::mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            std::abort();
        return static_cast<Counters*>(memory);
    }();
    return *shared;
}

/// Counts a call; true, with errno set, when it is the one that has to fail.
UNWATCHED bool fails(Call call)
{
    if (!scope.open || scope.call != call)
        return false;
    if ((::getpid() == scope.owner) != (scope.who == Who::parent))
        return false;
    if (++counters().calls != scope.nth)
        return false;
    ++counters().failed;
    if (scope.action != nullptr) {
        scope.action();
        return false;
    }
    errno = scope.error;
    return true;
}

UNWATCHED void* find(const char* name)
{
    void* const found = ::dlsym(RTLD_NEXT, name);
    if (found == nullptr)
        std::abort();
    return found;
}

#define FIND(function) function = reinterpret_cast<decltype(function)>(find(#function))
/// The C library's functions.
struct RealCalls {
    UNWATCHED RealCalls()
    {
        FIND(open);
        FIND(open64);
        FIND(openat);
        FIND(pipe);
        FIND(pipe2);
        FIND(close);
        FIND(read);
        FIND(write);
        FIND(fork);
        FIND(dup2);
        FIND(fcntl);
        FIND(select);
        FIND(waitpid);
        FIND(sigaction);
        FIND(sigprocmask);
        FIND(setsid);
        FIND(getrlimit);
        FIND(chdir);
        FIND(execv);
        FIND(execvp);
        FIND(execve);
        FIND(close_range);
        FIND(readdir);
    }

    decltype(&::open) open;
    decltype(&::open64) open64;
    decltype(&::openat) openat;
    decltype(&::pipe) pipe;
    decltype(&::pipe2) pipe2;
    decltype(&::close) close;
    decltype(&::read) read;
    decltype(&::write) write;
    decltype(&::fork) fork;
    decltype(&::dup2) dup2;
    decltype(&::fcntl) fcntl;
    decltype(&::select) select;
    decltype(&::waitpid) waitpid;
    decltype(&::sigaction) sigaction;
    decltype(&::sigprocmask) sigprocmask;
    decltype(&::setsid) setsid;
    decltype(&::getrlimit) getrlimit;
    decltype(&::chdir) chdir;
    decltype(&::execv) execv;
    decltype(&::execvp) execvp;
    decltype(&::execve) execve;
    decltype(&::close_range) close_range;
    decltype(&::readdir) readdir;
};
#undef FIND

UNWATCHED const RealCalls& real()
{
    static const RealCalls calls;
    return calls;
}

/// Before main, because neither a signal handler nor a forked child may look them up.
[[gnu::constructor]] void findAll()
{
    real();
}

} // namespace

extern "C" {

UNWATCHED int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return fails(Call::open) ? -1 : real().open(path, flags, mode);
}

UNWATCHED int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return fails(Call::open) ? -1 : real().open64(path, flags, mode);
}

UNWATCHED int openat(int directory, const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return fails(Call::open) ? -1 : real().openat(directory, path, flags, mode);
}

// What fortified code calls instead of open(2) and read(2).
UNWATCHED int __open_2(const char* path, int flags)
{
    return fails(Call::open) ? -1 : real().open(path, flags, 0);
}

UNWATCHED int __open64_2(const char* path, int flags)
{
    return fails(Call::open) ? -1 : real().open64(path, flags, 0);
}

UNWATCHED ssize_t __read_chk(int fd, void* buffer, size_t size, size_t room)
{
    if (size > room)
        std::abort();
    return fails(Call::read) ? -1 : real().read(fd, buffer, size);
}

UNWATCHED int pipe(int ends[2]) noexcept
{
    return fails(Call::pipe) ? -1 : real().pipe(ends);
}

UNWATCHED int pipe2(int ends[2], int flags) noexcept
{
    return fails(Call::pipe) ? -1 : real().pipe2(ends, flags);
}

UNWATCHED int close(int fd)
{
    if (fails(Call::closeNever))
        return -1;
    if (fails(Call::close)) {
        const int error = errno;
        real().close(fd);
        errno = error;
        return -1;
    }
    return real().close(fd);
}

UNWATCHED ssize_t read(int fd, void* buffer, size_t size)
{
    return fails(Call::read) ? -1 : real().read(fd, buffer, size);
}

UNWATCHED ssize_t write(int fd, const void* buffer, size_t size)
{
    return fails(Call::write) ? -1 : real().write(fd, buffer, size);
}

UNWATCHED pid_t fork() noexcept
{
    return fails(Call::fork) ? -1 : real().fork();
}

UNWATCHED int dup2(int from, int to) noexcept
{
    return fails(Call::dup2) ? -1 : real().dup2(from, to);
}

UNWATCHED int fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (fails(Call::fcntl) || (command == F_SETFD && fails(Call::setFd)) ||
        (command == F_SETFL && fails(Call::setFl)))
        return -1;
    return real().fcntl(fd, command, argument);
}

UNWATCHED int fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntl(fd, command, argument);
}

UNWATCHED int select(int count, fd_set* reading, fd_set* writing, fd_set* exceptional, timeval* timeout)
{
    return fails(Call::select) ? -1 : real().select(count, reading, writing, exceptional, timeout);
}

UNWATCHED pid_t waitpid(pid_t pid, int* status, int options)
{
    if (waitScripted) {
        waitScripted = false;
        if (status != nullptr)
            *status = waitStatus;
        return waitResult;
    }
    return fails(Call::waitpid) ? -1 : real().waitpid(pid, status, options);
}

UNWATCHED int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept
{
    return fails(Call::sigaction) ? -1 : real().sigaction(signal, action, old);
}

UNWATCHED int sigprocmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    return fails(Call::sigprocmask) ? -1 : real().sigprocmask(how, set, old);
}

UNWATCHED pid_t setsid() noexcept
{
    return fails(Call::setsid) ? -1 : real().setsid();
}

UNWATCHED int getrlimit(__rlimit_resource_t resource, struct rlimit* limits) noexcept
{
    return fails(Call::getrlimit) ? -1 : real().getrlimit(resource, limits);
}

UNWATCHED int chdir(const char* path) noexcept
{
    return fails(Call::chdir) ? -1 : real().chdir(path);
}

UNWATCHED int execv(const char* path, char* const arguments[]) noexcept
{
    return fails(Call::exec) ? -1 : real().execv(path, arguments);
}

UNWATCHED int execvp(const char* file, char* const arguments[]) noexcept
{
    return fails(Call::exec) ? -1 : real().execvp(file, arguments);
}

UNWATCHED int execve(const char* path, char* const arguments[], char* const environment[]) noexcept
{
    return fails(Call::exec) ? -1 : real().execve(path, arguments, environment);
}

UNWATCHED int close_range(unsigned first, unsigned last, int flags) noexcept
{
    return fails(Call::closeRange) ? -1 : real().close_range(first, last, flags);
}

UNWATCHED dirent* readdir(DIR* directory)
{
    dirent* const entry = real().readdir(directory);
    if (untypedEntries && entry != nullptr)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

// The same function on a 64-bit system.
UNWATCHED dirent64* readdir64(DIR* directory)
{
    static_assert(sizeof(dirent) == sizeof(dirent64));
    return reinterpret_cast<dirent64*>(readdir(directory));
}

} // extern "C"

namespace faults {

FailingCall::FailingCall(Call call, int nth, int error, Who who)
{
    counters().calls = 0;
    counters().failed = 0;
    scope = Scope{true, call, nth, error, who, ::getpid(), nullptr};
}

FailingCall::~FailingCall()
{
    stop();
}

bool FailingCall::happened() const
{
    return counters().failed != 0;
}

void FailingCall::stop()
{
    scope.open = false;
}

AtCall::AtCall(Call call, int nth, void (*action)())
{
    counters().calls = 0;
    counters().failed = 0;
    scope = Scope{true, call, nth, 0, Who::parent, ::getpid(), action};
}

AtCall::~AtCall()
{
    scope.open = false;
}

bool AtCall::happened() const
{
    return counters().failed != 0;
}

UntypedEntries::UntypedEntries()
{
    untypedEntries = true;
}

UntypedEntries::~UntypedEntries()
{
    untypedEntries = false;
}

ScriptedWait::ScriptedWait(pid_t result, int status)
{
    waitResult = result;
    waitStatus = status;
    waitScripted = true;
}

ScriptedWait::~ScriptedWait()
{
    waitScripted = false;
}

} // namespace faults
