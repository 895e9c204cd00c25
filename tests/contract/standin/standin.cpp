// Stand-in of postconf, postmap and the service script: records how it was run and answers as a test wrote.
//
// Installed by the test under the very paths of these programs. Exits with status 99 and a message when it
// cannot do its work, so that the run under test fails visibly.

#include "standin/Records.h"
#include "support/FixedPaths.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace contract;

namespace {

std::string linkTarget(const std::string& path)
{
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

// A hexadecimal value of /proc/self/status, such as "SigBlk".
uint64_t statusMask(const std::string& status, const std::string& name)
{
    const size_t at = status.find('\n' + name + ":\t");
    return std::stoull(status.substr(at + name.size() + 3), nullptr, 16);
}

std::string readInput()
{
    std::string input;
    char chunk[65536];
    ssize_t got;
    while ((got = read(STDIN_FILENO, chunk, sizeof chunk)) > 0)
        input.append(chunk, static_cast<size_t>(got));
    return input;
}

// Records or keys come on standard input with "-i", and with "-" in place of a key.
bool expectsInput(const Command& command)
{
    return std::any_of(command.begin(), command.end(),
                       [](const std::string& word) { return word == "-i" || word == "-"; });
}

Call describe(char* argv[], char* envp[])
{
    Call call;
    // Before anything here opens a file of its own.
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) == -1)
            continue;
        const std::string target = linkTarget("/proc/self/fd/" + std::to_string(fd));
        if (fd <= STDERR_FILENO)
            call.standardDescriptors.push_back(target);
        else
            call.furtherDescriptors.push_back(std::to_string(fd) + ' ' + target);
    }
    for (char** word = argv; *word; ++word)
        call.command.push_back(*word);
    for (char** variable = envp; *variable; ++variable)
        call.environment.push_back(*variable);
    call.program = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    call.workingDirectory = linkTarget("/proc/self/cwd");
    call.pid = getpid();
    call.session = getsid(0);
    call.processGroup = getpgrp();
    call.umask = umask(0);
    umask(call.umask);
    const std::string status = readFile("/proc/self/status");
    call.blockedSignals = statusMask(status, "SigBlk");
    call.ignoredSignals = statusMask(status, "SigIgn");
    for (const std::string& name : listing(support::lockDirectory))
        if (isLocked(std::string(support::lockDirectory) + '/' + name))
            call.heldLocks.push_back(name);
    call.postfixListing = listing(support::configDirectory);
    call.spoolListing = listing(support::spoolDirectory);
    call.masterCf = stateOf(support::masterCfPath);
    call.tableSource = stateOf(support::tableSourcePath);
    return call;
}

// The last answer given for this command counts.
Answer chooseAnswer(const Command& command)
{
    int occurrence = 1;
    for (const std::string& record : readRecords(callDirectory))
        if (callFromText(record).command == command)
            ++occurrence;
    Answer chosen;
    for (const std::string& record : readRecords(answerDirectory)) {
        const Answer answer = answerFromText(record);
        if (answer.command == command && (answer.occurrence == 0 || answer.occurrence == occurrence))
            chosen = answer;
    }
    return chosen;
}

pid_t leaveDaemon()
{
    const pid_t pid = fork();
    if (pid == 0)
        for (;;)
            pause();
    return pid;
}

} // namespace

int main(int, char* argv[], char* envp[])
{
    try {
        Call call = describe(argv, envp);
        const Answer answer = chooseAnswer(call.command);
        if (expectsInput(call.command) && !answer.leaveInput) {
            call.input = readInput();
            call.inputRead = 1;
        }
        if (answer.leaveDaemon)
            call.daemon = leaveDaemon();
        writeRecord(callDirectory, toText(call));
        if (!answer.replacePath.empty())
            writeWhole(answer.replacePath, answer.replaceBytes);
        fwrite(answer.out.data(), 1, answer.out.size(), stdout);
        fflush(stdout);
        fwrite(answer.err.data(), 1, answer.err.size(), stderr);
        if (answer.signal != 0) {
            const rlimit noCore = {0, 0};
            setrlimit(RLIMIT_CORE, &noCore);
            signal(answer.signal, SIG_DFL);
            sigset_t mask;
            sigemptyset(&mask);
            sigaddset(&mask, answer.signal);
            sigprocmask(SIG_UNBLOCK, &mask, nullptr);
            raise(answer.signal);
        }
        return answer.exitStatus;
    } catch (const std::exception& e) {
        fprintf(stderr, "stand-in: %s\n", e.what());
        return 99;
    }
}
