// ServiceManager and related functions: the script run for each operation, and what Postfix's own processes
// say.
#include "postfix/ServiceManager.h"

#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using support::pidFilePath;
using support::registerServicePath;
using support::serviceScriptPath;
using support::ToolAnswer;
using testing::MatchesRegex;
using zorvo::mail::postfix::ServiceManager;

using CommandLines = std::vector<std::vector<std::string>>;

/// A process of a chosen name that waits to be killed. It is gone, /proc included, when this is destroyed.
class NamedProcess {
public:
    /// A child of this process; with `asGrandchild` a child of a child.
    explicit NamedProcess(const std::string& name, bool asGrandchild = false)
    {
        int ready[2];
        if (::pipe(ready) != 0)
            throw std::runtime_error("pipe");
        // When a parent ends, its children come to the nearest such ancestor instead of process 1.
        if (asGrandchild)
            ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        const auto wait = [&] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::prctl(PR_SET_NAME, name.c_str());
            const pid_t self = ::getpid();
            const bool told = ::write(ready[1], &self, sizeof self) == sizeof self;
            while (told)
                ::pause();
            return 1;
        };
        const auto parentOf = [&wait] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            support::forkChild(wait);
            for (;;)
                ::pause();
            return 1;
        };
        child_ = asGrandchild ? support::forkChild(parentOf) : support::forkChild(wait);
        if (::read(ready[0], &named_, sizeof named_) != sizeof named_)
            throw std::runtime_error("read");
        ::close(ready[0]);
        ::close(ready[1]);
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;
    ~NamedProcess()
    {
        ::kill(child_, SIGKILL);
        support::waitFor(child_);
        if (named_ == child_)
            return;
        support::waitFor(named_);
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

private:
    pid_t child_ = -1;
    pid_t named_ = -1; ///< The child itself, or its child.
};

/// Counts how often a file is opened.
class OpenCounter {
public:
    explicit OpenCounter(const std::string& path) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        // Equal events in a row are merged: the close events keep the openings apart.
        if (fd_ == -1 || ::inotify_add_watch(fd_, path.c_str(), IN_OPEN | IN_CLOSE) == -1)
            throw std::runtime_error("cannot watch " + path);
    }
    OpenCounter(const OpenCounter&) = delete;
    OpenCounter& operator=(const OpenCounter&) = delete;
    ~OpenCounter() { ::close(fd_); }

    int count()
    {
        alignas(inotify_event) char buffer[4096];
        for (ssize_t got = 0; (got = ::read(fd_, buffer, sizeof buffer)) > 0;) {
            for (const char* at = buffer; at < buffer + got;) {
                const inotify_event* const event = reinterpret_cast<const inotify_event*>(at);
                count_ += (event->mask & IN_OPEN) != 0 ? 1 : 0;
                at += sizeof(inotify_event) + event->len;
            }
        }
        return count_;
    }

private:
    int fd_;
    int count_ = 0;
};

/// With the service script replaced. This process plays Postfix's master.
class ServiceManagerTest : public testing::Test {
protected:
    ServiceManagerTest() { tools_.replace(serviceScriptPath); }

    static std::string ownPid() { return std::to_string(::getpid()) + "\n"; }

    static void writePidFile(const std::string& text) { support::writeFile(pidFilePath, text); }

    static CommandLines one(const std::string& service, const std::string& action)
    {
        return {{serviceScriptPath, service, action}};
    }

    support::ToolStandIns tools_;
};

// --- the script

TEST_F(ServiceManagerTest, ScriptGetsServiceAndAction)
{
    EXPECT_EQ(0, invoke_zorvorc("some service", "some action"));
    EXPECT_EQ((CommandLines{{serviceScriptPath, "some service", "some action"}}), tools_.commandLines());
    EXPECT_EQ(serviceScriptPath, tools_.calls().front().program);
}

TEST_F(ServiceManagerTest, ExitCodeOfTheScriptIsReturned)
{
    for (const int code : {1, 2, 77, 255}) {
        tools_.answer(serviceScriptPath, ToolAnswer::fails(code, ""));
        EXPECT_EQ(code, invoke_zorvorc("postfix", "start"));
        EXPECT_EQ(code, invoke_zorvorc_keep_fail_msg("postfix", "start"));
    }
}

