// Stand-in for postconf, postmap and the service script: records how it was run and answers as a test wrote.
//
// Installed by the test under the very paths of these programs. Exits with status 99 and a message when it
// cannot do its work, so that the run under test fails visibly.

#include "standin/Records.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/OpenFds.h"
#include "support/SignalStates.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace contract;

namespace {

Call describe(char* argv[], char* envp[])
{
    Call call;
    for (const auto& [fd, target] : support::openFds()) {
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
    call.workingDirectory = std::filesystem::read_symlink("/proc/self/cwd");
    call.pid = getpid();
    call.session = getsid(0);
    call.processGroup = getpgrp();
    call.umask = umask(0);
    umask(call.umask);
    const support::Signals signals = support::ownSignals();
    call.blockedSignals = signals.blocked;
    call.ignoredSignals = signals.ignored;
    call.heldLocks = support::lockedFilesIn(support::lockDirectory);
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
        if (support::readsInput(call.command) && !answer.leaveInput) {
            call.input = support::readAll(STDIN_FILENO);
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
            fflush(stderr);
            support::dieOf(answer.signal);
        }
        return answer.exitStatus;
    } catch (const std::exception& e) {
        fprintf(stderr, "stand-in: %s\n", e.what());
        return 99;
    }
}
