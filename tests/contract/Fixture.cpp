#include "Fixture.h"

#include "support/Child.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

constexpr int quietLimit = 60000; // milliseconds without a sign of life of a run

template <class Result>
Result check(Result result, const char* what)
{
    if (result == Result(-1))
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// The queue manager that is running, or -1.
pid_t qmgr = -1;

void endQmgr()
{
    if (qmgr == -1)
        return;
    kill(qmgr, SIGKILL);
    waitpid(qmgr, nullptr, 0);
    qmgr = -1;
}

void startQmgr()
{
    int ready[2];
    check(pipe2(ready, O_CLOEXEC), "pipe");
    qmgr = check(fork(), "fork");
    if (qmgr == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, "qmgr");
        close(ready[0]);
        close(ready[1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    char byte;
    check(read(ready[0], &byte, 1), "read"); // end of file: it has its name
    close(ready[0]);
    writeWhole(pidFilePath, std::to_string(getpid()) + '\n');
}

void endByForce(pid_t pid)
{
    ADD_FAILURE() << "the run does not end";
    kill(pid, SIGKILL);
}

// For a run that has closed its outputs and goes on.
void awaitEnd(pid_t pid)
{
    pollfd process = {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    check(process.fd, "pidfd_open");
    if (check(poll(&process, 1, quietLimit), "poll") == 0)
        endByForce(pid);
    close(process.fd);
}

std::vector<Call> allCalls()
{
    std::vector<Call> calls;
    for (const std::string& record : readRecords(callDirectory))
        calls.push_back(callFromText(record));
    return calls;
}

void describe(World& world, const fs::path& path)
{
    struct stat info;
    check(lstat(path.c_str(), &info), path.c_str());
    std::string& text = world[path];
    text = std::to_string(info.st_mode) + ' ' + std::to_string(info.st_ino) + ' ';
    if (S_ISREG(info.st_mode))
        text += readFile(path);
    else if (S_ISDIR(info.st_mode))
        for (const auto& entry : fs::directory_iterator(path))
            describe(world, entry.path());
}

std::string quoted(const std::string& text)
{
    return testing::PrintToString(text);
}

void closeIfOpen(int& fd)
{
    if (fd != -1)
        close(fd);
    fd = -1;
}

} // namespace

const Command removeFirstParameter = removeParameter(removedParameters.front());
const Command removeLastParameter = removeParameter(removedParameters.back());

std::vector<std::string> heldWith(const std::string& lock)
{
    return {std::min(lock, runLock), std::max(lock, runLock)};
}

const char plainServices[] = "# Services of this host.\n"
                             "smtp      inet  n       -       y       -       -       smtpd\n"
                             "pickup    unix  n       -       y       60      1       pickup\n"
                             "  -o content_filter=\n";

std::ostream& operator<<(std::ostream& stream, const End& end)
{
    stream << "wait status " << end.waitStatus;
    if (WIFEXITED(end.waitStatus))
        stream << " (exit " << WEXITSTATUS(end.waitStatus) << ')';
    else
        stream << " (signal " << WTERMSIG(end.waitStatus) << ')';
    return stream << "\nstandard output: " << quoted(end.out) << "\nstandard error: " << quoted(end.err);
}

End success()
{
    return End();
}

End failure(const std::string& description, const std::string& earlier)
{
    const std::string text = earlier + "Fatal error: " + description + '\n';
    return End{W_EXITCODE(1, 0), text, text};
}

End badRequest(const std::string& reason)
{
    return failure("std::runtime_error(can not parse data from stdin : " + reason + ')');
}

std::vector<Command> Outcome::commands() const
{
    std::vector<Command> commands;
    for (const Call& call : calls)
        commands.push_back(call.command);
    return commands;
}

std::vector<std::string> Outcome::records() const
{
    std::vector<std::string> records;
    for (const Call& call : calls)
        if (call.command == addRecord)
            records.push_back(call.input);
    return records;
}

const Call& Outcome::call(const Command& command) const
{
    for (const Call& call : calls)
        if (call.command == command)
            return call;
    throw std::out_of_range("not run: " + testing::PrintToString(command));
}

Program::Program(std::vector<std::string> arguments, const std::string& path)
    : arguments_(std::move(arguments))
{
    arguments_.insert(arguments_.begin(), path);
}

Program::~Program()
{
    for (int* fd : {&input_, &feeder_, &output_, &error_})
        closeIfOpen(*fd);
}

Program& Program::pipe(const std::string& bytes)
{
    toWrite_ = bytes;
    return *this;
}

Program& Program::file(const std::string& bytes)
{
    writeWhole(inputPath, bytes);
    return device(inputPath);
}

Program& Program::socket(const std::string& bytes)
{
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    input_ = ends[0];
    feeder_ = ends[1];
    toWrite_ = bytes;
    return *this;
}

Program& Program::terminal(const std::string& bytes)
{
    feeder_ = check(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
    check(grantpt(feeder_), "grantpt");
    check(unlockpt(feeder_), "unlockpt");
    char name[64];
    check(ptsname_r(feeder_, name, sizeof name) == 0 ? 0 : -1, "ptsname_r");
    device(name);
    termios settings;
    check(tcgetattr(input_, &settings), "tcgetattr");
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    check(tcsetattr(input_, TCSANOW, &settings), "tcsetattr");
    const std::string typed = bytes + "\n\x04"; // end of file: Control-D at the start of a line
    check(write(feeder_, typed.data(), typed.size()), "write");
    return *this;
}

Program& Program::device(const std::string& path)
{
    input_ = check(open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC), path.c_str());
    return *this;
}

Program& Program::environment(std::vector<std::string> variables)
{
    variables_ = std::move(variables);
    inheritVariables_ = false;
    return *this;
}

Program& Program::before(std::function<void()> action)
{
    before_ = std::move(action);
    return *this;
}

// The child's part.
void Program::_execute(int out, int err)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments_)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& variable : variables_)
        envp.push_back(variable.data());
    envp.push_back(nullptr);

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(input_, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (int fd = STDERR_FILENO + 1; fd < 256; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    umask(022);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (before_)
        before_();
    execve(argv[0], argv.data(), inheritVariables_ ? environ : envp.data());
    _exit(98);
}

pid_t Program::start()
{
    int out[2];
    int err[2];
    check(pipe2(out, O_CLOEXEC), "pipe");
    check(pipe2(err, O_CLOEXEC), "pipe");
    if (input_ == -1) {
        int in[2];
        check(pipe2(in, O_CLOEXEC), "pipe");
        input_ = in[0];
        feeder_ = in[1];
    }
    callsBefore_ = listing(callDirectory).size();

    outcome_.pid = check(fork(), "fork");
    if (outcome_.pid == 0)
        _execute(out[1], err[1]);
    close(out[1]);
    close(err[1]);
    output_ = out[0];
    error_ = err[0];
    if (feeder_ != -1)
        closeIfOpen(input_);
    return outcome_.pid;
}

// Feeds and collects until the program and all who share its outputs have closed them, or the program has
// ended.
void Program::_transfer()
{
    signal(SIGPIPE, SIG_IGN); // a run that does not read its input ends before it is written
    const bool terminal = feeder_ != -1 && isatty(feeder_);
    if (feeder_ != -1 && !terminal)
        fcntl(feeder_, F_SETFL, O_NONBLOCK);
    size_t written = 0;
    while (output_ != -1 || error_ != -1) {
        const bool feeding = feeder_ != -1 && !terminal;
        if (feeding && written == toWrite_.size())
            closeIfOpen(feeder_);
        pollfd watched[] = {{output_, POLLIN, 0}, {error_, POLLIN, 0}, {terminal ? -1 : feeder_, POLLOUT, 0}};
        if (check(poll(watched, 3, quietLimit), "poll") == 0) {
            endByForce(outcome_.pid);
            return;
        }
        if (watched[2].revents) {
            const ssize_t put = write(feeder_, toWrite_.data() + written, toWrite_.size() - written);
            if (put > 0)
                written += static_cast<size_t>(put);
            else if (errno != EAGAIN)
                closeIfOpen(feeder_);
        }
        for (int i = 0; i < 2; ++i) {
            if (!watched[i].revents)
                continue;
            char chunk[65536];
            int& fd = i == 0 ? output_ : error_;
            const ssize_t got = read(fd, chunk, sizeof chunk);
            if (got > 0)
                (i == 0 ? outcome_.end.out : outcome_.end.err).append(chunk, static_cast<size_t>(got));
            else
                closeIfOpen(fd);
        }
    }
}

Outcome Program::finish()
{
    _transfer();
    awaitEnd(outcome_.pid);
    check(waitpid(outcome_.pid, &outcome_.end.waitStatus, 0), "waitpid");
    closeIfOpen(feeder_);
    const std::vector<Call> calls = allCalls();
    outcome_.calls.assign(calls.begin() + static_cast<ptrdiff_t>(callsBefore_), calls.end());
    for (const Call& call : outcome_.calls)
        if (call.daemon != 0) {
            kill(call.daemon, SIGKILL);
            waitpid(call.daemon, nullptr, 0);
        }
    for (const pid_t child : childrenOfThis())
        if (child != qmgr) {
            ++outcome_.leftProcesses;
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    return outcome_;
}

Outcome Program::run()
{
    start();
    return finish();
}

off_t Program::inputPosition() const
{
    return check(lseek(input_, 0, SEEK_CUR), "lseek");
}

World world()
{
    World found;
    for (const char* directory : {configDirectory, queueDirectory, lockDirectory})
        if (fs::exists(directory))
            describe(found, directory);
    return found;
}

void answer(const Answer& answer)
{
    writeRecord(answerDirectory, toText(answer));
}

void writeMasterCf(const std::string& bytes)
{
    writeWhole(masterCfPath, bytes);
}

std::string masterCf()
{
    return readFile(masterCfPath);
}

Outcome runDomainIp(const std::vector<Binding>& domains)
{
    return Program({"--transport-type", "domain-ip"}).pipe(request(domains)).run();
}

Outcome runDomainName(const std::vector<Binding>& domains)
{
    return Program({"--transport-type", "domain-name"}).pipe(request(domains)).run();
}

Outcome runExplicitIp()
{
    return Program({"--transport-type", "explicit-ip", "--ip4-addr", "192.0.2.1"}).run();
}

void ContractTest::SetUp()
{
    ASSERT_TRUE(fs::exists(sandboxDirectory)) << "this would change the host: run it with scripts/sandbox";
    for (const char* directory :
         {configDirectory, queueDirectory, lockDirectory, "/usr/local/maru", answerDirectory, callDirectory})
        emptyDirectory(directory);
    fs::create_directories(spoolDirectory);
    fs::create_directories(fs::path(pidFilePath).parent_path());
    for (const char* path : {postconfPath, postmapPath, serviceScriptPath})
        putLink(ZORVO_STANDIN, path);
    writeMasterCf(plainServices);
    answer(Answer(askDirectory).prints(configDirectory + std::string(1, '\n')));
    // Processes that a run leaves behind become children of this process.
    check(prctl(PR_SET_CHILD_SUBREAPER, 1), "prctl");
    startQmgr();
}

void ContractTest::TearDown()
{
    stopMailServer();
}

void ContractTest::stopMailServer()
{
    endQmgr();
}

} // namespace contract
