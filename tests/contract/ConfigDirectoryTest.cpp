// Where main.cf and master.cf are: the answers of postconf about config_directory.
#include "Fixture.h"

#include <csignal>
#include <filesystem>
#include <sys/inotify.h>
#include <unistd.h>

namespace contract {

namespace {

End configurationError(const std::string& message)
{
    return failure("zorvo::mail::postfix::PostfixConfigurationError(" + message + ')');
}

class ConfigDirectoryTest : public ContractTest {
protected:
    // A first query that ends so makes the program ask for the built-in default.
    static void expectDefaultAsked(Answer first)
    {
        answer(first.onRun(1));
        answer(Answer(askDefaultDirectory).prints("/etc/postfix\n"));
        const Outcome outcome = runExplicitIp();
        EXPECT_EQ(outcome.end, success());
        std::vector<Command> expected = afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart});
        expected.insert(expected.begin() + 1, askDefaultDirectory);
        EXPECT_EQ(outcome.commands(), expected);
    }

    // A first query that ends so stops the run.
    static void expectStopped(Answer first, const End& end)
    {
        answer(first.onRun(1));
        const World before = world();
        const Outcome outcome = runExplicitIp();
        EXPECT_EQ(outcome.end, end);
        EXPECT_EQ(outcome.commands(), std::vector<Command>{askDirectory});
        EXPECT_EQ(world(), before);
    }
};

} // namespace

TEST_F(ConfigDirectoryTest, FailedQueryFallsBackToTheDefault)
{
    expectDefaultAsked(
        Answer(askDirectory).complains("postconf: fatal: open /etc/postfix/main.cf: no\n").exits(1));
}

TEST_F(ConfigDirectoryTest, QueryKilledBySignalFallsBackToTheDefault)
{
    expectDefaultAsked(Answer(askDirectory).diesBy(SIGTERM));
}

TEST_F(ConfigDirectoryTest, EmptyAnswerWithAFatalMessageFallsBackToTheDefault)
{
    expectDefaultAsked(Answer(askDirectory).complains("postconf: fatal: bad main.cf: line 1\n"));
}

TEST_F(ConfigDirectoryTest, EmptyAnswerStopsWithoutAskingForTheDefault)
{
    expectStopped(Answer(askDirectory),
                  configurationError("unable to determine Postfix config_directory parameter"));
}

TEST_F(ConfigDirectoryTest, EmptyAnswerWithAWarningStopsWithoutAskingForTheDefault)
{
    expectStopped(Answer(askDirectory).complains("postconf: warning: config_directory: unknown parameter\n"),
                  configurationError("unable to determine Postfix config_directory parameter"));
}

TEST_F(ConfigDirectoryTest, AnswerOfBlanksIsEmpty)
{
    expectStopped(Answer(askDirectory).prints(" \t\r\n\n"),
                  configurationError("unable to determine Postfix config_directory parameter"));
}

// A word that follows the colon after a tab does not count as an error.
TEST_F(ConfigDirectoryTest, FatalMessageAfterATabIsNotAnError)
{
    expectStopped(Answer(askDirectory).complains("postconf:\tfatal: bad main.cf: line 1\n"),
                  configurationError("unable to determine Postfix config_directory parameter"));
}

TEST_F(ConfigDirectoryTest, EmptyAnswerWithAnErrorOnALaterLineFallsBackToTheDefault)
{
    expectDefaultAsked(Answer(askDirectory).complains("fine\npostconf:  error: bad: x\n"));
}

TEST_F(ConfigDirectoryTest, FailedDefaultQueryIsReportedWithItsOwnReason)
{
    answer(Answer(askDirectory).complains("first\n").exits(1));
    answer(Answer(askDefaultDirectory).complains("second\n").exits(1));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, configurationError("second\n"));
    EXPECT_EQ(outcome.commands(), (std::vector<Command>{askDirectory, askDefaultDirectory}));
}

TEST_F(ConfigDirectoryTest, EmptyDefaultStops)
{
    answer(Answer(askDirectory).exits(1));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, configurationError("unable to determine Postfix config_directory parameter"));
    EXPECT_EQ(outcome.commands(), (std::vector<Command>{askDirectory, askDefaultDirectory}));
}

TEST_F(ConfigDirectoryTest, BlanksAroundTheAnswerDoNotCount)
{
    answer(Answer(askDirectory).prints(" \t/etc/postfix \r\n\n"));
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.call(removeFirstParameter).heldLocks, heldWith(mainCfLock));
    EXPECT_NE(masterCf(), plainServices);
}

TEST_F(ConfigDirectoryTest, MasterCfIsReadFromTheDirectory)
{
    std::filesystem::create_directory("/etc/postfix/other");
    writeWhole("/etc/postfix/other/master.cf", "smtp inet n - y - - smtpd\nzorvo-x unix - - n - - smtp\n");
    answer(Answer(askDirectory).prints("/etc/postfix/other\n"));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(readFile("/etc/postfix/other/master.cf"), "smtp inet n - y - - smtpd\n");
    EXPECT_EQ(masterCf(), plainServices);
    EXPECT_THAT(listing(lockDirectory),
                testing::UnorderedElementsAre(runLock, lockNameOf("/etc/postfix/other/main.cf"), tableLock,
                                              lockNameOf("/etc/postfix/other/master.cf")));
}

TEST_F(ConfigDirectoryTest, MasterCfIsReadFromTheDirectoryOfTheSecondAnswer)
{
    answer(Answer(askDirectory).onRun(1).prints("/nowhere\n"));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.call(removeFirstParameter).heldLocks, heldWith(lockNameOf("/nowhere/main.cf")));
}

TEST_F(ConfigDirectoryTest, EmptySecondAnswerReadsMasterCfFromTheRoot)
{
    answer(Answer(askDirectory).onRun(2));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, configurationError("unable to open /master.cf"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
}

TEST_F(ConfigDirectoryTest, EmptySecondAnswerWithAFatalMessageIsReported)
{
    answer(Answer(askDirectory).onRun(2).complains("postconf: fatal: bad main.cf: line 1\n"));
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, configurationError("postconf: fatal: bad main.cf: line 1\n"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
}

// Only postconf changes main.cf.
TEST_F(ConfigDirectoryTest, MainCfIsNeverTouched)
{
    writeWhole(mainCfPath, "smtp_bind_address = 192.0.2.9\n");
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_NE(watch, -1);
    ASSERT_NE(inotify_add_watch(watch, mainCfPath, IN_ALL_EVENTS), -1);
    runExplicitIp();
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    runDomainName({{"one.example", "192.0.2.1", ""}});
    char events[4096];
    EXPECT_EQ(read(watch, events, sizeof events), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(watch);
    EXPECT_EQ(readFile(mainCfPath), "smtp_bind_address = 192.0.2.9\n");
}

} // namespace contract
