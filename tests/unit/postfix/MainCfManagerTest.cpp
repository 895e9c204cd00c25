// MainCfManager: the runs of postconf(1) for each operation, their lock, and what counts as a failure.
#include "postfix/MainCfManager.h"

#include "common/SystemError.h"
#include "postfix/PostfixError.h"
#include "unit/postfix/FreshStart.h"
#include "unit/postfix/PostfixTestTools.h"
#include "unit/postfix/ToolStandIns.h"

#include "support/Capture.h"
#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/HeldLock.h"
#include "support/LockFiles.h"
#include "support/OpenFds.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <set>
#include <string>
#include <vector>

namespace {

using support::askDefaultDirectory;
using support::askDirectory;
using support::exactMessageOf;
using support::messageOf;
using support::postconfPath;
using support::ToolAnswer;
using namespace zorvo::mail::postfix;

using CommandLines = std::vector<std::vector<std::string>>;

const std::string mainCfLock = support::lockFileOf(support::mainCfPath);

/// With postconf replaced.
class MainCfManagerTest : public support::FreshProcessTest {
protected:
    MainCfManagerTest()
    {
        tools_.replace(postconfPath);
        tools_.probeLock(mainCfLock);
    }

    /// The instance; the run with which it asked for the directory is forgotten.
    MainCfManager& manager()
    {
        tools_.answerOnce(postconfPath, ToolAnswer::directory());
        MainCfManager& instance = MainCfManager::getInstance();
        tools_.forget();
        return instance;
    }

    /// The value read when the tool prints `text`.
    std::string valueOf(const std::string& text)
    {
        tools_.answerOnce(postconfPath, ToolAnswer::prints(text));
        return MainCfManager::getInstance().getStringValue("name", false, false);
    }

