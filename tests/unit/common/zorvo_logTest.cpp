// The logger with levels: defaults, the console back end, the syslog back end over a real /dev/log, the
// level.
#include "common/zorvo_log.h"

#include "support/Child.h"
#include "support/InterruptedPipe.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

using support::ChildResult;
using support::openFds;
using support::runInChild;

namespace {

constexpr int noDevLog = 77; // status of a child that could not have a /dev/log of its own

/// The receiving end of syslog(3), for a child process.
class DevLog {
public:
    DevLog()
    {
        private_ = support::makeMountsPrivate() && support::mountEmpty("/dev");
        socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            ::_exit(noDevLog);
    }
    DevLog(const DevLog&) = delete;
    DevLog& operator=(const DevLog&) = delete;
    ~DevLog()
    {
        if (!private_)
            ::unlink("/dev/log");
    }

    /// The next line as it arrived, but without its time stamp and with "[PID]" for this process's id;
    /// "nothing" when there is none.
    std::string next()
    {
        std::string line(100000, '\0');
        const ssize_t got = ::recv(socket_, line.data(), line.size(), 0);
        if (got < 0)
            return "nothing";
        line.resize(static_cast<size_t>(got));
        line.erase(line.find('>') + 1, std::strlen("Mmm dd hh:mm:ss "));
        const std::string pid = "[" + std::to_string(::getpid()) + "]";
        const size_t at = line.find(pid);
        if (at != std::string::npos)
            line.replace(at, pid.size(), "[PID]");
        return line;
    }

private:
    bool private_;
    int socket_;
};

/// Runs `body` in a child that has /dev/log; what it returns is the child's standard output.
ChildResult withDevLog(const std::function<std::string(DevLog&)>& body)
{
    return runInChild([&] {
        DevLog log;
        std::cout << body(log);
        return 0;
    });
}

#define SKIP_WITHOUT_DEV_LOG(result)                                                                         \
    if ((result).exitedWith(noDevLog))                                                                       \
    GTEST_SKIP() << "/dev/log is taken and no private /dev can be had"

/// Runs `body` in a child, because the logger's state belongs to the process.
ChildResult inChild(const std::function<void()>& body)
{
    return runInChild([&] {
        body();
        return 0;
    });
}

/// What a child's `number` was.
int numberOf(const std::function<int()>& number)
{
    const ChildResult result = runInChild([&] {
        std::cout << number();
        return 0;
    });
    return result.exitedWith(0) ? std::stoi(result.out) : -1000;
}

std::string textOf(const std::function<std::string()>& text)
{
    const ChildResult result = runInChild([&] {
        std::cout << text();
        return 0;
    });
    return result.exitedWith(0) ? result.out : "the child failed";
}

void logThroughList(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    zorvo_logv(priority, format, args);
    va_end(args);
}

/// The level after ZORVO_LOG_LEVEL was `environment` (null: not set) and `level` was asked for.
int levelAfter(const char* environment, int level)
{
    return numberOf([&] {
        if (environment == nullptr)
            ::unsetenv("ZORVO_LOG_LEVEL");
        else
            ::setenv("ZORVO_LOG_LEVEL", environment, 1);
        zorvo_log_set_level(level);
        return LogLevel;
    });
}

} // namespace

// ---- state at the start ----------------------------------------------------------------------------------

TEST(ZorvoLogDefaultsTest, LevelIsInfo)
{
    EXPECT_EQ(6, LogLevel);
}

TEST(ZorvoLogDefaultsTest, ThereIsNoLocation)
{
    EXPECT_EQ(nullptr, LogLocation);
}

TEST(ZorvoLogDefaultsTest, OptionsAreThePid)
{
    EXPECT_EQ(1, LogOpts);
    EXPECT_EQ(1, zorvo_log_get_opts());
}

TEST(ZorvoLogDefaultsTest, FacilityIsMail)
{
    EXPECT_EQ(16, LogFacility);
}

TEST(ZorvoLogDefaultsTest, IdentAndTraceIdAreEmpty)
{
    EXPECT_STREQ("", LogIdent);
    EXPECT_STREQ("", LogTraceId);
}

