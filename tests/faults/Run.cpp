#include "Run.h"

#include "support/Child.h"
#include "support/FixedPaths.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <map>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace faults {

std::string programPath;

namespace {

template <class Result>
Result check(Result result, const char* what)
{
    if (result == Result(-1))
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// What the first argument of a call is, as far as it goes into an event.
enum class Subject { Nothing, Path, PathSecond, TwoPaths, Descriptor };

struct CallName {
    unsigned long number;
    const char* name;
    Subject subject;
};

constexpr CallName callNames[] = {
    {SYS_access, "access", Subject::Path},
    {SYS_brk, "brk", Subject::Nothing},
    {SYS_chdir, "chdir", Subject::Path},
    {SYS_clock_nanosleep, "clock_nanosleep", Subject::Nothing},
    {SYS_clone, "fork", Subject::Nothing}, // what fork(3) does
    {SYS_clone3, "clone3", Subject::Nothing},
    {SYS_close, "close", Subject::Descriptor},
    {SYS_close_range, "close_range", Subject::Nothing},
    {SYS_dup2, "dup2", Subject::Descriptor},
    {SYS_execve, "execve", Subject::Path},
    {SYS_exit_group, "exit_group", Subject::Nothing},
    {SYS_fchmod, "fchmod", Subject::Descriptor},
    {SYS_fcntl, "fcntl", Subject::Descriptor},
    {SYS_flock, "flock", Subject::Descriptor},
    {SYS_fsync, "fsync", Subject::Descriptor},
    {SYS_futex, "futex", Subject::Nothing},
    {SYS_getdents64, "getdents64", Subject::Descriptor},
    {SYS_getpid, "getpid", Subject::Nothing},
    {SYS_getrandom, "getrandom", Subject::Nothing},
    {SYS_gettid, "gettid", Subject::Nothing},
    {SYS_lseek, "lseek", Subject::Descriptor},
    {SYS_mmap, "mmap", Subject::Nothing},
    {SYS_mprotect, "mprotect", Subject::Nothing},
    {SYS_mremap, "mremap", Subject::Nothing},
    {SYS_munmap, "munmap", Subject::Nothing},
    {SYS_newfstatat, "newfstatat", Subject::PathSecond},
    {SYS_openat, "openat", Subject::PathSecond},
    {SYS_pipe2, "pipe2", Subject::Nothing},
    {SYS_prlimit64, "prlimit64", Subject::Nothing},
    {SYS_pselect6, "pselect6", Subject::Nothing},
    {SYS_read, "read", Subject::Descriptor},
    {SYS_rename, "rename", Subject::TwoPaths},
    {SYS_rt_sigaction, "rt_sigaction", Subject::Nothing},
    {SYS_rt_sigprocmask, "rt_sigprocmask", Subject::Nothing},
    {SYS_rt_sigreturn, "rt_sigreturn", Subject::Nothing},
    {SYS_set_robust_list, "set_robust_list", Subject::Nothing},
    {SYS_unlink, "unlink", Subject::Path},
    {SYS_wait4, "wait4", Subject::Nothing},
    {SYS_write, "write", Subject::Descriptor},
    {SYS_writev, "writev", Subject::Descriptor},
};

const CallName* findCall(unsigned long number)
{
    const auto* const found = std::find_if(std::begin(callNames), std::end(callNames),
                                           [=](const CallName& call) { return call.number == number; });
    return found == std::end(callNames) ? nullptr : found;
}

std::string nameOf(unsigned long number)
{
    const CallName* const call = findCall(number);
    return call != nullptr ? call->name : "syscall " + std::to_string(number);
}

std::string textAt(pid_t pid, unsigned long address)
{
    std::string text;
    for (;;) {
        // Page by page: after the last one there may be nothing.
        char part[4096];
        iovec here = {part, sizeof part - address % sizeof part};
        iovec there = {reinterpret_cast<void*>(address), here.iov_len};
        const ssize_t size = process_vm_readv(pid, &here, 1, &there, 1, 0);
        if (size <= 0)
            return text;
        const size_t length = strnlen(part, static_cast<size_t>(size));
        text.append(part, length);
        if (length < static_cast<size_t>(size))
            return text;
        address += length;
    }
}

std::string descriptorTarget(pid_t pid, unsigned long fd)
{
    char target[4096];
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length < 0 ? std::to_string(static_cast<int>(fd))
                      : std::string(target, static_cast<size_t>(length));
}

// Pids, pipe numbers and the characters that mkstemp(3) chooses differ from run to run.
std::string withoutChance(std::string text)
{
    if (text.compare(0, 5, "pipe:") == 0)
        return "pipe";
    const size_t start = text.compare(0, 6, "/proc/") == 0 ? 6 : 0; // else it may be relative to that
    const size_t digits = text.find_first_not_of("0123456789", start);
    if (digits != start && digits != std::string::npos && text[digits] == '/')
        text.replace(start, digits - start, "PID");
    const std::string base = support::masterCfPath;
    if (text.compare(0, base.size(), base) == 0 && text.size() == base.size() + 6)
        text.replace(base.size(), 6, "XXXXXX");
    return text;
}

// Those above 2, as "NUMBER TARGET".
std::vector<std::string> descriptorsOf(pid_t pid)
{
    std::vector<std::string> found;
    DIR* const stream = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    while (const dirent* entry = readdir(stream)) {
        const int fd = atoi(entry->d_name);
        if (fd > STDERR_FILENO)
            found.push_back(std::to_string(fd) + ' ' + descriptorTarget(pid, static_cast<unsigned long>(fd)));
    }
    closedir(stream);
    return found;
}

std::string describe(pid_t pid, const CallName* call, const __uint64_t (&arguments)[6])
{
    switch (call != nullptr ? call->subject : Subject::Nothing) {
    case Subject::Nothing:
        break;
    case Subject::Path:
        return withoutChance(textAt(pid, arguments[0]));
    case Subject::PathSecond:
        return withoutChance(textAt(pid, arguments[1]));
    case Subject::TwoPaths:
        return withoutChance(textAt(pid, arguments[0])) + " -> " + withoutChance(textAt(pid, arguments[1]));
    case Subject::Descriptor: {
        const std::string target = withoutChance(descriptorTarget(pid, arguments[0]));
        const bool wakes = call->number == SYS_write && target == "pipe" && arguments[2] == 1;
        return wakes ? "pipe, one byte" : target;
    }
    }
    return std::string();
}

// --- changing a stopped call ---

user_regs_struct registersOf(pid_t pid)
{
    user_regs_struct registers;
    check(ptrace(PTRACE_GETREGS, pid, nullptr, &registers), "PTRACE_GETREGS");
    return registers;
}

// At the entry: it will not be carried out.
void cancelCall(pid_t pid)
{
    user_regs_struct registers = registersOf(pid);
    registers.orig_rax = ~0ULL;
    check(ptrace(PTRACE_SETREGS, pid, nullptr, &registers), "PTRACE_SETREGS");
}

// At the exit.
void setResult(pid_t pid, long result)
{
    user_regs_struct registers = registersOf(pid);
    registers.rax = static_cast<unsigned long long>(result);
    check(ptrace(PTRACE_SETREGS, pid, nullptr, &registers), "PTRACE_SETREGS");
}

// --- the run ---

volatile sig_atomic_t alarmRang = 0;

void ring(int)
{
    alarmRang = 1;
}

void setAlarm(unsigned seconds)
{
    struct sigaction action = {};
    action.sa_handler = ring; // without SA_RESTART: waiting is interrupted
    sigaction(SIGALRM, &action, nullptr);
    alarmRang = 0;
    // Repeated, because it may come between a look at alarmRang and the waiting.
    const itimerval timer = {{seconds == 0 ? 0 : 1, 0}, {static_cast<time_t>(seconds), 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// A file without a name, for output of any length.
class Scratch {
public:
    explicit Scratch(const char* name, const std::string& content = std::string())
        : fd_(check(memfd_create(name, MFD_CLOEXEC), "memfd_create"))
    {
        for (size_t done = 0; done < content.size();)
            done += static_cast<size_t>(
                check(::write(fd_, content.data() + done, content.size() - done), "write"));
        lseek(fd_, 0, SEEK_SET);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() { close(fd_); }

    int fd() const { return fd_; }
    std::string content() const
    {
        std::string text(static_cast<size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        check(pread(fd_, text.data(), text.size(), 0), "pread");
        return text;
    }

private:
    int fd_;
};

class Runner {
public:
    explicit Runner(const Launch& launch)
        : launch_(launch),
          traced_(launch.traced || launch.fault.effect != Effect::None),
          input_("input", launch.inputIsFile ? launch.input : std::string())
    {
    }

    Outcome run();

private:
    struct Tracee {
        int process = 0;
        bool started = false; // main has begun
        bool inFault = false; // between entry and exit of the call to strike
        bool pending = false; // an event is under way
        Event event;
        std::map<unsigned long, unsigned> counts;
    };

    [[noreturn]] void _runChild(int inputEnd);
    bool _waitOne();
    void _onStop(pid_t pid, int status);
    void _onSystemCall(pid_t pid, Tracee& tracee);
    void _onEntry(pid_t pid, Tracee& tracee, const __ptrace_syscall_info& info);
    void _onExit(pid_t pid, Tracee& tracee, long result);
    void _endAll();
    void _resume(pid_t pid, int signal = 0) { ptrace(PTRACE_SYSCALL, pid, nullptr, signal); }

    const Launch& launch_;
    bool traced_;
    Scratch input_;
    Scratch out_{"output"};
    Scratch err_{"errors"};
    pid_t main_ = -1;
    bool mainEnded_ = false;
    int processes_ = 0;
    std::map<pid_t, Tracee> tracees_;
    Outcome outcome_;
};

void Runner::_runChild(int inputEnd)
{
    dup2(inputEnd, STDIN_FILENO);
    dup2(out_.fd(), STDOUT_FILENO);
    dup2(err_.fd(), STDERR_FILENO);
    // The process that started the test may have left it some.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    fcntl(STDOUT_FILENO, F_SETFL, O_APPEND);
    fcntl(STDERR_FILENO, F_SETFL, O_APPEND);
    umask(022);
    signal(SIGPIPE, SIG_DFL);

    std::vector<std::string> words = launch_.wrapper;
    words.push_back(programPath);
    words.insert(words.end(), launch_.arguments.begin(), launch_.arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<std::string> variables = launch_.environment;
    std::vector<char*> envp;
    for (std::string& variable : variables)
        envp.push_back(variable.data());
    for (char** variable = environ; *variable != nullptr && !launch_.emptyEnvironment; ++variable)
        envp.push_back(*variable);
    envp.push_back(nullptr);

    if (traced_) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
    }
    if (launch_.before)
        launch_.before();
    execve(argv[0], argv.data(), envp.data());
    _exit(98);
}

void Runner::_onEntry(pid_t pid, Tracee& tracee, const __ptrace_syscall_info& info)
{
    const unsigned long number = info.entry.nr;
    const CallName* const call = findCall(number);
    if (!tracee.started) {
        // The first thing that main does; earlier calls are those of the dynamic linker and the libraries.
        tracee.started =
            number == SYS_fcntl && info.entry.args[0] == STDIN_FILENO && info.entry.args[1] == F_GETFD;
        if (!tracee.started)
            return;
    }
    const Fault& fault = launch_.fault;
    Event& event = tracee.event;
    event = Event();
    event.process = tracee.process;
    event.call = nameOf(number);
    event.occurrence = ++tracee.counts[number];
    event.arguments.assign(std::begin(info.entry.args), std::end(info.entry.args));
    tracee.pending = true;
    tracee.inFault = fault.effect != Effect::None && !outcome_.struck && tracee.process == fault.process &&
                     event.call == fault.call && event.occurrence == fault.occurrence;
    if (tracee.inFault || fault.effect == Effect::None)
        event.detail = describe(pid, call, info.entry.args);
    if (number == SYS_exit_group && pid == main_)
        outcome_.descriptors = descriptorsOf(pid);
    if (!tracee.inFault)
        return;
    outcome_.struck = true;
    outcome_.target = event;
    if (fault.effect == Effect::Fail)
        cancelCall(pid);
    if (fault.effect == Effect::Kill) {
        cancelCall(pid);
        kill(pid, SIGKILL);
    }
}

void Runner::_onExit(pid_t pid, Tracee& tracee, long result)
{
    if (!tracee.pending)
        return;
    tracee.pending = false;
    tracee.event.result = result;
    if (tracee.inFault) {
        tracee.inFault = false;
        const Effect effect = launch_.fault.effect;
        if (effect == Effect::Fail || effect == Effect::FailAfter) {
            tracee.event.result = -launch_.fault.error;
            setResult(pid, tracee.event.result);
        } else if (effect == Effect::KillAfter) {
            kill(pid, SIGKILL);
        }
    }
    outcome_.events.push_back(tracee.event);
    if (launch_.onEvent)
        launch_.onEvent(tracee.event);
}

void Runner::_onSystemCall(pid_t pid, Tracee& tracee)
{
    __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0)
        return; // killed meanwhile
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
        _onEntry(pid, tracee, info);
    else if (info.op == PTRACE_SYSCALL_INFO_EXIT)
        _onExit(pid, tracee, static_cast<long>(info.exit.rval));
}

void Runner::_onStop(pid_t pid, int status)
{
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    const auto known = tracees_.find(pid);
    if (known == tracees_.end()) {
        Tracee& tracee = tracees_[pid];
        tracee.process = ++processes_;
        tracee.started = true;
        _resume(pid);
    } else if (signal == (SIGTRAP | 0x80)) {
        _onSystemCall(pid, known->second);
        _resume(pid);
    } else if (event == PTRACE_EVENT_EXEC && pid != main_) {
        tracees_.erase(known);
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    } else if (event != 0) {
        _resume(pid);
    } else {
        _resume(pid, signal);
    }
}

void Runner::_endAll()
{
    outcome_.hung = true;
    for (const pid_t pid : support::childrenOfThis())
        kill(pid, SIGKILL);
    for (const auto& tracee : tracees_)
        kill(tracee.first, SIGKILL);
}

// False when nothing is left to wait for.
bool Runner::_waitOne()
{
    int status = 0;
    rusage usage = {};
    const pid_t pid = wait4(-1, &status, __WALL, &usage);
    if (pid == -1) {
        if (errno == EINTR && alarmRang != 0)
            _endAll();
        return errno == EINTR;
    }
    if (WIFSTOPPED(status)) {
        _onStop(pid, status);
        return true;
    }
    if (pid == main_) {
        outcome_.pid = pid;
        outcome_.status = status;
        outcome_.usage = usage;
        mainEnded_ = true;
        tracees_.erase(pid);
    } else if (tracees_.erase(pid) == 0) {
        ++outcome_.childrenLeft;
    }
    return true;
}

Outcome Runner::run()
{
    int ends[2] = {-1, -1};
    if (!launch_.inputIsFile) {
        check(pipe2(ends, O_CLOEXEC), "pipe2");
        // Input that does not fit into the pipe comes as a file.
        fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        if (write(ends[1], launch_.input.data(), launch_.input.size()) !=
            static_cast<ssize_t>(launch_.input.size()))
            throw std::runtime_error("the input does not fit into a pipe");
    }
    main_ = check(fork(), "fork");
    if (main_ == 0)
        _runChild(launch_.inputIsFile ? input_.fd() : ends[0]);
    if (ends[0] != -1) {
        close(ends[0]);
        close(ends[1]);
    }
    setAlarm(launch_.timeout);
    if (traced_) {
        int status = 0;
        check(waitpid(main_, &status, __WALL), "waitpid");
        check(ptrace(PTRACE_SETOPTIONS, main_, nullptr,
                     PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                         PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL),
              "PTRACE_SETOPTIONS");
        tracees_[main_] = Tracee();
        _resume(main_);
    }
    while (_waitOne())
        ;
    setAlarm(0);
    outcome_.out = out_.content();
    outcome_.err = err_.content();
    return outcome_;
}

} // namespace

unsigned Outcome::completed(const std::string& call) const
{
    return static_cast<unsigned>(std::count_if(events.begin(), events.end(), [&](const Event& event) {
        return event.process == 0 && event.call == call && event.result >= 0;
    }));
}

Outcome run(const Launch& launch)
{
    return Runner(launch).run();
}

std::string errorName(int error)
{
    const char* const name = strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

} // namespace faults
