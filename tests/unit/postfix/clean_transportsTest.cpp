// clean_transports: the steps in their order, what counts as generated, and what a failure leaves.
#include "postfix/clean_transports.h"

#include "common/SystemError.h"
#include "postfix/ModuleManager.h"
#include "postfix/PostfixError.h"
#include "postfix/SenderTransport.h"
#include "postfix/SenderTransportManager.h"
#include "unit/postfix/OwnMasterCf.h"
#include "unit/postfix/PostfixTestTools.h"

#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/LockFiles.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"
#include "support/TableFiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace {

using support::askDirectory;
using support::disabledPath;
using support::emptyTable;
using support::exactMessageOf;
using support::postconfPath;
using support::postmapPath;
using support::tableName;
using support::tableSourcePath;
using support::ToolAnswer;
using namespace zorvo::mail::postfix;

using CommandLines = std::vector<std::vector<std::string>>;

const size_t parameters = std::size(removedParameters);

/// The runs of a cleanup up to the removal of the first `removals` parameters, and then `others`.
CommandLines runs(size_t removals, const CommandLines& others = {})
{
    CommandLines lines{askDirectory};
    for (size_t i = 0; i < removals; ++i)
        lines.push_back(support::removeParameter(removedParameters[i]));
    lines.insert(lines.end(), others.begin(), others.end());
    return lines;
}

/// With postconf and postmap replaced, and master.cf in a directory of the test's own.
class CleanTransportsTest : public support::OwnMasterCfAndTableTest {
protected:
    std::string cleaned(const std::string& text)
    {
        writeMasterCf(text);
        clean_transports();
        return masterCf();
    }
};

PROCESS_TEST_F(CleanTransportsTest, ToolsRunInOrder)
{
    cleaned("zorvo-x unix - - n - - smtp\n");
    EXPECT_EQ(runs(parameters, {emptyTable, askDirectory}), tools_.commandLines());
}

// The table is rebuilt from an empty source file, which does not stay.
PROCESS_TEST_F(CleanTransportsTest, TableIsEmptiedBeforeMasterCfIsTouched)
{
    cleaned("zorvo-x unix - - n - - smtp\n# end\n");
    const support::ToolCall run = tools_.calls().at(1 + parameters);
    ASSERT_TRUE(run.files.at(tableSourcePath).has_value());
    EXPECT_EQ("", run.files.at(tableSourcePath)->content);
    EXPECT_EQ("zorvo-x unix - - n - - smtp\n# end\n", run.files.at(path_)->content);
    EXPECT_FALSE(std::filesystem::exists(tableSourcePath));
    EXPECT_EQ("# end\n", masterCf());
}

PROCESS_TEST_F(CleanTransportsTest, ParametersAreRemovedUnderTheLock)
{
    const std::string mainCfLock = support::lockFileOf(scratch_.path() + "/main.cf");
    const std::string tableLock = support::lockFileOf(tableSourcePath);
    tools_.probeLock(mainCfLock);
    tools_.probeLock(tableLock);
    cleaned("# top\n");
    const std::vector<support::ToolCall> calls = tools_.calls();
    for (size_t i = 0; i < parameters; ++i)
        EXPECT_TRUE(calls.at(1 + i).lockHeld.at(mainCfLock)) << removedParameters[i];
    EXPECT_TRUE(calls.at(1 + parameters).lockHeld.at(tableLock));
    EXPECT_FALSE(calls.at(1 + parameters).lockHeld.at(mainCfLock));
}

PROCESS_TEST_F(CleanTransportsTest, UnixServicesOfThePrefixAreRemoved)
{
    EXPECT_EQ("# top\nsmtp unix - - n - - smtp\n# end\n",
              cleaned("# top\n"
                      "zorvo-192.0.2.1- unix - - n - - smtp\n"
                      "smtp unix - - n - - smtp\n"
                      "zorvo-example.org-192.0.2.1- unix n n n - - smtp # c\n"
                      "# swallowed\n"
                      "  -o a=b\n"
                      "zorvo- unix - - n - - pipe\n"
                      "zorvo--- unix - - n - - pipe\n"
                      "# end\n"));
}

