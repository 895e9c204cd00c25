// The restart at the end of a run: one run of the service script, whose failure is not one of the run.
#include "Fixture.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

const char scriptPath[] = "/usr/local/maru/admin/sbin/zorvorc";

class ServiceTest : public ContractTest {
protected:
    // Whatever the script does, it is run once, nothing is reported, and the run has done its work.
    static void expectSilentSuccess(const Answer& script)
    {
        answer(script);
        const Outcome outcome = runExplicitIp();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
        EXPECT_EQ(outcome.leftProcesses, 0);
    }

    // The script cannot be executed.
    static void expectSilentSuccessWithoutScript()
    {
        const Outcome outcome = runExplicitIp();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1")}));
        EXPECT_EQ(outcome.leftProcesses, 0);
    }
};

} // namespace

TEST_F(ServiceTest, OutputOfASuccessfulScriptIsNotShown)
{
    expectSilentSuccess(Answer(restart).prints("restarted\n").complains("slowly\n"));
}

TEST_F(ServiceTest, FailingScriptIsNotReported)
{
    expectSilentSuccess(Answer(restart).exits(1));
}

TEST_F(ServiceTest, OutputOfAFailingScriptIsNotShown)
{
    expectSilentSuccess(Answer(restart).prints("restarting\n").complains("no such service\n").exits(3));
}

TEST_F(ServiceTest, LongOutputOfTheScriptIsTakenAndNotShown)
{
    expectSilentSuccess(
        Answer(restart).prints(std::string(300000, 'o')).complains(std::string(300000, 'e')).exits(1));
}

TEST_F(ServiceTest, MissingScriptIsNotReported)
{
    fs::remove(scriptPath);
    expectSilentSuccessWithoutScript();
}

TEST_F(ServiceTest, ScriptThatMayNotBeExecutedIsNotReported)
{
    fs::remove(scriptPath);
    writeWhole(scriptPath, "#!/bin/sh\n");
    expectSilentSuccessWithoutScript();
}

TEST_F(ServiceTest, KilledScriptIsLoggedOnBothStreams)
{
    answer(Answer(restart).prints("restarting\n").complains("ouch\n").diesBy(SIGKILL));
    const Outcome outcome = runExplicitIp();
    const std::string pid = std::to_string(outcome.call(restart).pid);
    const std::string line =
        "waitpid(" + pid + ")=" + pid + ": process '/usr/local/maru/admin/sbin/zorvorc' killed by signal 9\n";
    EXPECT_EQ(outcome.end, (End{0, line, line}));
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
}

// The environment could make a logger that was set up quieter; this one is not set up.
TEST_F(ServiceTest, LogLevelOfTheEnvironmentChangesNothing)
{
    answer(Answer(restart).diesBy(SIGTERM));
    const Outcome outcome = Program({"-t", "explicit-ip", "-4", "192.0.2.1"})
                                .environment({"ZORVO_LOG_LEVEL=0", "ZORVO_LOG_TRACE_ID=X1"})
                                .run();
    const std::string pid = std::to_string(outcome.call(restart).pid);
    const std::string line = "waitpid(" + pid + ")=" + pid +
                             ": process '/usr/local/maru/admin/sbin/zorvorc' killed by signal 15\n";
    EXPECT_EQ(outcome.end, (End{0, line, line}));
}

// Postfix's daemons inherit the outputs of the script that starts them.
TEST_F(ServiceTest, DaemonThatKeepsTheOutputsOpenIsNotWaitedFor)
{
    answer(Answer(restart).prints("restarted\n").leavesDaemon());
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_NE(outcome.call(restart).daemon, 0);
}

TEST_F(ServiceTest, FailingScriptThatLeavesADaemonIsNotReported)
{
    answer(Answer(restart).complains("no\n").exits(1).leavesDaemon());
    EXPECT_EQ(runExplicitIp().end, success());
}

TEST_F(ServiceTest, MailServerThatDoesNotComeUpIsNotReported)
{
    stopMailServer();
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
}

TEST_F(ServiceTest, MissingPidFileIsNotReported)
{
    fs::remove(pidFilePath);
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
}

} // namespace contract
