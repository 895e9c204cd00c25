// bench_floor MODE LIST [fork|agreed]: the least that a run of the program can cost. Makes the same tool runs
// in the same order with posix_spawn(3) and the same stores of master.cf with the same number of writes, and
// nothing else: no request to parse, no locks, no captured output, no checks.
//
// With "fork" the tools are started with fork(2) and exec, a pipe for standard error that is read to its end,
// and a pipe that tells when exec has happened. With "agreed" there is all that the program promises of a
// launch, in the fewest calls: in addition a handler for SIGCHLD with its own pipe into one select(2) loop,
// signals as they were in the tool, and a lock around each store and each change of the table.
//
// LIST has a line "DOMAIN IP4 IP6" for each domain, "-" standing for no address.
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <list>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

const char* const masterCf = "/etc/postfix/master.cf";
const char* const tableSource = "/var/spool/postfix/zorvo/sdd_transport_maps";
const char* const table = "hash:/var/spool/postfix/zorvo/sdd_transport_maps";

void require(bool condition, const char* what)
{
    if (!condition) {
        std::perror(what);
        std::exit(1);
    }
}

enum class Launch { Spawn, Fork, Agreed };
Launch launch = Launch::Spawn;

/// A pipe, both ends closed on exec.
struct PipeEnds {
    PipeEnds() { require(::pipe2(ends, O_CLOEXEC) == 0, "pipe2"); }
    int ends[2] = {-1, -1};
};

void drain(PipeEnds& pipe)
{
    ::close(pipe.ends[1]);
    char buffer[1024];
    while (::read(pipe.ends[0], buffer, sizeof buffer) > 0) {
    }
    ::close(pipe.ends[0]);
}

pid_t spawnTool(char** argv, int inputFd)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (inputFd != -1)
        posix_spawn_file_actions_adddup2(&actions, inputFd, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    require(::posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ) == 0, argv[0]);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

pid_t forkTool(char** argv, int inputFd, PipeEnds& errors)
{
    PipeEnds report;
    const pid_t pid = ::fork();
    require(pid != -1, "fork");
    if (pid == 0) {
        if (inputFd != -1)
            ::dup2(inputFd, STDIN_FILENO);
        ::dup2(errors.ends[1], STDERR_FILENO);
        ::execv(argv[0], argv);
        ::_exit(127);
    }
    drain(report);
    return pid;
}

/// An exclusive flock(2) in the lock directory, with Launch::Agreed.
class Lock {
public:
    explicit Lock(const char* path)
    {
        if (launch != Launch::Agreed)
            return;
        fd_ = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        require(fd_ != -1 && ::flock(fd_, LOCK_EX) == 0, path);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock()
    {
        if (fd_ != -1)
            ::close(fd_);
    }

private:
    int fd_ = -1;
};

int childStatus = -1;
volatile sig_atomic_t childIsGone = 0;
int wakeUpFd = -1;

void onChild(int, siginfo_t*, void*)
{
    const int error = errno;
    int status = 0;
    while (::waitpid(-1, &status, WNOHANG) > 0) {
        childStatus = status;
        childIsGone = 1;
        (void)!::write(wakeUpFd, "t", 1);
    }
    errno = error;
}

void setNonBlocking(int fd)
{
    require(::fcntl(fd, F_SETFL, O_NONBLOCK) == 0, "fcntl");
}

/// Feeds the tool, reads what it says and waits for its end, in one loop.
void pump(int wakeUp, int feed, const std::string* input, int errors)
{
    char buffer[1024];
    while (errors != -1 || feed != -1 || childIsGone == 0) {
        fd_set readable;
        fd_set writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_SET(wakeUp, &readable);
        if (errors != -1)
            FD_SET(errors, &readable);
        if (feed != -1)
            FD_SET(feed, &writable);
        if (::select(std::max({wakeUp, errors, feed}) + 1, &readable, &writable, nullptr, nullptr) == -1)
            continue; // EINTR: the handler wrote
        if (FD_ISSET(wakeUp, &readable)) {
            while (::read(wakeUp, buffer, 1) > 0) {
            }
        }
        if (feed != -1 && FD_ISSET(feed, &writable)) {
            require(::write(feed, input->data(), input->size()) == static_cast<ssize_t>(input->size()),
                    "write");
            ::close(std::exchange(feed, -1));
        }
        if (errors != -1 && FD_ISSET(errors, &readable) && ::read(errors, buffer, sizeof buffer) == 0)
            ::close(std::exchange(errors, -1));
    }
}

/// A launch with Launch::Agreed. Returns the tool's wait status.
int runAsAgreed(char** argv, const int* feed, const std::string* input)
{
    sigset_t mask;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &blocked, &mask);
    struct sigaction handler = {};
    struct sigaction before;
    handler.sa_sigaction = onChild;
    handler.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
    ::sigaction(SIGCHLD, &handler, &before);
    const PipeEnds control;
    PipeEnds errors;
    PipeEnds report;
    wakeUpFd = control.ends[1];
    setNonBlocking(control.ends[0]);
    setNonBlocking(control.ends[1]);
    childIsGone = 0;