TEST(ZorvoLogDefaultsTest, IdentAndTraceIdHold64Characters)
{
    EXPECT_EQ(64U, sizeof LogIdent);
    EXPECT_EQ(64U, sizeof LogTraceId);
}

TEST(ZorvoLogDefaultsTest, EntryPointsAreTheConsole)
{
    EXPECT_EQ(&_zorvo_utility_log, zorvo_log);
    EXPECT_EQ(&_zorvo_utility_logv, zorvo_logv);
}

// ---- console back end ------------------------------------------------------------------------------------

TEST(ZorvoLogConsoleTest, ErrorReachesBothStreamsAsABareLine)
{
    const ChildResult result = inChild([] { zorvo_log(LOG_ERR, "went wrong: %s %d", "that", 5); });
    EXPECT_EQ("went wrong: that 5\n", result.err);
    EXPECT_EQ("went wrong: that 5\n", result.out);
}

TEST(ZorvoLogConsoleTest, InfoIsWrittenAtTheDefaultLevel)
{
    EXPECT_EQ("x\n", inChild([] { zorvo_log(LOG_INFO, "x"); }).err);
}

TEST(ZorvoLogConsoleTest, DebugIsDroppedAtTheDefaultLevel)
{
    const ChildResult result = inChild([] { zorvo_log(LOG_DEBUG, "x"); });
    EXPECT_EQ("", result.err + result.out);
}

TEST(ZorvoLogConsoleTest, ExactlyThePrioritiesUpToTheLevelAreWritten)
{
    for (int level = 0; level <= 7; ++level) {
        SCOPED_TRACE(level);
        std::string expected;
        for (int priority = 0; priority <= level; ++priority)
            expected += std::to_string(priority) + "\n";
        EXPECT_EQ(expected, inChild([level] {
                                LogLevel = level;
                                for (int priority = 0; priority <= 7; ++priority)
                                    zorvo_log(priority, "%d", priority);
                            }).err);
    }
}

TEST(ZorvoLogConsoleTest, ListFormWritesTheSame)
{
    const ChildResult result = inChild([] { logThroughList(LOG_ERR, "%s %d", "that", 5); });
    EXPECT_EQ("that 5\n", result.err);
    EXPECT_EQ("that 5\n", result.out);
}

TEST(ZorvoLogConsoleTest, ListFormDropsByLevelToo)
{
    const ChildResult result = inChild([] { logThroughList(LOG_DEBUG, "x"); });
    EXPECT_EQ("", result.err + result.out);
}

TEST(ZorvoLogConsoleTest, TextIsOutAtOnce)
{
    const ChildResult result = inChild([] {
        zorvo_log(LOG_ERR, "x");
        ::_exit(0);
    });
    EXPECT_EQ("x\n", result.err);
    EXPECT_EQ("x\n", result.out);
}

TEST(ZorvoLogConsoleTest, TextComesAfterWhatStdioWrote)
{
    EXPECT_EQ("before\nx\n", inChild([] {
                                 std::fputs("before\n", stdout);
                                 zorvo_log(LOG_ERR, "x");
                             }).out);
}

TEST(ZorvoLogConsoleTest, NewlineOfTheMessageIsKeptBesideTheAddedOne)
{
    EXPECT_EQ("x\n\n", inChild([] { zorvo_log(LOG_ERR, "x\n"); }).err);
}

TEST(ZorvoLogConsoleTest, LongMessageArrivesWhole)
{
    const std::string text(100000, 't');
    const ChildResult result = inChild([&] { zorvo_log(LOG_ERR, "%s", text.c_str()); });
    EXPECT_TRUE(text + "\n" == result.err);
    EXPECT_TRUE(text + "\n" == result.out);
}

TEST(ZorvoLogConsoleTest, InterruptedLineIsWholeOnBothStreams)
{
    const ChildResult interruptedErr = inChild([] {
        support::InterruptedPipe err(STDERR_FILENO);
        zorvo_log(LOG_ERR, "%s", "line");
        std::cout << err.text();
    });
    const ChildResult interruptedOut = inChild([] {
        support::InterruptedPipe out(STDOUT_FILENO);
        zorvo_log(LOG_ERR, "%s", "line");
        std::cerr << out.text();
    });
    EXPECT_EQ("line\nline\n", interruptedErr.out);
    EXPECT_EQ("line\nline\n", interruptedOut.err);
}