TEST_F(ServiceManagerTest, FailureIsNotReported)
{
    ToolAnswer answer = ToolAnswer::fails(3, "error text\n");
    answer.out = "output text\n";
    tools_.answer(serviceScriptPath, answer);
    support::Capture capture;
    const int result = invoke_zorvorc("postfix", "start");
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(3, result);
}

// Both streams get the report; what the script printed goes to standard error before it.
TEST_F(ServiceManagerTest, KeptFailureIsReportedWithTheScriptsOutput)
{
    ToolAnswer answer = ToolAnswer::fails(3, "error text");
    answer.out = "output text\n";
    tools_.answer(serviceScriptPath, answer);
    support::Capture capture;
    errno = 0;
    const int result = invoke_zorvorc_keep_fail_msg("postfix", "start");
    const std::string report = std::string(serviceScriptPath) + " execution failed:\nerror text\n";
    EXPECT_EQ("output text\n" + report, capture.err());
    EXPECT_EQ(report, capture.out());
    EXPECT_EQ(3, result);
    EXPECT_EQ(one("postfix", "start"), tools_.commandLines());
}

TEST_F(ServiceManagerTest, KeptFailureWithoutErrorOutputSaysSo)
{
    tools_.answer(serviceScriptPath, ToolAnswer::fails(1, ""));
    support::Capture capture;
    errno = 0;
    invoke_zorvorc_keep_fail_msg("postfix", "start");
    const std::string report = std::string(serviceScriptPath) + " execution failed (no output)\n";
    EXPECT_EQ(report, capture.err());
    EXPECT_EQ(report, capture.out());
}

TEST_F(ServiceManagerTest, SuccessIsSilentWhateverTheScriptPrinted)
{
    ToolAnswer answer = ToolAnswer::fails(0, "error text\n");
    answer.out = "output text\n";
    tools_.answer(serviceScriptPath, answer);
    support::Capture capture;
    const int quiet = invoke_zorvorc("postfix", "start");
    const int kept = invoke_zorvorc_keep_fail_msg("postfix", "start");
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(0, quiet);
    EXPECT_EQ(0, kept);
}

// A killed script is logged on both streams, even if silence was asked for.
TEST_F(ServiceManagerTest, KilledScriptIsLogged)
{
    tools_.answer(serviceScriptPath, ToolAnswer::dies(SIGKILL, ""));
    support::Capture capture;
    const int result = invoke_zorvorc("postfix", "start");
    const std::string line =
        std::string("waitpid\\([0-9]+\\)=[0-9]+: process '") + serviceScriptPath + "' killed by signal 9\n";
    EXPECT_THAT(capture.out(), MatchesRegex(line));
    EXPECT_THAT(capture.err(), MatchesRegex(line));
    EXPECT_EQ(-1, result);
}

TEST(ServiceScriptTest, MissingScriptIsAFailure)
{
    std::filesystem::rename(serviceScriptPath, std::string(serviceScriptPath) + ".away");
    support::Capture capture;
    errno = 0;
    const int quiet = invoke_zorvorc("postfix", "start");
    const int kept = invoke_zorvorc_keep_fail_msg("postfix", "start");
    capture.stop();
    std::filesystem::rename(std::string(serviceScriptPath) + ".away", serviceScriptPath);
    const std::string report = std::string(serviceScriptPath) + " execution failed:\nfork_execv: execv(\"" +
                               serviceScriptPath + "\") failed: No such file or directory\n";
    EXPECT_EQ(report, capture.out());
    EXPECT_EQ(report, capture.err());
    EXPECT_EQ(255, quiet);
    EXPECT_EQ(255, kept);
}

// --- registering

TEST_F(ServiceManagerTest, ServiceIsRegisteredByItsTool)
{
    tools_.replace(registerServicePath);
    EXPECT_EQ(0, enable_service("qfilter"));
    EXPECT_EQ(0, disable_service("qfilter"));
    EXPECT_EQ((CommandLines{{registerServicePath, "--enable", "qfilter"},
                            {registerServicePath, "--disable", "qfilter"}}),
              tools_.commandLines());
}

TEST_F(ServiceManagerTest, FailureToRegisterIsNotReported)
{
    tools_.replace(registerServicePath);
    ToolAnswer answer = ToolAnswer::fails(4, "error text\n");
    answer.out = "output text\n";
    tools_.answer(registerServicePath, answer);
    support::Capture capture;
    const int enabling = enable_service("qfilter");
    const int disabling = disable_service("qfilter");
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(4, enabling);
    EXPECT_EQ(4, disabling);
}