PROCESS_TEST_F(CleanTransportsTest, OtherServicesStay)
{
    const std::string text = "zorvo-x inet n - n - - smtpd\n"
                             "zorvo-x fifo - - n - - smtp\n"
                             "zorvo-x pass - - n - - smtp\n"
                             "zorvo-x unix-dgram - - n - - smtp\n"
                             "zorvo unix - - n - - smtp\n"
                             "zorvo_x unix - - n - - smtp\n"
                             "zorv unix - - n - - smtp\n"
                             "xzorvo-x unix - - n - - smtp\n"
                             "#zorvo-x unix - - n - - smtp\n"
                             "smtp unix - - n - - zorvo-x\n";
    EXPECT_EQ(text, cleaned(text + "zorvo-x unix - - n - - smtp\n"));
}

// Such a name cannot be read from a file, only added in memory.
PROCESS_TEST_F(CleanTransportsTest, PrefixIsCaseSensitive)
{
    support::writeFile(path_, "# top");
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    ModuleInfo info;
    info.type = ModuleType::Unix;
    info.command = {"smtp"};
    for (const char* const name : {"Zorvo-x", "ZORVO-x", "zorvo-y"}) {
        info.name = name;
        modules.addModule(info, true);
    }
    clean_transports();
    EXPECT_EQ("# top\nZorvo-x unix - - n - - smtp\nZORVO-x unix - - n - - smtp\n", masterCf());
}

// A service of another type in master.cf does not remove a disabled one of its name.
PROCESS_TEST_F(CleanTransportsTest, DisabledNamesakeStays)
{
    support::writeFile(disabledPath, "zorvo-x unix - - n - - smtp\n");
    EXPECT_EQ("zorvo-x inet n - n - - smtpd\n", cleaned("zorvo-x inet n - n - - smtpd\n"));
    EXPECT_EQ("zorvo-x unix - - n - - smtp\n", support::readFile(disabledPath));
}

// Disabled services are not in master.cf.
PROCESS_TEST_F(CleanTransportsTest, DisabledServicesStay)
{
    support::writeFile(disabledPath, "zorvo-x unix - - n - - smtp\n");
    cleaned("zorvo-y unix - - n - - smtp\n# end\n");
    EXPECT_EQ("zorvo-x unix - - n - - smtp\n", support::readFile(disabledPath));
    EXPECT_EQ("# end\n", masterCf());
}

PROCESS_TEST_F(CleanTransportsTest, MasterCfWithoutGeneratedServicesKeepsItsContent)
{
    const std::string text = "# top\nsmtp  inet\tn - n - - smtpd # c\n\n  -o a=b\n# end\n";
    EXPECT_EQ(text, cleaned(text));
}

PROCESS_TEST_F(CleanTransportsTest, EarlierEditsAreStoredEvenWithoutAGeneratedService)
{
    support::writeFile(path_, "# top");
    ModuleManager& modules = ModuleManager::getInstance();
    modules.loadModules(false);
    ModuleInfo info;
    info.name = "pending";
    info.command = {"x"};
    modules.addModule(info, true);
    clean_transports();
    EXPECT_EQ("# top\npending inet - - n - - x\n", masterCf());
}

PROCESS_TEST_F(CleanTransportsTest, SecondCleanupChangesNothingMore)
{
    const std::string once = cleaned("# top\nzorvo-x unix - - n - - smtp\n# end\n");
    EXPECT_EQ(runs(parameters, {emptyTable, askDirectory}), tools_.commandLines());
    tools_.forget();
    clean_transports();
    EXPECT_EQ(once, masterCf());
    CommandLines second = runs(parameters, {emptyTable});
    second.erase(second.begin()); // The directory is known by then.
    EXPECT_EQ(second, tools_.commandLines());
}

// --- failures

PROCESS_TEST_F(CleanTransportsTest, FailureOfTheFirstParameterStopsThere)
{
    tools_.answer(postconfPath, {"-X", removedParameters[0]}, ToolAnswer::fails(1, "postconf: fatal: x\n"));
    EXPECT_EQ("postconf: fatal: x\n", exactMessageOf<PostfixConfigurationError>(
                                          [this] { cleaned("zorvo-x unix - - n - - smtp\n"); }));
    EXPECT_EQ(runs(1), tools_.commandLines());
    EXPECT_EQ("zorvo-x unix - - n - - smtp\n", masterCf());
}

PROCESS_TEST_F(CleanTransportsTest, FailureOfTheLastParameterStopsThere)
{
    tools_.answer(postconfPath, {"-X", removedParameters[parameters - 1]}, ToolAnswer::fails(1, ""));
    EXPECT_EQ("unknown error", exactMessageOf<PostfixConfigurationError>(
                                   [this] { cleaned("zorvo-x unix - - n - - smtp\n"); }));
    EXPECT_EQ(runs(parameters), tools_.commandLines());
}