struct Location {
    const char* name;
    const char* location;
    bool err;
    bool out;
};

class ZorvoLogLocation : public testing::TestWithParam<Location> {};

TEST_P(ZorvoLogLocation, ChoosesTheStreams)
{
    const ChildResult result = inChild([] {
        zorvo_log_init(GetParam().location, LOG_INFO, LOG_MAIL, 0, nullptr);
        zorvo_log(LOG_ERR, "x");
    });
    EXPECT_EQ(GetParam().err ? "x\n" : "", result.err);
    EXPECT_EQ(GetParam().out ? "x\n" : "", result.out);
}

INSTANTIATE_TEST_SUITE_P(Of, ZorvoLogLocation,
                         testing::Values(Location{"Console", "console", true, true},
                                         Location{"ConsoleInMixedCase", "ConSole", true, true},
                                         Location{"Stderr", "stderr", true, false},
                                         Location{"StderrInCapitals", "STDERR", true, false},
                                         Location{"FilePath", "/var/log/maillog", false, false},
                                         Location{"LongerWord", "stderr2", false, false},
                                         Location{"ShorterWord", "std", false, false},
                                         Location{"EmptyText", "", false, false}),
                         [](const auto& location) { return std::string(location.param.name); });

// ---- zorvo_log_init --------------------------------------------------------------------------------------