// --- print_status

TEST(PrintStatusTest, ZeroIsRunning)
{
    support::Capture capture;
    const int result = print_status(0);
    EXPECT_EQ("is running\n", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(0, result);
}

TEST(PrintStatusTest, AnythingElseIsStopped)
{
    for (const int status : {1, -1, 255, INT_MIN}) {
        support::Capture capture;
        const int result = print_status(status);
        EXPECT_EQ("is stopped\n", capture.out());
        EXPECT_EQ("", capture.err());
        EXPECT_EQ(0, result);
    }
}

int announcing = -1; ///< A signal is announced here.

char stateOf(pid_t process)
{
    const std::string stat = support::readFile("/proc/" + std::to_string(process) + "/stat");
    return stat.at(stat.rfind(')') + 2);
}

/// A pipe that holds as much as it can.
struct FullPipe {
    FullPipe()
    {
        if (::pipe2(ends, O_NONBLOCK) != 0)
            throw std::runtime_error("pipe2");
        while (::write(ends[1], "x", 1) == 1)
            content += 'x';
        ::fcntl(ends[0], F_SETFL, 0);
        ::fcntl(ends[1], F_SETFL, 0);
    }

    int ends[2];
    std::string content;
};

TEST(PrintStatusTest, LineIsWholeWhenASignalInterruptsIt)
{
    FullPipe output;
    int announcements[2];
    ASSERT_EQ(0, ::pipe(announcements));
    const pid_t child = support::forkChild([&] {
        announcing = announcements[1];
        struct sigaction action = {};
        action.sa_handler = [](int) { (void)!::write(announcing, "s", 1); };
        ::sigaction(SIGUSR1, &action, nullptr);
        ::close(output.ends[0]);
        ::dup2(output.ends[1], 1);
        ::close(output.ends[1]);
        (void)!::write(announcing, "r", 1);
        return print_status(1);
    });
    ::close(output.ends[1]);
    char byte = 0;
    ASSERT_EQ(1, ::read(announcements[0], &byte, 1));
    while (stateOf(child) != 'S')
        ::usleep(1000);
    ::kill(child, SIGUSR1);
    ASSERT_EQ(1, ::read(announcements[0], &byte, 1));
    std::string text;
    while (::read(output.ends[0], &byte, 1) == 1)
        text += byte;
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ(output.content + "is stopped\n", text);
    for (const int fd : {output.ends[0], announcements[0], announcements[1]})
        ::close(fd);
}

// --- the pid file

TEST(MasterPidTest, MissingFileHasNoPid)
{
    std::filesystem::remove(pidFilePath);
    EXPECT_EQ(-1, ServiceManager::getMasterPid());
}

TEST(MasterPidTest, NumberIsReadAfterWhiteSpace)
{
    for (const std::string text :
         {"4242", "4242\n", "   4242\n", "\n\t 4242 \n", "4242 more", "4242abc\n", "+4242"}) {
        support::writeFile(pidFilePath, text);
        EXPECT_EQ(4242, ServiceManager::getMasterPid()) << text;
    }
}

// As master(8) writes it: right-aligned.
TEST(MasterPidTest, NumberIsReadAsPostfixWritesIt)
{
    support::writeFile(pidFilePath, "              1234\n");
    EXPECT_EQ(1234, ServiceManager::getMasterPid());
}

TEST(MasterPidTest, TextWithoutNumberHasNoPid)
{
    for (const std::string text : {"", "\n", "   ", "letters\n", "x42", "-", "#1"}) {
        support::writeFile(pidFilePath, text);
        EXPECT_EQ(-1, ServiceManager::getMasterPid()) << text;
    }
}

TEST(MasterPidTest, NumberOutOfRangeIsNotAPid)
{
    for (const std::string text : {"2147483648", "99999999999999999999", "-2147483649"}) {
        support::writeFile(pidFilePath, text);
        EXPECT_EQ(-1, ServiceManager::getMasterPid()) << text;
    }
    support::writeFile(pidFilePath, "2147483647");
    EXPECT_EQ(2147483647, ServiceManager::getMasterPid());
}

// Decimal, whatever the digits look like.
TEST(MasterPidTest, NumberIsDecimal)
{
    support::writeFile(pidFilePath, "010\n");
    EXPECT_EQ(10, ServiceManager::getMasterPid());
    support::writeFile(pidFilePath, "0x10\n");
    EXPECT_EQ(0, ServiceManager::getMasterPid());
}

TEST(MasterPidTest, DirectoryHasNoPid)
{
    std::filesystem::remove(pidFilePath);
    std::filesystem::create_directory(pidFilePath);
    const int pid = ServiceManager::getMasterPid();
    std::filesystem::remove(pidFilePath);
    EXPECT_EQ(-1, pid);
}

// --- the status

TEST_F(ServiceManagerTest, QueueManagerUnderTheMasterMeansRunning)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    EXPECT_EQ(0, ServiceManager::statusServer(0));
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(ServiceManagerTest, MasterWithoutQueueManagerIsNotRunning)
{
    writePidFile(ownPid());
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerTest, OtherNamesAreNotTheQueueManager)
{
    for (const std::string name : {"qmgr2", "Qmgr", "nqmgr", "qmg", "(qmgr)", "pickup"}) {
        const NamedProcess other(name);
        writePidFile(ownPid());
        EXPECT_EQ(1, ServiceManager::statusServer(0)) << name;
    }
}

// A queue manager of another parent, or a grandchild, does not count.
TEST_F(ServiceManagerTest, QueueManagerOfAnotherParentIsNotThisOne)
{
    writePidFile(ownPid());
    const NamedProcess grandchild("qmgr", true);
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerTest, QueueManagerIsLookedForUnderThePidOfTheFile)
{
    const NamedProcess qmgr("qmgr");
    writePidFile("1\n");
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

// All other processes are passed over; it is found at any place in the table.
TEST_F(ServiceManagerTest, QueueManagerIsFoundAmongOtherChildren)
{
    const NamedProcess before("pickup");
    const NamedProcess qmgr("qmgr");
    const NamedProcess after("tlsmgr");
    writePidFile(ownPid());
    EXPECT_EQ(0, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerTest, UnreadablePidMeansNotRunning)
{
    const NamedProcess qmgr("qmgr");
    std::filesystem::remove(pidFilePath);
    EXPECT_EQ(1, ServiceManager::statusServer(0));
    writePidFile("letters\n");
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerTest, ZeroAttemptsLookOnce)
{
    writePidFile("letters\n");
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(1, ServiceManager::statusServer(0));
    EXPECT_EQ(1, looks.count());
}

TEST_F(ServiceManagerTest, NegativeAttemptsLookOnce)
{
    writePidFile("letters\n");
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(1, ServiceManager::statusServer(-3));
    EXPECT_EQ(1, looks.count());
}

TEST_F(ServiceManagerTest, AttemptsAreCountedAfterTheFirstLook)
{
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(1, ServiceManager::statusServer(2));
    EXPECT_EQ(3, looks.count());
}

TEST_F(ServiceManagerTest, FirstSuccessfulLookIsTheLast)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(0, ServiceManager::statusServer(5));
    EXPECT_EQ(1, looks.count());
}

// The file appears after the first look: a helper writes it as soon as that was made.
TEST_F(ServiceManagerTest, MasterThatComesUpBetweenLooksIsFound)
{
    const NamedProcess qmgr("qmgr");
    writePidFile("letters\n");
    OpenCounter looks(pidFilePath);
    const std::string pid = ownPid();
    const pid_t helper = support::forkChild([&] {
        while (looks.count() < 1)
            ::usleep(1000);
        writePidFile(pid);
        return 0;
    });
    EXPECT_EQ(0, ServiceManager::statusServer(5));
    EXPECT_EQ(0, support::waitFor(helper));
}

// --- start, stop, restart

TEST_F(ServiceManagerTest, StartOfARunningServerRunsNothing)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(0, ServiceManager::startServer());
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(ServiceManagerTest, StartRunsTheScriptAndFindsTheServer)
{
    const NamedProcess qmgr("qmgr");
    std::filesystem::remove(pidFilePath);
    ToolAnswer starts;
    starts.writes.emplace_back(pidFilePath, ownPid());
    tools_.answer(serviceScriptPath, starts);
    EXPECT_EQ(0, ServiceManager::startServer());
    EXPECT_EQ(one("postfix", "start"), tools_.commandLines());
}

// The only look is the one before the script.
TEST_F(ServiceManagerTest, FailedStartIsReturnedAtOnce)
{
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(9, ServiceManager::startServer());
    EXPECT_EQ(one("postfix", "start"), tools_.commandLines());
    EXPECT_EQ(1, looks.count());
}

TEST_F(ServiceManagerTest, StopOfAStoppedServerRunsNothing)
{
    std::filesystem::remove(pidFilePath);
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(0, ServiceManager::stopServer());
    EXPECT_TRUE(tools_.calls().empty());
}

TEST_F(ServiceManagerTest, StopOfARunningServerReturnsTheScriptsResult)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    EXPECT_EQ(0, ServiceManager::stopServer());
    EXPECT_EQ(one("postfix", "stop"), tools_.commandLines());
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(9, ServiceManager::stopServer());
}

TEST_F(ServiceManagerTest, RestartRunsTheScriptAndFindsTheServer)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    EXPECT_EQ(0, ServiceManager::restartServer());
    EXPECT_EQ(one("postfix", "restart"), tools_.commandLines());
}