    const pid_t pid = ::fork();
    require(pid != -1, "fork");
    if (pid == 0) {
        if (input != nullptr)
            ::dup2(feed[0], STDIN_FILENO);
        ::dup2(errors.ends[1], STDERR_FILENO);
        ::sigaction(SIGCHLD, &before, nullptr);
        ::sigprocmask(SIG_SETMASK, &mask, nullptr);
        ::execv(argv[0], argv);
        ::_exit(127);
    }
    ::close(errors.ends[1]);
    if (input != nullptr) {
        ::close(feed[0]);
        setNonBlocking(feed[1]);
    }
    drain(report);
    setNonBlocking(errors.ends[0]);
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    pump(control.ends[0], input != nullptr ? feed[1] : -1, input, errors.ends[0]);
    ::sigaction(SIGCHLD, &before, nullptr);
    ::close(control.ends[0]);
    ::close(control.ends[1]);
    return childStatus;
}

/// Runs a tool; `input`, where not null, is its standard input.
void runTool(const std::vector<const char*>& arguments, const std::string* input = nullptr)
{
    std::vector<char*> argv;
    for (const char* const argument : arguments)
        argv.push_back(const_cast<char*>(argument));
    argv.push_back(nullptr);

    int feed[2] = {-1, -1};
    require(input == nullptr || ::pipe2(feed, O_CLOEXEC) == 0, "pipe2");
    if (launch == Launch::Agreed) {
        require(runAsAgreed(argv.data(), feed, input) == 0, argv[0]);
        return;
    }
    std::optional<PipeEnds> errors;
    if (launch == Launch::Fork)
        errors.emplace();
    const pid_t pid = errors ? forkTool(argv.data(), feed[0], *errors) : spawnTool(argv.data(), feed[0]);
    if (input != nullptr) {
        ::close(feed[0]);
        require(::write(feed[1], input->data(), input->size()) == static_cast<ssize_t>(input->size()),
                "write");
        ::close(feed[1]);
    }
    if (errors)
        drain(*errors);
    int status = 0;
    require(::waitpid(pid, &status, 0) == pid && status == 0, argv[0]);
}

/// Replaces master.cf, a write a line.
void store(const std::list<std::string>& lines)
{
    const Lock lock("/run/lock/files/bench-store");
    std::string path = std::string(masterCf) + "XXXXXX";
    const int fd = ::mkostemp(path.data(), O_CLOEXEC);
    require(fd != -1, "mkostemp");
    for (const std::string& line : lines)
        require(::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "write");
    require(::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0 && ::close(fd) == 0, "store");
    require(::rename(path.c_str(), masterCf) == 0, "rename");
}

/// master.cf without generated services, an entry or other line an element, each with its line feed. True in
/// `changed` when there were any.
std::list<std::string> loadForeign(bool& changed)
{
    std::list<std::string> lines;
    std::ifstream file(masterCf);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 6, "zorvo-") == 0)
            changed = true;
        else if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && !lines.empty())
            lines.back() += line + "\n"; // the program writes an entry with all its lines at once
        else
            lines.push_back(line + "\n");
    }
    return lines;
}

std::string serviceName(bool withDomain, const std::string& domain, const std::string& ip4,
                        const std::string& ip6)
{
    std::string name = "zorvo-" + (withDomain ? domain + "-" : std::string()) + ip4 + "-" + ip6;
    std::replace(name.begin(), name.end(), ':', '-');
    return name;
}

std::string serviceLine(const std::string& name, bool withDomain, const std::string& domain,
                        const std::string& ip4, const std::string& ip6)
{
    const char* const preference = !ip4.empty() ? "ipv4" : "ipv6";
    std::string line = name + " unix - - n - - smtp -o smtp_bind_address=" + ip4 +
                       " -o smtp_bind_address6=" + ip6 + " -o smtp_address_preference=" + preference;
    if (ip4.empty() != ip6.empty())
        line += std::string(" -o inet_protocols=") + preference;
    if (withDomain)
        line += " -o smtp_helo_name=" + domain;
    return line + "\n";
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: bench_floor domain-ip|domain-name LIST [fork|agreed]\n");
        return 2;
    }
    const bool withDomain = std::string(argv[1]) == "domain-name";
    std::ifstream list(argv[2]);
    if (argc == 4)
        launch = std::string(argv[3]) == "fork" ? Launch::Fork : Launch::Agreed;

    runTool({"/usr/sbin/postconf", "-h", "config_directory"});
    runTool({"/usr/sbin/postconf", "-X", "smtp_bind_address"});
    runTool({"/usr/sbin/postconf", "-X", "smtp_bind_address6"});
    ::close(::open(tableSource, O_WRONLY | O_CREAT | O_TRUNC, 0644));
    runTool({"/usr/sbin/postmap", "-r", table});
    ::unlink(tableSource);
    runTool({"/usr/sbin/postconf", "-h", "config_directory"});

    bool changed = false;
    std::list<std::string> lines = loadForeign(changed);
    if (changed)
        store(lines);
    std::unordered_map<std::string, std::string*> services;
    for (std::string domain, ip4, ip6; list >> domain >> ip4 >> ip6;) {
        if (ip4 == "-")
            ip4.clear();
        if (ip6 == "-")
            ip6.clear();
        const std::string name = serviceName(withDomain, domain, ip4, ip6);
        if (services.count(name) == 0) {
            // The blank line that the program leaves above the first new service.
            if (services.empty() && lines.back() != "\n")
                lines.emplace_back("\n");
            lines.push_back(serviceLine(name, withDomain, domain, ip4, ip6));
            services[name] = &lines.back();
        }
        store(lines);
        const std::string record = "@" + domain + " " + name + ":\n";
        const Lock lock("/run/lock/files/bench-table");
        runTool({"/usr/sbin/postmap", "-r", "-i", table}, &record);
    }
    runTool({"/usr/local/maru/admin/sbin/zorvorc", "postfix", "restart"});
    return 0;
}