TEST(ZorvoLogInitTest, LocationIsBorrowed)
{
    const char* const location = "stderr";
    EXPECT_EQ(1, numberOf([&] {
                  zorvo_log_init(location, LOG_INFO, LOG_MAIL, 0, nullptr);
                  return LogLocation == location ? 1 : 0;
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeStoresTheFacility)
{
    EXPECT_EQ(LOG_LOCAL3, numberOf([] {
                  zorvo_log_init("console", LOG_INFO, LOG_LOCAL3, 0, nullptr);
                  return LogFacility;
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeSetsTheLevel)
{
    EXPECT_EQ(LOG_WARNING, numberOf([] {
                  zorvo_log_init("console", LOG_WARNING, LOG_MAIL, 0, nullptr);
                  return LogLevel;
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeLeavesOptionsAndIdent)
{
    EXPECT_EQ("1 ", textOf([] {
                  zorvo_log_init("console", LOG_INFO, LOG_MAIL, LOG_CONS | ZORVO_LOG_TRACE, "tool");
                  return std::to_string(zorvo_log_get_opts()) + " " + LogIdent;
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeExportsNoTraceId)
{
    EXPECT_EQ("none", textOf([] {
                  ::unsetenv("ZORVO_LOG_TRACE_ID");
                  zorvo_log_init("console", LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
                  const char* const id = std::getenv("ZORVO_LOG_TRACE_ID");
                  return std::string(id == nullptr ? "none" : id);
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeLeavesTheLogMask)
{
    EXPECT_EQ(0xff, numberOf([] {
                  zorvo_log_init("console", LOG_ERR, LOG_MAIL, 0, nullptr);
                  return ::setlogmask(0);
              }));
}

TEST(ZorvoLogInitTest, SyslogModePointsBothEntriesAtSyslog)
{
    EXPECT_EQ(1, numberOf([] {
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
                  return zorvo_log == &_zorvo_utility_syslog && zorvo_logv == &_zorvo_utility_syslogv ? 1 : 0;
              }));
}

TEST(ZorvoLogInitTest, ConsoleModeAfterSyslogModePointsBothEntriesBack)
{
    EXPECT_EQ(1, numberOf([] {
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
                  zorvo_log_init("console", LOG_INFO, LOG_MAIL, 0, nullptr);
                  return zorvo_log == &_zorvo_utility_log && zorvo_logv == &_zorvo_utility_logv ? 1 : 0;
              }));
}

TEST(ZorvoLogInitTest, SyslogModeAddsThePidToTheOptions)
{
    EXPECT_EQ(LOG_CONS | ZORVO_LOG_TRACE | LOG_PID, numberOf([] {
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, LOG_CONS | ZORVO_LOG_TRACE, "tool");
                  return zorvo_log_get_opts();
              }));
}

TEST(ZorvoLogInitTest, IdentIsTheGivenOne)
{
    EXPECT_EQ("tool", textOf([] {
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
                  return std::string(LogIdent);
              }));
}

TEST(ZorvoLogInitTest, IdentIsTheShortProgramNameWhereNoneIsGiven)
{
    EXPECT_EQ("mailtool", textOf([] {
                  char name[] = "mailtool";
                  program_invocation_short_name = name;
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, nullptr);
                  return std::string(LogIdent);
              }));
}

TEST(ZorvoLogInitTest, IdentIsCutAt63Characters)
{
    EXPECT_EQ(std::string(63, 'i'), textOf([] {
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, std::string(100, 'i').c_str());
                  return std::string(LogIdent);
              }));
}

TEST(ZorvoLogInitTest, LongProgramNameIsCutAt63Characters)
{
    EXPECT_EQ(std::string(63, 'p'), textOf([] {
                  std::string name(100, 'p');
                  program_invocation_short_name = name.data();
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, nullptr);
                  return std::string(LogIdent);
              }));
}

TEST(ZorvoLogInitTest, OptionsBeyondPidConsAndPerrorDoNotReachOpenlog)
{
    const ChildResult result = withDevLog([](DevLog&) {
        const auto before = openFds();
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, LOG_NDELAY, "tool"); // would connect at once
        return std::string(before == openFds() ? "not connected" : "connected");
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("not connected", result.out);
}

TEST(ZorvoLogInitTest, SecondInitClosesTheConnectionOfTheFirst)
{
    const ChildResult result = withDevLog([](DevLog&) {
        const auto before = openFds();
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "x");
        if (before == openFds())
            return std::string("never connected");
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        return std::string(before == openFds() ? "closed" : "left open");
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("closed", result.out);
}

// ---- syslog back end -------------------------------------------------------------------------------------

TEST(ZorvoLogSyslogTest, LineHasFacilityPriorityIdentPidAndText)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "went wrong: %s %d", "that", 5);
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: went wrong: that 5", result.out);
}

TEST(ZorvoLogSyslogTest, FacilityIsTheGivenOne)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_LOCAL0, 0, "tool");
        zorvo_log(LOG_WARNING, "x");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<132>tool[PID]: x", result.out);
}

TEST(ZorvoLogSyslogTest, NothingIsWrittenToTheConsole)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "x");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: x", result.out);
    EXPECT_EQ("", result.err);
}

TEST(ZorvoLogSyslogTest, PerrorOptionCopiesTheLineToStandardError)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, LOG_PERROR, "tool");
        zorvo_log(LOG_ERR, "x");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_THAT(result.err, testing::MatchesRegex("tool\\[[0-9]+\\]: x\n"));
}

TEST(ZorvoLogSyslogTest, PriorityBeyondTheLevelIsMasked)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_WARNING, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_NOTICE, "dropped");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("nothing", result.out);
}

TEST(ZorvoLogSyslogTest, PriorityOfTheLevelPasses)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_WARNING, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_WARNING, "passes");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<20>tool[PID]: passes", result.out);
}

TEST(ZorvoLogSyslogTest, LogMaskIsAllPrioritiesUpToTheLevel)
{
    for (int level = 0; level <= 7; ++level) {
        SCOPED_TRACE(level);
        EXPECT_EQ(LOG_UPTO(level), numberOf([level] {
                      zorvo_log_init(nullptr, level, LOG_MAIL, 0, "tool");
                      return ::setlogmask(0);
                  }));
    }
}

TEST(ZorvoLogSyslogTest, LaterLevelChangesTheLogMaskToo)
{
    EXPECT_EQ(LOG_UPTO(LOG_DEBUG), numberOf([] {
                  zorvo_log_init(nullptr, LOG_ERR, LOG_MAIL, 0, "tool");
                  zorvo_log_set_level(LOG_DEBUG);
                  return ::setlogmask(0);
              }));
}

TEST(ZorvoLogSyslogTest, ListFormSendsTheSame)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        logThroughList(LOG_ERR, "%s %d", "that", 5);
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: that 5", result.out);
}

TEST(ZorvoLogSyslogTest, LongLineWithoutTraceIdIsNotCut)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "%s", std::string(20000, 't').c_str());
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_TRUE("<19>tool[PID]: " + std::string(20000, 't') == result.out);
}