// A running server does not make up for a failed script.
TEST_F(ServiceManagerTest, FailedRestartIsReturnedAtOnce)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(9, ServiceManager::restartServer());
    EXPECT_EQ(0, looks.count());
}

// Five seconds of waiting: six looks.
TEST_F(ServiceManagerTest, RestartWithoutQueueManagerIsAFailure)
{
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(1, ServiceManager::restartServer());
    EXPECT_EQ(one("postfix", "restart"), tools_.commandLines());
    EXPECT_EQ(6, looks.count());
}

TEST_F(ServiceManagerTest, TryRestartAndReloadReturnTheScriptsResult)
{
    writePidFile(ownPid());
    OpenCounter looks(pidFilePath);
    EXPECT_EQ(0, ServiceManager::tryRestartServer());
    EXPECT_EQ(0, ServiceManager::reloadServer());
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(9, ServiceManager::tryRestartServer());
    EXPECT_EQ(9, ServiceManager::reloadServer());
    EXPECT_EQ((CommandLines{{serviceScriptPath, "postfix", "try-restart"},
                            {serviceScriptPath, "postfix", "reload"},
                            {serviceScriptPath, "postfix", "try-restart"},
                            {serviceScriptPath, "postfix", "reload"}}),
              tools_.commandLines());
    EXPECT_EQ(0, looks.count());
}