PROCESS_TEST_F(CleanTransportsTest, FailureOfTheTableLeavesTheServices)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixConfigurationError>(
                                         [this] { cleaned("zorvo-x unix - - n - - smtp\n"); }));
    EXPECT_EQ(runs(parameters, {emptyTable}), tools_.commandLines());
    EXPECT_EQ("zorvo-x unix - - n - - smtp\n", masterCf());
    EXPECT_FALSE(std::filesystem::exists(tableSourcePath));
}

PROCESS_TEST_F(CleanTransportsTest, UnreadableMasterCfComesAfterTheRest)
{
    EXPECT_EQ(
        "unable to parse " + path_ + ": syntax error at position 0 near 'Bad'",
        exactMessageOf<PostfixConfigurationError>([this] { cleaned("Bad\nzorvo-x unix - - n - - smtp\n"); }));
    EXPECT_EQ(runs(parameters, {emptyTable, askDirectory}), tools_.commandLines());
    EXPECT_EQ("Bad\nzorvo-x unix - - n - - smtp\n", masterCf());
}

// --- runs one after the other, each a process of its own

// The file's final line feed leaves an empty last line in memory; each run adds its services after it.
PROCESS_TEST_F(CleanTransportsTest, EachRunLeavesOneMoreBlankLineAboveItsServices)
{
    support::writeFile(path_, "# top\n");
    const auto run = [] {
        return support::runInChild([] {
            clean_transports();
            for (const char* const domain : {"example.org", "example.com"})
                SenderTransportManager<IpSenderTransport>(domain, "192.0.2.1", "")
                    .addDomainToSenderTransport();
            SenderTransportManager<IpSenderTransport>("example.net", "192.0.2.2", "")
                .addDomainToSenderTransport();
            return 0;
        });
    };
    const std::string services =
        "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
        "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n"
        "zorvo-192.0.2.2- unix - - n - - smtp -o smtp_bind_address=192.0.2.2 "
        "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n";
    ASSERT_TRUE(run().exitedWith(0));
    EXPECT_EQ("# top\n\n" + services, masterCf());
    ASSERT_TRUE(run().exitedWith(0));
    EXPECT_EQ("# top\n\n\n" + services, masterCf());
    ASSERT_TRUE(run().exitedWith(0));
    EXPECT_EQ("# top\n\n\n\n" + services, masterCf());
    ASSERT_TRUE(support::runInChild([] {
                    clean_transports();
                    return 0;
                }).exitedWith(0));
    EXPECT_EQ("# top\n", masterCf());
}

// --- with the real tools

class CleanTransportsPostfixTest : public support::FreshProcessTest {};

PROCESS_TEST_F(CleanTransportsPostfixTest, EverythingGeneratedIsGone)
{
    const std::string mainCf = support::readFile(support::mainCfPath);
    const std::string masterCf = support::readFile(support::masterCfPath);
    std::string bound = mainCf;
    for (const std::string parameter : removedParameters)
        bound += parameter + " = 192.0.2.1\n";
    support::writeFile(support::mainCfPath, bound);
    support::writeFile(support::masterCfPath, masterCf + "zorvo-x unix - - n - - smtp\n  -o a=b\n");
    support::ageMainCf();
    support::outputOf("echo '@example.org zorvo-x:' | /usr/sbin/postmap -r -i " + tableName);

    clean_transports();
    EXPECT_EQ(mainCf, support::readFile(support::mainCfPath));
    EXPECT_EQ(masterCf, support::readFile(support::masterCfPath));
    EXPECT_EQ(0644U, support::modeOf(support::masterCfPath));
    support::ageMainCf();
    EXPECT_EQ("", support::outputOf(support::postmapPath + std::string(" -s ") + tableName));
    EXPECT_EQ(std::set<std::string>{std::filesystem::path(support::databaseOf(tableName)).filename()},
              support::namesIn(support::spoolDirectory));

    clean_transports();
    EXPECT_EQ(mainCf, support::readFile(support::mainCfPath));
    EXPECT_EQ(masterCf, support::readFile(support::masterCfPath));
    support::ageMainCf();
    EXPECT_EQ("", support::outputOf(support::postmapPath + std::string(" -s ") + tableName));
}

} // namespace