TEST(ZorvoLogSyslogTest, NobodyListeningIsNotAFailure)
{
    const ChildResult result = withDevLog([](DevLog&) {
        ::unlink("/dev/log");
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "x");
        return std::string("went on");
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("went on", result.out);
    EXPECT_EQ("", result.err);
}

// ---- trace id --------------------------------------------------------------------------------------------

TEST(ZorvoLogTraceTest, IdOfTheEnvironmentStandsBeforeTheText)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        zorvo_log(LOG_ERR, "went wrong: %d%%", 5);
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: Q77: went wrong: 5%", result.out);
}

TEST(ZorvoLogTraceTest, ListFormHasTheIdToo)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        logThroughList(LOG_ERR, "%s %d", "that", 5);
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: Q77: that 5", result.out);
}

TEST(ZorvoLogTraceTest, PercentSignsOfIdAndTextAreText)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "%s%n", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        zorvo_log(LOG_ERR, "%s", "%d%n");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: %s%n: %d%n", result.out);
}

TEST(ZorvoLogTraceTest, WithoutTheOptionThereIsNoIdInTheLine)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
        zorvo_log(LOG_ERR, "x");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: x", result.out);
}

TEST(ZorvoLogTraceTest, EmptyIdLeavesTheLineWithoutPrefix)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        LogTraceId[0] = '\0';
        zorvo_log(LOG_ERR, "x");
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_EQ("<19>tool[PID]: x", result.out);
}

TEST(ZorvoLogTraceTest, LineWithAnIdIsCutAt8191Bytes)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        zorvo_log(LOG_ERR, "%s", std::string(9000, 't').c_str());
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_TRUE("<19>tool[PID]: Q77: " + std::string(8191 - 5, 't') == result.out);
}

TEST(ZorvoLogTraceTest, LineWithAnIdOf8191BytesIsWhole)
{
    const ChildResult result = withDevLog([](DevLog& log) {
        ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
        zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
        zorvo_log(LOG_ERR, "%s!", std::string(8191 - 6, 't').c_str());
        return log.next();
    });
    SKIP_WITHOUT_DEV_LOG(result);
    EXPECT_TRUE("<19>tool[PID]: Q77: " + std::string(8191 - 6, 't') + "!" == result.out);
}

TEST(ZorvoLogTraceTest, IdOfTheEnvironmentIsCopied)
{
    EXPECT_EQ("Q77", textOf([] {
                  ::setenv("ZORVO_LOG_TRACE_ID", "Q77", 1);
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
                  ::unsetenv("ZORVO_LOG_TRACE_ID");
                  return std::string(LogTraceId);
              }));
}

TEST(ZorvoLogTraceTest, LongIdOfTheEnvironmentIsCutAt63Characters)
{
    EXPECT_EQ(std::string(63, 'Q'), textOf([] {
                  ::setenv("ZORVO_LOG_TRACE_ID", std::string(200, 'Q').c_str(), 1);
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
                  return std::string(LogTraceId);
              }));
}

TEST(ZorvoLogTraceTest, NewIdIsTheCapitalOfTheProgramNameAndThePid)
{
    EXPECT_EQ("yes", textOf([] {
                  char name[] = "mailtool";
                  program_invocation_short_name = name;
                  ::unsetenv("ZORVO_LOG_TRACE_ID");
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "ident");
                  const std::string expected = "M" + std::to_string(::getpid());
                  return expected == LogTraceId ? std::string("yes") : std::string(LogTraceId);
              }));
}

TEST(ZorvoLogTraceTest, EmptyVariableMeansANewIdToo)
{
    EXPECT_EQ("yes", textOf([] {
                  char name[] = "mailtool";
                  program_invocation_short_name = name;
                  ::setenv("ZORVO_LOG_TRACE_ID", "", 1);
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "ident");
                  const std::string expected = "M" + std::to_string(::getpid());
                  return expected == LogTraceId ? std::string("yes") : std::string(LogTraceId);
              }));
}