TEST_F(ServiceManagerTest, MilterOperationsReturnTheScriptsResult)
{
    EXPECT_EQ(0, ServiceManager::startMilter());
    EXPECT_EQ(0, ServiceManager::stopMilter());
    EXPECT_EQ(0, ServiceManager::restartMilter());
    EXPECT_EQ(0, ServiceManager::statusMilter());
    EXPECT_EQ((CommandLines{{serviceScriptPath, "qfilter", "start"},
                            {serviceScriptPath, "qfilter", "stop"},
                            {serviceScriptPath, "qfilter", "restart"},
                            {serviceScriptPath, "qfilter", "status"}}),
              tools_.commandLines());
    tools_.answer(serviceScriptPath, ToolAnswer::fails(9, ""));
    EXPECT_EQ(9, ServiceManager::startMilter());
    EXPECT_EQ(9, ServiceManager::stopMilter());
    EXPECT_EQ(9, ServiceManager::restartMilter());
    EXPECT_EQ(9, ServiceManager::statusMilter());
}

TEST_F(ServiceManagerTest, OperationsDoNotReportAFailureOfTheScript)
{
    const NamedProcess qmgr("qmgr");
    writePidFile(ownPid());
    ToolAnswer answer = ToolAnswer::fails(9, "error text\n");
    answer.out = "output text\n";
    tools_.answer(serviceScriptPath, answer);
    support::Capture capture;
    for (int (*const operation)() :
         {&ServiceManager::stopServer, &ServiceManager::restartServer, &ServiceManager::tryRestartServer,
          &ServiceManager::reloadServer, &ServiceManager::startMilter, &ServiceManager::stopMilter,
          &ServiceManager::restartMilter, &ServiceManager::statusMilter})
        operation();
    std::filesystem::remove(pidFilePath);
    ServiceManager::startServer();
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
    EXPECT_EQ(9U, tools_.calls().size());
}