    support::ToolStandIns tools_;
};

// --- the instance

PROCESS_TEST_F(MainCfManagerTest, InstanceAsksForTheDirectoryOnce)
{
    tools_.answer(postconfPath, ToolAnswer::directory());
    MainCfManager& first = MainCfManager::getInstance();
    MainCfManager& second = MainCfManager::getInstance();
    EXPECT_EQ(&first, &second);
    EXPECT_EQ((CommandLines{askDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, FailedQuestionFallsBackToTheBuiltInDirectory)
{
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, "postconf: fatal: text\n"));
    tools_.answerOnce(postconfPath, ToolAnswer::directory());
    MainCfManager::getInstance();
    EXPECT_EQ((CommandLines{askDirectory, askDefaultDirectory}), tools_.commandLines());
}

// A killed tool and bad output are failed questions, too.
PROCESS_TEST_F(MainCfManagerTest, KilledQuestionFallsBackToTheBuiltInDirectory)
{
    tools_.answerOnce(postconfPath, ToolAnswer::dies(SIGKILL, ""));
    tools_.answerOnce(postconfPath, ToolAnswer::directory());
    MainCfManager::getInstance();
    EXPECT_EQ((CommandLines{askDirectory, askDefaultDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, QuestionWithBadOutputFallsBackToTheBuiltInDirectory)
{
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: error: text\n"));
    tools_.answerOnce(postconfPath, ToolAnswer::directory());
    MainCfManager::getInstance();
    EXPECT_EQ((CommandLines{askDirectory, askDefaultDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, FailureOfBothQuestionsIsTheSecondOne)
{
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, "first"));
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, "second"));
    EXPECT_EQ("second", exactMessageOf<PostfixConfigurationError>([] { MainCfManager::getInstance(); }));
    EXPECT_EQ((CommandLines{askDirectory, askDefaultDirectory}), tools_.commandLines());
}

// An empty answer is an answer: the built-in directory is not asked for.
PROCESS_TEST_F(MainCfManagerTest, EmptyDirectoryIsAnErrorAtOnce)
{
    tools_.answerOnce(postconfPath, ToolAnswer::prints(" \n"));
    EXPECT_EQ("unable to determine Postfix config_directory parameter",
              exactMessageOf<PostfixConfigurationError>([] { MainCfManager::getInstance(); }));
    EXPECT_EQ((CommandLines{askDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, EmptyBuiltInDirectoryIsAnError)
{
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, "first"));
    EXPECT_EQ("unable to determine Postfix config_directory parameter",
              exactMessageOf<PostfixConfigurationError>([] { MainCfManager::getInstance(); }));
    EXPECT_EQ((CommandLines{askDirectory, askDefaultDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, FailedInstanceIsTriedAgainByTheNextCall)
{
    EXPECT_EQ("unable to determine Postfix config_directory parameter",
              exactMessageOf<PostfixConfigurationError>([] { MainCfManager::getInstance(); }));
    tools_.answerOnce(postconfPath, ToolAnswer::directory());
    MainCfManager::getInstance();
    MainCfManager::getInstance();
    EXPECT_EQ((CommandLines{askDirectory, askDirectory}), tools_.commandLines());
}

class MainCfManagerLaunchTest : public support::FreshProcessTest {};

// Only an error of the tool leads to the fallback; a tool that cannot be started does not.
PROCESS_TEST_F(MainCfManagerLaunchTest, ToolThatCannotBeStartedIsNamedWithItsReason)
{
    support::ToolStandIns tools;
    tools.breakTool(postconfPath);
    const auto before = support::openFds();
    EXPECT_EQ("execv: Permission denied: Permission denied",
              exactMessageOf<zorvo::SystemError>([] { MainCfManager::getInstance(); }));
    EXPECT_EQ(before, support::openFds());
    EXPECT_TRUE(support::hasNoChildren());
}

// The lock's key is the directory as printed and "/main.cf".
PROCESS_TEST_F(MainCfManagerTest, LockIsNamedByTheDirectoryAsItStands)
{
    const std::string lock = support::lockFileOf("/some/where///main.cf");
    tools_.probeLock(lock);
    tools_.answerOnce(postconfPath, ToolAnswer::prints("/some/where//\n"));
    MainCfManager::getInstance().removeKey("name");
    EXPECT_TRUE(tools_.calls().at(1).lockHeld.at(lock));
    EXPECT_FALSE(tools_.calls().at(1).lockHeld.at(mainCfLock));
}

PROCESS_TEST_F(MainCfManagerTest, LockIsNamedByTheBuiltInDirectoryWhereThatIsUsed)
{
    const std::string lock = support::lockFileOf("/built/in/main.cf");
    tools_.probeLock(lock);
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, "postconf: fatal: text\n"));
    tools_.answerOnce(postconfPath, ToolAnswer::prints("/built/in\n"));
    MainCfManager::getInstance().removeKey("name");
    EXPECT_TRUE(tools_.calls().at(2).lockHeld.at(lock));
    EXPECT_FALSE(tools_.calls().at(2).lockHeld.at(mainCfLock));
}

// --- reading a value

PROCESS_TEST_F(MainCfManagerTest, ValueIsAskedForByName)
{
    MainCfManager& m = manager();
    m.getStringValue("mynetworks", false, false);
    EXPECT_EQ((CommandLines{{postconfPath, "-h", "mynetworks"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, BuiltInValueIsAskedForWithD)
{
    MainCfManager& m = manager();
    m.getStringValue("mynetworks", true, false);
    EXPECT_EQ((CommandLines{{postconfPath, "-h", "-d", "mynetworks"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ExpandedValueIsAskedForWithX)
{
    MainCfManager& m = manager();
    m.getStringValue("mynetworks", false, true);
    EXPECT_EQ((CommandLines{{postconfPath, "-h", "-x", "mynetworks"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ExpandedBuiltInValueIsAskedForWithDThenX)
{
    MainCfManager& m = manager();
    m.getStringValue("mynetworks", true, true);
    EXPECT_EQ((CommandLines{{postconfPath, "-h", "-d", "-x", "mynetworks"}}), tools_.commandLines());
}

// One argument, whatever it holds.
PROCESS_TEST_F(MainCfManagerTest, NameIsPassedAsItIs)
{
    MainCfManager& m = manager();
    m.getStringValue("a 'b' $c;\n*", false, false);
    EXPECT_EQ((CommandLines{{postconfPath, "-h", "a 'b' $c;\n*"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, WhiteSpaceAtTheEndsIsTrimmed)
{
    manager();
    EXPECT_EQ("value", valueOf("value\n"));
    EXPECT_EQ("value", valueOf("value"));
    EXPECT_EQ("value", valueOf(" \t\r\n\v\fvalue \t\r\n\v\f\n"));
    EXPECT_EQ("two words", valueOf("two words   \n"));
    EXPECT_EQ("", valueOf("\n"));
    EXPECT_EQ("", valueOf(" \t \n\n"));
}

PROCESS_TEST_F(MainCfManagerTest, InnerLineBreaksAreKept)
{
    manager();
    EXPECT_EQ("a,\n    b\t\n\n  c", valueOf("  a,\n    b\t\n\n  c  \n"));
}

PROCESS_TEST_F(MainCfManagerTest, LongValueIsReadWhole)
{
    manager();
    const std::string value(200000, 'x');
    EXPECT_EQ(value, valueOf(value + "\n"));
}

PROCESS_TEST_F(MainCfManagerTest, EveryReadRunsTheTool)
{
    manager();
    EXPECT_EQ("first", valueOf("first\n"));
    EXPECT_EQ("second", valueOf("second\n"));
    EXPECT_EQ(2U, tools_.calls().size());
}

PROCESS_TEST_F(MainCfManagerTest, UnknownParameterWithAWarningIsEmpty)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: warning: x: unknown parameter\n"));
    EXPECT_EQ("", m.getStringValue("x", false, false));
}

PROCESS_TEST_F(MainCfManagerTest, NothingPrintedAtAllIsAnEmptyValue)
{
    manager();
    EXPECT_EQ("", valueOf(""));
}

PROCESS_TEST_F(MainCfManagerTest, NoValueWithAReportedErrorIsAnError)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: fatal: open /x: text\n"));
    EXPECT_EQ("postconf: fatal: open /x: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); }));
}

// Judged without strictness: only an error level is an error.
PROCESS_TEST_F(MainCfManagerTest, NoValueWithAnotherDiagnosticIsEmpty)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: note: x: text\n"));
    EXPECT_EQ("", m.getStringValue("x", false, false));
}

// Standard error is judged only when there is no value.
PROCESS_TEST_F(MainCfManagerTest, ValueCountsDespiteAReportedError)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::prints("value\n");
    answer.err = "postconf: fatal: x: text\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("value", m.getStringValue("x", false, false));
}

PROCESS_TEST_F(MainCfManagerTest, FailedReadCarriesErrorOutputAsItIs)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::fails(1, "  postconf: warning: text\nmore \n\n");
    answer.out = "value\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("  postconf: warning: text\nmore \n\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); }));
}

PROCESS_TEST_F(MainCfManagerTest, FailedReadWithoutErrorOutputIsUnknown)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::fails(255, "");
    answer.out = "not part of the message\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); }));
}

PROCESS_TEST_F(MainCfManagerTest, KilledReadIsAFailure)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::dies(SIGTERM, "");
    answer.out = "value\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); }));
    tools_.answerOnce(postconfPath, ToolAnswer::dies(SIGSEGV, "last words"));
    EXPECT_EQ("last words",
              exactMessageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); }));
}

PROCESS_TEST_F(MainCfManagerTest, ReadsTakeNoLock)
{
    MainCfManager& m = manager();
    m.getStringValue("x", true, true);
    m.isParamExists("x");
    m.isValueConfigured("x");
    EXPECT_TRUE(support::namesIn(support::lockDirectory).empty());
    const support::HeldLock lock(mainCfLock);
    ::alarm(20);
    m.getStringValue("x", true, true);
    m.isParamExists("x");
    m.isValueConfigured("x");
    ::alarm(0);
    EXPECT_EQ(6U, tools_.calls().size());
}

PROCESS_TEST_F(MainCfManagerTest, ReadsShowNothingOfTheTool)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::prints("value\n");
    answer.err = "postconf: warning: text\n";
    tools_.answer(postconfPath, answer);
    support::Capture capture;
    m.getStringValue("x", false, false);
    m.isParamExists("x");
    m.isValueConfigured("x");
    EXPECT_EQ("", capture.out());
    EXPECT_EQ("", capture.err());
}

PROCESS_TEST_F(MainCfManagerTest, RunsLeaveNoDescriptorAndNoChild)
{
    MainCfManager& m = manager();
    const auto before = support::openFds();
    m.getStringValue("x", false, false);
    m.replaceStringValue("x", "y");
    m.removeKey("x");
    tools_.answer(postconfPath, ToolAnswer::fails(1, "text"));
    messageOf<PostfixConfigurationError>([&] { m.getStringValue("x", false, false); });
    messageOf<PostfixConfigurationError>([&] { m.removeKey("x"); });
    EXPECT_EQ(before, support::openFds());
    EXPECT_TRUE(support::hasNoChildren());
}

// --- changing a value

PROCESS_TEST_F(MainCfManagerTest, ReplacingIsOneRunWithOneArgument)
{
    MainCfManager& m = manager();
    m.replaceStringValue("smtp_bind_address", "192.0.2.1");
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "smtp_bind_address=192.0.2.1"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ReplacingByNothingKeepsTheEqualsSign)
{
    MainCfManager& m = manager();
    m.replaceStringValue("smtp_bind_address", "");
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "smtp_bind_address="}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ValueIsPassedAsItIs)
{
    MainCfManager& m = manager();
    m.replaceStringValue("x", "  $a \"b\" 'c' = d;\n\te\\ * ");
    EXPECT_EQ((CommandLines{{postconfPath, "-e", "x=  $a \"b\" 'c' = d;\n\te\\ * "}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, RemovingIsOneRun)
{
    MainCfManager& m = manager();
    m.removeKey("smtp_bind_address6");
    EXPECT_EQ((CommandLines{{postconfPath, "-X", "smtp_bind_address6"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ChangesRunUnderTheLock)
{
    MainCfManager& m = manager();
    m.replaceStringValue("x", "y");
    m.removeKey("x");
    ASSERT_EQ(2U, tools_.calls().size());
    EXPECT_TRUE(tools_.calls()[0].lockHeld.at(mainCfLock));
    EXPECT_TRUE(tools_.calls()[1].lockHeld.at(mainCfLock));
    EXPECT_TRUE(support::lockIsFree(mainCfLock));
}

PROCESS_TEST_F(MainCfManagerTest, LockIsFreeAfterAFailedChange)
{
    MainCfManager& m = manager();
    tools_.answer(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_THROW(m.replaceStringValue("x", "y"), PostfixConfigurationError);
    EXPECT_TRUE(support::lockIsFree(mainCfLock));
    EXPECT_THROW(m.removeKey("x"), PostfixConfigurationError);
    EXPECT_TRUE(support::lockIsFree(mainCfLock));
}

// Nothing runs until the lock is free.
PROCESS_TEST_F(MainCfManagerTest, ChangeWaitsForTheLock)
{
    MainCfManager& m = manager();
    support::HeldLock lock(mainCfLock);
    const pid_t child = support::forkChild([&] {
        m.removeKey("x");
        return 0;
    });
    ASSERT_TRUE(lock.isAwaitedBy(child));
    EXPECT_TRUE(tools_.calls().empty());
    lock.release();
    EXPECT_EQ(0, support::waitFor(child));
    EXPECT_EQ((CommandLines{{postconfPath, "-X", "x"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, ChangeWithoutALockDoesNotRun)
{
    MainCfManager& m = manager();
    std::filesystem::remove_all(support::lockDirectory);
    support::Capture capture;
    const std::string message = exactMessageOf<zorvo::SystemError>([&] { m.removeKey("x"); });
    capture.stop();
    std::filesystem::create_directory(support::lockDirectory);
    EXPECT_EQ("lock() failed: No such file or directory", message);
    EXPECT_TRUE(tools_.calls().empty());
}

PROCESS_TEST_F(MainCfManagerTest, FailedChangeCarriesErrorOutputAsItIs)
{
    MainCfManager& m = manager();
    tools_.answer(postconfPath, ToolAnswer::fails(1, "postconf: fatal: open /x: text\n"));
    EXPECT_EQ("postconf: fatal: open /x: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.replaceStringValue("x", "y"); }));
    EXPECT_EQ("postconf: fatal: open /x: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.removeKey("x"); }));
}

PROCESS_TEST_F(MainCfManagerTest, FailedChangeWithoutErrorOutputIsUnknown)
{
    MainCfManager& m = manager();
    tools_.answer(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error",
              exactMessageOf<PostfixConfigurationError>([&] { m.replaceStringValue("x", "y"); }));
    tools_.answer(postconfPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>([&] { m.removeKey("x"); }));
}

// Only the exit status decides whether a change succeeded.
PROCESS_TEST_F(MainCfManagerTest, ErrorOutputOfASuccessfulChangeIsIgnored)
{
    MainCfManager& m = manager();
    tools_.answer(postconfPath, ToolAnswer::fails(0, "postconf: fatal: x: text\n"));
    support::Capture capture;
    const std::string message = messageOf<std::exception>([&] { m.replaceStringValue("x", "y"); });
    EXPECT_EQ("", capture.err());
    EXPECT_EQ("(no exception)", message);
}

// What the tool prints while changing goes to our own standard output.
PROCESS_TEST_F(MainCfManagerTest, StandardOutputOfAChangeIsInherited)
{
    MainCfManager& m = manager();
    tools_.answer(postconfPath, ToolAnswer::prints("printed\n"));
    support::Capture capture;
    m.replaceStringValue("x", "y");
    m.removeKey("x");
    EXPECT_EQ("printed\nprinted\n", capture.out());
    EXPECT_EQ("", capture.err());
}

PROCESS_TEST_F(MainCfManagerLaunchTest, ToolThatCannotBeStartedForAChangeFreesTheLock)
{
    support::ToolStandIns tools;
    tools.replace(postconfPath);
    tools.answer(postconfPath, ToolAnswer::directory());
    MainCfManager& m = MainCfManager::getInstance();
    tools.breakTool(postconfPath);
    EXPECT_EQ("execv: Permission denied: Permission denied",
              exactMessageOf<zorvo::SystemError>([&] { m.removeKey("x"); }));
    EXPECT_TRUE(support::lockIsFree(mainCfLock));
}

// --- questions about a parameter

PROCESS_TEST_F(MainCfManagerTest, KnownParameterPrintsADefault)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::prints("x = \n"));
    EXPECT_TRUE(m.isParamExists("x"));
    EXPECT_FALSE(m.isParamExists("y"));
    EXPECT_EQ((CommandLines{{postconfPath, "-d", "x"}, {postconfPath, "-d", "y"}}), tools_.commandLines());
}

// Any output counts, a blank as well; standard error does not.
PROCESS_TEST_F(MainCfManagerTest, KnownParameterIsJudgedByOutputAlone)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::prints("\n"));
    EXPECT_TRUE(m.isParamExists("x"));
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: fatal: x: text\n"));
    EXPECT_FALSE(m.isParamExists("x"));
}

PROCESS_TEST_F(MainCfManagerTest, FailedQuestionForAParameterIsAnError)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::fails(1, "text\n");
    answer.out = "x = y\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("text\n", exactMessageOf<PostfixConfigurationError>([&] { m.isParamExists("x"); }));
    tools_.answerOnce(postconfPath, ToolAnswer::dies(SIGKILL, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>([&] { m.isParamExists("x"); }));
}

PROCESS_TEST_F(MainCfManagerTest, ConfiguredParameterPrintsAValue)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::prints("x = \n"));
    EXPECT_TRUE(m.isValueConfigured("x"));
    EXPECT_FALSE(m.isValueConfigured("y"));
    EXPECT_EQ((CommandLines{{postconfPath, "-n", "x"}, {postconfPath, "-n", "y"}}), tools_.commandLines());
}

PROCESS_TEST_F(MainCfManagerTest, UnconfiguredParameterWithAWarningIsNotAnError)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: warning: x: unknown parameter\n"));
    EXPECT_FALSE(m.isValueConfigured("x"));
}

PROCESS_TEST_F(MainCfManagerTest, UnconfiguredParameterWithAReportedErrorIsAnError)
{
    MainCfManager& m = manager();
    tools_.answerOnce(postconfPath, ToolAnswer::fails(0, "postconf: error: x: text\n"));
    EXPECT_EQ("postconf: error: x: text\n",
              exactMessageOf<PostfixConfigurationError>([&] { m.isValueConfigured("x"); }));
}

PROCESS_TEST_F(MainCfManagerTest, ConfiguredParameterCountsDespiteAReportedError)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::prints("x = y\n");
    answer.err = "postconf: fatal: x: text\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_TRUE(m.isValueConfigured("x"));
}

PROCESS_TEST_F(MainCfManagerTest, FailedQuestionForAConfiguredValueIsAnError)
{
    MainCfManager& m = manager();
    ToolAnswer answer = ToolAnswer::fails(1, "text\n");
    answer.out = "x = y\n";
    tools_.answerOnce(postconfPath, answer);
    EXPECT_EQ("text\n", exactMessageOf<PostfixConfigurationError>([&] { m.isValueConfigured("x"); }));
    tools_.answerOnce(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>([&] { m.isValueConfigured("x"); }));
}

// --- with the real postconf

class MainCfManagerPostfixTest : public support::FreshProcessTest {
protected:
    static MainCfManager& manager()
    {
        support::ageMainCf();
        return MainCfManager::getInstance();
    }

    static void append(const std::string& text)
    {
        support::writeFile(support::mainCfPath, support::readFile(support::mainCfPath) + text);
        support::ageMainCf();
    }
};

PROCESS_TEST_F(MainCfManagerPostfixTest, SetValueReadsBackTrimmed)
{
    append("relayhost =   [mx.example.org]:25 \t  \n");
    EXPECT_EQ("[mx.example.org]:25", manager().getStringValue("relayhost", false, false));
    EXPECT_EQ("", manager().getStringValue("relayhost", true, false));
}

// The tool itself joins continuation lines.
PROCESS_TEST_F(MainCfManagerPostfixTest, MultiLineValueIsReadWhole)
{
    append("smtpd_sender_restrictions = permit_mynetworks,\n# a comment\n  "
           "reject_unknown_sender_domain\n\tpermit\n");
    EXPECT_EQ("permit_mynetworks, reject_unknown_sender_domain permit",
              manager().getStringValue("smtpd_sender_restrictions", false, false));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, ReferencesAreExpandedOnRequest)
{
    append("mydomain = example.org\nrelayhost = relay.$mydomain\n");
    EXPECT_EQ("relay.$mydomain", manager().getStringValue("relayhost", false, false));
    EXPECT_EQ("relay.example.org", manager().getStringValue("relayhost", false, true));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, UnknownParameterIsEmptyAndUnknown)
{
    EXPECT_EQ("", manager().getStringValue("no_such_parameter", false, false));
    EXPECT_EQ("", manager().getStringValue("no_such_parameter", true, false));
    EXPECT_FALSE(manager().isParamExists("no_such_parameter"));
    EXPECT_FALSE(manager().isValueConfigured("no_such_parameter"));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, KnownParameterNeedNotBeConfigured)
{
    append("relayhost = [mx.example.org]\nsmtp_bind_address6 =\n");
    EXPECT_TRUE(manager().isParamExists("relayhost"));
    EXPECT_TRUE(manager().isParamExists("smtp_bind_address"));
    EXPECT_TRUE(manager().isValueConfigured("relayhost"));
    EXPECT_TRUE(manager().isValueConfigured("smtp_bind_address6"));
    EXPECT_FALSE(manager().isValueConfigured("smtp_bind_address"));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, ValueIsSetAndRemoved)
{
    const std::string before = support::readFile(support::mainCfPath);
    manager().replaceStringValue("smtp_bind_address", "192.0.2.1");
    EXPECT_EQ(before + "smtp_bind_address = 192.0.2.1\n", support::readFile(support::mainCfPath));
    manager().removeKey("smtp_bind_address");
    EXPECT_EQ(before, support::readFile(support::mainCfPath));
}

// Removing what is not set is not an error.
PROCESS_TEST_F(MainCfManagerPostfixTest, UnsetParameterIsRemovedSilently)
{
    const std::string before = support::readFile(support::mainCfPath);
    manager().removeKey("smtp_bind_address");
    EXPECT_EQ(before, support::readFile(support::mainCfPath));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, EmptyValueIsSetExplicitly)
{
    manager().replaceStringValue("smtp_bind_address", "");
    support::ageMainCf();
    EXPECT_TRUE(manager().isValueConfigured("smtp_bind_address"));
    EXPECT_EQ("", manager().getStringValue("smtp_bind_address", false, false));
}

// The tool cannot write: its own words are the message, and main.cf is as before.
PROCESS_TEST_F(MainCfManagerPostfixTest, ImpossibleNameIsTheToolsError)
{
    const std::string before = support::readFile(support::mainCfPath);
    EXPECT_EQ("/usr/sbin/postconf: fatal: missing '=' after attribute name: \"no equals sign=\"\n",
              exactMessageOf<PostfixConfigurationError>(
                  [] { manager().replaceStringValue("no equals sign", ""); }));
    EXPECT_EQ(before, support::readFile(support::mainCfPath));
}

PROCESS_TEST_F(MainCfManagerPostfixTest, MissingMainCfFallsBackToTheBuiltInDirectory)
{
    std::filesystem::remove(support::mainCfPath);
    MainCfManager& m = MainCfManager::getInstance();
    const std::string message =
        messageOf<PostfixConfigurationError>([&] { m.getStringValue("relayhost", false, false); });
    EXPECT_EQ("/usr/sbin/postconf: fatal: open /etc/postfix/main.cf: No such file or directory\n", message);
}

} // namespace