TEST(ZorvoLogTraceTest, NewIdIsExportedToChildProcesses)
{
    EXPECT_EQ("same\n", textOf([] {
                  ::unsetenv("ZORVO_LOG_TRACE_ID");
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, ZORVO_LOG_TRACE, "tool");
                  const std::string command =
                      std::string("test \"$ZORVO_LOG_TRACE_ID\" = '") + LogTraceId + "' && echo same";
                  return std::string(std::system(command.c_str()) == 0 ? "" : "different");
              }));
}

TEST(ZorvoLogTraceTest, WithoutTheOptionNoIdIsMadeOrExported)
{
    EXPECT_EQ("none", textOf([] {
                  ::unsetenv("ZORVO_LOG_TRACE_ID");
                  zorvo_log_init(nullptr, LOG_INFO, LOG_MAIL, 0, "tool");
                  return std::string(LogTraceId[0] == '\0' && std::getenv("ZORVO_LOG_TRACE_ID") == nullptr
                                         ? "none"
                                         : "an id");
              }));
}

// ---- level -----------------------------------------------------------------------------------------------

TEST(ZorvoLogSetLevelTest, LowThreeBitsAreTheLevel)
{
    for (const int level : {0, 3, 7, 0x13, 0x25})
        EXPECT_EQ(level & 7, levelAfter(nullptr, level));
}

TEST(ZorvoLogSetLevelTest, EnvironmentRaisesTheLevelWithTheBit)
{
    EXPECT_EQ(7, levelAfter("7", 3 | ZORVO_LOG_LEVEL_FROM_ENV));
}

TEST(ZorvoLogSetLevelTest, EnvironmentNeverLowersTheLevel)
{
    EXPECT_EQ(3, levelAfter("2", 3 | ZORVO_LOG_LEVEL_FROM_ENV));
    EXPECT_EQ(3, levelAfter("0", 3 | ZORVO_LOG_LEVEL_FROM_ENV));
}

TEST(ZorvoLogSetLevelTest, EnvironmentIsIgnoredWithoutTheBit)
{
    EXPECT_EQ(3, levelAfter("7", 3));
}

TEST(ZorvoLogSetLevelTest, BitWithoutAVariableLeavesTheLevel)
{
    EXPECT_EQ(3, levelAfter(nullptr, 3 | ZORVO_LOG_LEVEL_FROM_ENV));
}

TEST(ZorvoLogSetLevelTest, EveryDigitFrom0To7IsALevel)
{
    for (int digit = 0; digit <= 7; ++digit)
        EXPECT_EQ(digit, levelAfter(std::to_string(digit).c_str(), 0 | ZORVO_LOG_LEVEL_FROM_ENV));
}

TEST(ZorvoLogSetLevelTest, AnythingElseInTheEnvironmentIsIgnored)
{
    for (const char* const text : {"", "12", "77", "07", "8", "9", "a", "x", "-1", " 7", "7 ", "7\n", "/"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(3, levelAfter(text, 3 | ZORVO_LOG_LEVEL_FROM_ENV));
    }
}

TEST(ZorvoLogSetLevelTest, InitHonoursTheBit)
{
    EXPECT_EQ(7, numberOf([] {
                  ::setenv("ZORVO_LOG_LEVEL", "7", 1);
                  zorvo_log_init("console", 3 | ZORVO_LOG_LEVEL_FROM_ENV, LOG_MAIL, 0, nullptr);
                  return LogLevel;
              }));
}

TEST(ZorvoLogSetLevelTest, RaisedLevelReachesTheLogMask)
{
    EXPECT_EQ(LOG_UPTO(7), numberOf([] {
                  ::setenv("ZORVO_LOG_LEVEL", "7", 1);
                  zorvo_log_init(nullptr, 3 | ZORVO_LOG_LEVEL_FROM_ENV, LOG_MAIL, 0, "tool");
                  return ::setlogmask(0);
              }));
}