// --- with the real Postfix

/// Whether there is a process of that name, running or not yet reaped.
bool isListed(const std::string& name)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "comm");
        std::string command;
        if (std::getline(file, command) && command == name)
            return true;
    }
    return false;
}

/// Nothing of Postfix is left after a test: master's children can outlive it for a moment.
class ServiceManagerPostfixTest : public testing::Test {
protected:
    ~ServiceManagerPostfixTest() override
    {
        ServiceManager::stopServer();
        for (const char* const name : {"master", "qmgr", "pickup"})
            while (isListed(name))
                ::usleep(1000);
    }
};

TEST_F(ServiceManagerPostfixTest, ServerIsStartedAndStopped)
{
    ASSERT_EQ(1, ServiceManager::statusServer(0));
    EXPECT_EQ(0, ServiceManager::stopServer());
    ASSERT_EQ(0, ServiceManager::startServer());
    EXPECT_EQ(0, ServiceManager::statusServer(0));
    const int master = ServiceManager::getMasterPid();
    EXPECT_EQ("master\n", support::readFile("/proc/" + std::to_string(master) + "/comm"));
    EXPECT_EQ(0, ServiceManager::startServer());
    EXPECT_EQ(master, ServiceManager::getMasterPid());
    EXPECT_EQ(0, ServiceManager::stopServer());
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerPostfixTest, RestartReplacesTheMaster)
{
    ASSERT_EQ(0, ServiceManager::restartServer());
    EXPECT_EQ(0, ServiceManager::statusServer(0));
    const int master = ServiceManager::getMasterPid();
    ASSERT_EQ(0, ServiceManager::restartServer());
    EXPECT_EQ(0, ServiceManager::statusServer(0));
    EXPECT_NE(master, ServiceManager::getMasterPid());
}

TEST_F(ServiceManagerPostfixTest, TryRestartReplacesARunningMasterOnly)
{
    EXPECT_EQ(0, ServiceManager::tryRestartServer());
    EXPECT_EQ(1, ServiceManager::statusServer(0));
    ASSERT_EQ(0, ServiceManager::startServer());
    const int master = ServiceManager::getMasterPid();
    EXPECT_EQ(0, ServiceManager::tryRestartServer());
    EXPECT_EQ(0, ServiceManager::statusServer(5));
    EXPECT_NE(master, ServiceManager::getMasterPid());
}

TEST_F(ServiceManagerPostfixTest, ReloadKeepsTheMaster)
{
    EXPECT_EQ(1, ServiceManager::reloadServer());
    ASSERT_EQ(0, ServiceManager::startServer());
    const int master = ServiceManager::getMasterPid();
    EXPECT_EQ(0, ServiceManager::reloadServer());
    EXPECT_EQ(0, ServiceManager::statusServer(5));
    EXPECT_EQ(master, ServiceManager::getMasterPid());
}

// For the script a running master is enough, although no queue manager comes up.
TEST_F(ServiceManagerPostfixTest, MasterWithoutQueueManagerServiceIsAFailedStart)
{
    support::outputOf("sed -i '/^qmgr /d' /etc/postfix/master.cf");
    EXPECT_EQ(1, ServiceManager::startServer());
    EXPECT_LT(1, ServiceManager::getMasterPid());
    EXPECT_EQ(0, invoke_zorvorc("postfix", "status"));
    EXPECT_EQ(0, invoke_zorvorc("postfix", "stop"));
}

TEST_F(ServiceManagerPostfixTest, FailedStartIsTheScriptsResult)
{
    support::writeFile(support::masterCfPath, "no service\n");
    EXPECT_EQ(1, ServiceManager::startServer());
    EXPECT_EQ(1, ServiceManager::restartServer());
    EXPECT_EQ(1, ServiceManager::statusServer(0));
}

TEST_F(ServiceManagerPostfixTest, MilterGoesThroughItsStates)
{
    EXPECT_EQ(3, ServiceManager::statusMilter());
    EXPECT_EQ(0, ServiceManager::startMilter());
    EXPECT_EQ(0, ServiceManager::statusMilter());
    EXPECT_EQ(0, ServiceManager::restartMilter());
    EXPECT_EQ(0, ServiceManager::stopMilter());
    EXPECT_EQ(3, ServiceManager::statusMilter());
}

} // namespace
