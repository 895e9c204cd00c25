// What a run gets from its caller, and what its tools get from it: descriptors, signals, environment.
#include "Fixture.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace contract {

namespace {

// The commands of a run with one domain.
std::vector<Command> domainRun()
{
    return afterWipe({addRecord, restart});
}

uint64_t bit(int signal)
{
    return uint64_t(1) << (signal - 1);
}

class EnvironmentTest : public ContractTest {
protected:
    // A complete domain run, with something done before its start.
    static Outcome runWith(std::function<void()> before)
    {
        const Outcome outcome = Program({"-t", "domain-ip"})
                                    .file(request({{"one.example", "192.0.2.1", ""}}))
                                    .before(std::move(before))
                                    .run();
        EXPECT_EQ(outcome.commands(), domainRun());
        EXPECT_EQ(outcome.records(), std::vector<std::string>{"@one.example zorvo-192.0.2.1-:\n"});
        EXPECT_EQ(outcome.leftProcesses, 0);
        return outcome;
    }

    // With these descriptors closed at the start, an explicit-ip run does all its work.
    static Outcome runWithClosed(const std::vector<int>& closed)
    {
        const Outcome outcome = Program({"-t", "explicit-ip", "-4", "192.0.2.1"})
                                    .before([closed] {
                                        for (const int fd : closed)
                                            close(fd);
                                    })
                                    .run();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
        for (const Call& call : outcome.calls)
            EXPECT_EQ(call.furtherDescriptors, std::vector<std::string>());
        return outcome;
    }
};

} // namespace

// Environment and the like.

TEST_F(EnvironmentTest, ToolsInheritTheEnvironment)
{
    const std::vector<std::string> variables = {"ZORVO_LOG_TRACE_ID=M1", "PATH=/nowhere",
                                                "EMPTY=", "LC_ALL=C"};
    const Outcome outcome = Program({"-t", "domain-ip"})
                                .pipe(request({{"one.example", "192.0.2.1", ""}}))
                                .environment(variables)
                                .run();
    EXPECT_EQ(outcome.end, success());
    ASSERT_EQ(outcome.commands(), domainRun());
    for (const Call& call : outcome.calls)
        EXPECT_EQ(call.environment, variables);
}

TEST_F(EnvironmentTest, RunWorksWithAnEmptyEnvironment)
{
    const Outcome outcome =
        Program({"-t", "domain-ip"}).pipe(request({{"one.example", "192.0.2.1", ""}})).environment({}).run();
    EXPECT_EQ(outcome.end, success());
    ASSERT_EQ(outcome.commands(), domainRun());
    for (const Call& call : outcome.calls)
        EXPECT_EQ(call.environment, std::vector<std::string>());
}

TEST_F(EnvironmentTest, ToolsInheritDirectoryMaskSessionAndGroup)
{
    const Outcome outcome = runWith([] {
        if (chdir("/var/spool") != 0)
            _exit(97);
        umask(0027);
        setsid();
    });
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls) {
        EXPECT_EQ(call.workingDirectory, "/var/spool");
        EXPECT_EQ(call.umask, 0027u);
        EXPECT_EQ(call.session, outcome.pid);
        EXPECT_EQ(call.processGroup, outcome.pid);
    }
}

// Signals.

TEST_F(EnvironmentTest, ToolsStartWithDefaultSignals)
{
    const Outcome outcome = runWith([] {});
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls) {
        EXPECT_EQ(call.ignoredSignals & (bit(SIGPIPE) | bit(SIGCHLD)), 0u);
        EXPECT_EQ(call.blockedSignals, 0u);
    }
}

TEST_F(EnvironmentTest, ToolsStartWithSigpipeIgnoredWhenTheCallerDid)
{
    const Outcome outcome = runWith([] { signal(SIGPIPE, SIG_IGN); });
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls) {
        EXPECT_EQ(call.ignoredSignals & (bit(SIGPIPE) | bit(SIGCHLD)), bit(SIGPIPE));
        EXPECT_EQ(call.blockedSignals, 0u);
    }
}

TEST_F(EnvironmentTest, RunWorksWithSigchldIgnoredAndToolsInheritThat)
{
    const Outcome outcome = runWith([] { signal(SIGCHLD, SIG_IGN); });
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls)
        EXPECT_EQ(call.ignoredSignals & (bit(SIGPIPE) | bit(SIGCHLD)), bit(SIGCHLD));
}

TEST_F(EnvironmentTest, FailingToolIsReportedWithSigchldIgnored)
{
    answer(Answer(addRecord).complains("postmap: fatal: no\n").exits(1));
    const Outcome outcome = Program({"-t", "domain-ip"})
                                .pipe(request({{"one.example", "192.0.2.1", ""}}))
                                .before([] { signal(SIGCHLD, SIG_IGN); })
                                .run();
    EXPECT_EQ(outcome.end, failure("zorvo::mail::postfix::PostfixConfigurationError(postmap: fatal: no\n)"));
}

TEST_F(EnvironmentTest, RunWorksWithBlockedSignalsAndToolsInheritThem)
{
    const Outcome outcome = runWith([] {
        sigset_t mask;
        sigemptyset(&mask);
        for (const int number : {SIGCHLD, SIGPIPE, SIGTERM})
            sigaddset(&mask, number);
        sigprocmask(SIG_SETMASK, &mask, nullptr);
    });
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls)
        EXPECT_EQ(call.blockedSignals, bit(SIGCHLD) | bit(SIGPIPE) | bit(SIGTERM));
}

TEST_F(EnvironmentTest, RunWorksWithAnInheritedChild)
{
    const Outcome outcome = runWith([] {
        for (int i = 0; i < 3; ++i)
            if (fork() == 0)
                _exit(i);
    });
    EXPECT_EQ(outcome.end, success());
}

TEST_F(EnvironmentTest, ReaderOfStandardOutputThatWentAwayDoesNotKillTheRun)
{
    const Outcome outcome = Program({"-t", "explicit-ip"})
                                .before([] {
                                    int ends[2];
                                    if (pipe(ends) != 0)
                                        _exit(97);
                                    dup2(ends[1], STDOUT_FILENO);
                                    close(ends[0]);
                                    close(ends[1]);
                                })
                                .run();
    EXPECT_EQ(outcome.end,
              (End{W_EXITCODE(1, 0), "", "Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n"}));
}

TEST_F(EnvironmentTest, ReaderOfStandardErrorThatWentAwayDoesNotKillTheRun)
{
    const Outcome outcome = Program({"-t", "explicit-ip"})
                                .before([] {
                                    int ends[2];
                                    if (pipe(ends) != 0)
                                        _exit(97);
                                    dup2(ends[1], STDERR_FILENO);
                                    close(ends[0]);
                                    close(ends[1]);
                                })
                                .run();
    EXPECT_EQ(outcome.end,
              (End{W_EXITCODE(1, 0), "Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n", ""}));
}

// Descriptors.

TEST_F(EnvironmentTest, ToolsGetNoFurtherDescriptors)
{
    const Outcome outcome = runWith([] {});
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.furtherDescriptors, std::vector<std::string>());
    }
}

TEST_F(EnvironmentTest, CallersDescriptorReachesPostfixsToolsButNotTheScript)
{
    const Outcome outcome = runWith([] { dup2(open("/dev/zero", O_RDONLY | O_CLOEXEC), 7); });
    EXPECT_EQ(outcome.end, success());
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(
            call.furtherDescriptors,
            (call.command == restart ? std::vector<std::string>{} : std::vector<std::string>{"7 /dev/zero"}));
    }
}

TEST_F(EnvironmentTest, ToolsInheritStandardInputExceptForRecords)
{
    const Outcome outcome = runWith([] {});
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.inputRead, call.command == addRecord ? 1 : 0);
        if (call.command == addRecord)
            EXPECT_THAT(call.standardDescriptors.at(0), testing::StartsWith("pipe:"));
        else
            EXPECT_EQ(call.standardDescriptors.at(0), inputPath);
    }
}

TEST_F(EnvironmentTest, ChangesInheritStandardOutputAndNothingInheritsStandardError)
{
    const Outcome outcome = runWith([] {
        dup2(open("/run/sandbox/out", O_WRONLY | O_CREAT | O_CLOEXEC, 0644), STDOUT_FILENO);
        dup2(open("/run/sandbox/err", O_WRONLY | O_CREAT | O_CLOEXEC, 0644), STDERR_FILENO);
    });
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        if (call.command == askDirectory || call.command == restart)
            EXPECT_THAT(call.standardDescriptors.at(1), testing::StartsWith("pipe:"));
        else
            EXPECT_EQ(call.standardDescriptors.at(1), "/run/sandbox/out");
        EXPECT_THAT(call.standardDescriptors.at(2), testing::StartsWith("pipe:"));
    }
}

TEST_F(EnvironmentTest, RunWorksWithStandardInputClosed)
{
    for (const Call& call : runWithClosed({0}).calls)
        EXPECT_EQ(call.standardDescriptors.at(0), "/dev/null");
}

TEST_F(EnvironmentTest, RunWorksWithStandardOutputClosed)
{
    EXPECT_EQ(runWithClosed({1}).call(removeFirstParameter).standardDescriptors.at(1), "/dev/null");
}

TEST_F(EnvironmentTest, RunWorksWithStandardErrorClosed)
{
    runWithClosed({2});
}

TEST_F(EnvironmentTest, RunWorksWithAllStandardDescriptorsClosed)
{
    const Outcome outcome = runWithClosed({0, 1, 2});
    EXPECT_EQ(outcome.call(removeFirstParameter).standardDescriptors.at(0), "/dev/null");
    EXPECT_EQ(outcome.call(removeFirstParameter).standardDescriptors.at(1), "/dev/null");
}

TEST_F(EnvironmentTest, DomainRunWorksWithBothOutputsClosed)
{
    const Outcome outcome = runWith([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    });
    EXPECT_EQ(outcome.end, success());
    EXPECT_NE(masterCf(), plainServices);
}

TEST_F(EnvironmentTest, ReportGoesToTheStreamThatIsOpen)
{
    const std::string line = "Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n";
    EXPECT_EQ(Program({"-t", "explicit-ip"}).before([] { close(STDERR_FILENO); }).run().end,
              (End{W_EXITCODE(1, 0), line, ""}));
    EXPECT_EQ(Program({"-t", "explicit-ip"}).before([] { close(STDOUT_FILENO); }).run().end,
              (End{W_EXITCODE(1, 0), "", line}));
}

} // namespace contract
