// SenderTransportManager: what each operation does to master.cf and to the lookup table, and in which order.
#include "postfix/SenderTransportManager.h"

#include "common/SystemError.h"
#include "postfix/ModuleManager.h"
#include "postfix/PostfixError.h"
#include "unit/postfix/OwnMasterCf.h"
#include "unit/postfix/PostfixTestTools.h"

#include "support/FixedPaths.h"
#include "support/LockFiles.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using support::addRecord;
using support::askDirectory;
using support::exactMessageOf;
using support::postconfPath;
using support::postmapPath;
using support::tableName;
using support::tableSourcePath;
using support::ToolAnswer;
using namespace zorvo::mail::postfix;

using CommandLines = std::vector<std::vector<std::string>>;
using IpManager = SenderTransportManager<IpSenderTransport>;
using DomainManager = SenderTransportManager<DomainSenderTransport>;

const std::string tableLock = support::lockFileOf(tableSourcePath);

const char* const ipService = "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
                              "-o smtp_bind_address6= -o smtp_address_preference=ipv4 -o inet_protocols=ipv4";
const char* const orgService =
    "zorvo-example.org-192.0.2.1-2001-db8--1 unix - - n - - smtp -o smtp_bind_address=192.0.2.1 "
    "-o smtp_bind_address6=2001:db8::1 -o smtp_address_preference=ipv4 -o smtp_helo_name=example.org";
const char* const comService =
    "zorvo-example.com--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= -o "
    "smtp_bind_address6=2001:db8::1 "
    "-o smtp_address_preference=ipv6 -o inet_protocols=ipv6 -o smtp_helo_name=example.com";

/// With postconf and postmap replaced, and master.cf in a directory of the test's own.
class SenderTransportManagerTest : public support::OwnMasterCfAndTableTest {
protected:
    SenderTransportManagerTest() { tools_.probeLock(tableLock); }

    /// Loads master.cf of this text now, so that nothing else happens before what is tested.
    void load(const std::string& text)
    {
        writeMasterCf(text);
        ModuleManager::getInstance().loadModules(false);
        tools_.forget();
    }
};

// --- adding

PROCESS_TEST_F(SenderTransportManagerTest, AddingRunsTheToolsInOrder)
{
    writeMasterCf("# top\n");
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    EXPECT_EQ((CommandLines{askDirectory, askDirectory, addRecord}), tools_.commandLines());
}

// The service is on the disk before the record leads to it.
PROCESS_TEST_F(SenderTransportManagerTest, AddingWritesTheServiceThenTheRecord)
{
    writeMasterCf("# top");
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    const support::ToolCall run = tools_.calls().back();
    EXPECT_EQ("@example.org zorvo-192.0.2.1-:\n", run.input);
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", run.files.at(path_)->content);
    EXPECT_EQ(0644U, run.files.at(path_)->mode);
    EXPECT_EQ(std::nullopt, run.files.at(tableSourcePath));
    EXPECT_TRUE(run.lockHeld.at(tableLock));
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, DomainsOfOneAddressPairShareTheService)
{
    load("# top");
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    IpManager("example.com", "192.0.2.1", "").addDomainToSenderTransport();
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", masterCf());
    ASSERT_EQ((CommandLines{addRecord, addRecord}), tools_.commandLines());
    EXPECT_EQ("@example.org zorvo-192.0.2.1-:\n", tools_.calls()[0].input);
    EXPECT_EQ("@example.com zorvo-192.0.2.1-:\n", tools_.calls()[1].input);
}

PROCESS_TEST_F(SenderTransportManagerTest, EachDomainHasItsOwnServiceWithHeloName)
{
    load("# top");
    DomainManager("example.org", "192.0.2.1", "2001:db8::1").addDomainToSenderTransport();
    DomainManager("example.com", "", "2001:db8::1").addDomainToSenderTransport();
    EXPECT_EQ(std::string("# top\n") + orgService + "\n" + comService + "\n", masterCf());
    ASSERT_EQ((CommandLines{addRecord, addRecord}), tools_.commandLines());
    EXPECT_EQ("@example.org zorvo-example.org-192.0.2.1-2001-db8--1:\n", tools_.calls()[0].input);
    EXPECT_EQ("@example.com zorvo-example.com--2001-db8--1:\n", tools_.calls()[1].input);
}

// Everything else of master.cf stays as it is.
PROCESS_TEST_F(SenderTransportManagerTest, KnownServiceIsReplacedInPlace)
{
    const std::string rest = "smtp  inet\tn - y - - smtpd\n  -o a=b\n\n# end\n";
    load("zorvo-192.0.2.1- unix  -  -  -  -  -  something\n  else\n" + rest);
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    EXPECT_EQ(std::string(ipService) + "\n" + rest, masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, BoundServiceIsNoLongerDisabled)
{
    support::writeFile(support::disabledPath, "zorvo-192.0.2.1- unix - - n - - old\n# end\n");
    load("# top");
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", masterCf());
    EXPECT_EQ("# end\n", support::readFile(support::disabledPath));
}

// The caller lower-cases the domain; it is used as it is then.
PROCESS_TEST_F(SenderTransportManagerTest, DomainMayBeChangedBeforeItIsUsed)
{
    load("# top");
    DomainManager manager("EXAMPLE.org", "192.0.2.1", "2001:db8::1");
    EXPECT_EQ("EXAMPLE.org", manager.domain());
    manager.domain() = "example.org";
    manager.addDomainToSenderTransport();
    EXPECT_EQ(std::string("# top\n") + orgService + "\n", masterCf());
    EXPECT_EQ("@example.org zorvo-example.org-192.0.2.1-2001-db8--1:\n", tools_.calls().back().input);
}

// --- refusals, before anything is looked at

PROCESS_TEST_F(SenderTransportManagerTest, EmptyDomainIsRefusedWithTheCurrentError)
{
    EXPECT_EQ("Empty domain name specified: Permission denied", exactMessageOf<zorvo::SystemError>([] {
                  IpManager manager("", "192.0.2.1", "");
                  errno = EACCES;
                  manager.addDomainToSenderTransport();
              }));
    EXPECT_EQ("Empty domain name specified: Success", exactMessageOf<zorvo::SystemError>([] {
                  DomainManager manager("", "192.0.2.1", "");
                  errno = 0;
                  manager.addDomainToSenderTransport();
              }));
    EXPECT_TRUE(tools_.calls().empty());
}

PROCESS_TEST_F(SenderTransportManagerTest, NoAddressIsRefusedWithTheCurrentError)
{
    EXPECT_EQ("You should specify at least one non-empty ip adress: No such file or directory",
              exactMessageOf<zorvo::SystemError>([] {
                  IpManager manager("example.org", "", "");
                  errno = ENOENT;
                  manager.addDomainToSenderTransport();
              }));
    EXPECT_EQ("You should specify at least one non-empty ip adress: Success",
              exactMessageOf<zorvo::SystemError>([] {
                  DomainManager manager("example.org", "", "");
                  errno = 0;
                  manager.addDomainToSenderTransport();
              }));
    EXPECT_TRUE(tools_.calls().empty());
}

// The domain is looked at first.
PROCESS_TEST_F(SenderTransportManagerTest, EmptyDomainWithoutAddressIsAnEmptyDomain)
{
    EXPECT_EQ("Empty domain name specified: Success", exactMessageOf<zorvo::SystemError>([] {
                  IpManager manager("", "", "");
                  errno = 0;
                  manager.addDomainToSenderTransport();
              }));
}

PROCESS_TEST_F(SenderTransportManagerTest, RefusalLeavesEarlierDomainsInPlace)
{
    load("# top");
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    EXPECT_THROW(IpManager("", "192.0.2.2", "").addDomainToSenderTransport(), zorvo::SystemError);
    EXPECT_THROW(IpManager("example.com", "", "").addDomainToSenderTransport(), zorvo::SystemError);
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", masterCf());
    EXPECT_EQ((CommandLines{addRecord}), tools_.commandLines());
}

// --- failures on the way

PROCESS_TEST_F(SenderTransportManagerTest, UnreadableMasterCfStopsBeforeTheTable)
{
    EXPECT_EQ("unable to open " + path_, exactMessageOf<PostfixConfigurationError>([] {
                  IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
              }));
    EXPECT_EQ((CommandLines{askDirectory, askDirectory}), tools_.commandLines());
}

PROCESS_TEST_F(SenderTransportManagerTest, MasterCfThatCannotBeStoredStopsBeforeTheTable)
{
    load("# top");
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_THROW(IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport(),
                 std::filesystem::filesystem_error);
    EXPECT_TRUE(tools_.calls().empty());
}

PROCESS_TEST_F(SenderTransportManagerTest, FailedRecordLeavesTheService)
{
    load("# top");
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixConfigurationError>([] {
                  IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
              }));
    EXPECT_EQ(std::string("# top\n") + ipService + "\n", masterCf());
}

// --- removing a domain

PROCESS_TEST_F(SenderTransportManagerTest, RemovingADomainRemovesItsRecordOnly)
{
    writeMasterCf("# top\n");
    IpManager("example.org", "192.0.2.1", "").removeDomainFromSenderTransport();
    DomainManager("example.com", "192.0.2.1", "").removeDomainFromSenderTransport();
    EXPECT_EQ((CommandLines{{postmapPath, "-d", "@example.org", tableName},
                            {postmapPath, "-d", "@example.com", tableName}}),
              tools_.commandLines());
    EXPECT_TRUE(tools_.calls().front().lockHeld.at(tableLock));
    EXPECT_EQ("# top\n", masterCf());
}

// Nothing is checked here: neither the domain nor the addresses.
PROCESS_TEST_F(SenderTransportManagerTest, RemovingADomainNeedsNothing)
{
    IpManager("", "", "").removeDomainFromSenderTransport();
    EXPECT_EQ((CommandLines{{postmapPath, "-d", "@", tableName}}), tools_.commandLines());
}

PROCESS_TEST_F(SenderTransportManagerTest, FailedRemovalOfADomainIsPassedOn)
{
    tools_.answer(postmapPath, ToolAnswer::fails(1, "postmap: fatal: x\n"));
    EXPECT_EQ("postmap: fatal: x\n", exactMessageOf<PostfixDatabaseError>([] {
                  IpManager("example.org", "192.0.2.1", "").removeDomainFromSenderTransport();
              }));
}

// --- removing a transport

const char* const manyServices = "# top\n"
                                 "smtp unix - - n - - smtp\n"
                                 "zorvo-192.0.2.1- unix - - n - - smtp\n"
                                 "zorvo-192.0.2.1-2001-db8--1 unix - - n - - smtp\n"
                                 "  -o a=b\n"
                                 "zorvo-192.0.2.10- unix - - n - - smtp\n"
                                 "zorvo--2001-db8--1 unix - - n - - smtp\n"
                                 "zorvo-example.org-192.0.2.1- unix - - n - - smtp\n"
                                 "zorvo-example.org--2001-db8--1 unix - - n - - smtp\n"
                                 "zorvo-example.org.uk-192.0.2.1- unix - - n - - smtp\n"
                                 "zorvo-192.0.2.1-x inet n - n - - smtpd\n"
                                 "# end\n";

PROCESS_TEST_F(SenderTransportManagerTest, IPv4TransportsAreRemovedByTheirBeginning)
{
    load(manyServices);
    IpManager("", "192.0.2.1", "2001:db8::ffff").removeSenderTransport();
    EXPECT_EQ("# top\n"
              "smtp unix - - n - - smtp\n"
              "zorvo-192.0.2.10- unix - - n - - smtp\n"
              "zorvo--2001-db8--1 unix - - n - - smtp\n"
              "zorvo-example.org-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-example.org--2001-db8--1 unix - - n - - smtp\n"
              "zorvo-example.org.uk-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-192.0.2.1-x inet n - n - - smtpd\n"
              "# end\n",
              masterCf());
    EXPECT_TRUE(tools_.calls().empty());
}

PROCESS_TEST_F(SenderTransportManagerTest, IPv6TransportsAreRemovedByTheirEnd)
{
    load(manyServices);
    IpManager("example.org", "", "2001:db8::1").removeSenderTransport();
    EXPECT_EQ("# top\n"
              "smtp unix - - n - - smtp\n"
              "zorvo-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-192.0.2.10- unix - - n - - smtp\n"
              "zorvo-example.org-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-example.org.uk-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-192.0.2.1-x inet n - n - - smtpd\n"
              "# end\n",
              masterCf());
}

// Only the beginning is compared here, too, so the service of a longer domain is removed as well.
PROCESS_TEST_F(SenderTransportManagerTest, DomainTransportsAreRemovedByTheirBeginning)
{
    load(manyServices);
    DomainManager("example.org", "", "").removeSenderTransport();
    EXPECT_EQ("# top\n"
              "smtp unix - - n - - smtp\n"
              "zorvo-192.0.2.1- unix - - n - - smtp\n"
              "zorvo-192.0.2.1-2001-db8--1 unix - - n - - smtp\n"
              "  -o a=b\n"
              "zorvo-192.0.2.10- unix - - n - - smtp\n"
              "zorvo--2001-db8--1 unix - - n - - smtp\n"
              "zorvo-192.0.2.1-x inet n - n - - smtpd\n"
              "# end\n",
              masterCf());
    EXPECT_TRUE(tools_.calls().empty());
}

PROCESS_TEST_F(SenderTransportManagerTest, ColonsOfTheDomainAreDashesInTheNameLookedFor)
{
    load("zorvo-a-b-1- unix - - n - - smtp\nzorvo-a:b-2- unix - - n - - smtp\n");
    DomainManager("a:b", "", "").removeSenderTransport();
    EXPECT_EQ("zorvo-a:b-2- unix - - n - - smtp\n", masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, RemovalLoadsMasterCfItself)
{
    writeMasterCf("zorvo-192.0.2.1- unix - - n - - smtp\n# end\n");
    IpManager("", "192.0.2.1", "").removeSenderTransport();
    EXPECT_EQ("# end\n", masterCf());
    EXPECT_EQ((CommandLines{askDirectory, askDirectory}), tools_.commandLines());
}

// Edits that were pending are stored, also when nothing matched.
PROCESS_TEST_F(SenderTransportManagerTest, RemovalStoresEvenWithoutAMatch)
{
    load("# top");
    ModuleInfo info;
    info.name = "pending";
    info.command = {"x"};
    ModuleManager::getInstance().addModule(info, true);
    IpManager("", "192.0.2.1", "").removeSenderTransport();
    EXPECT_EQ("# top\npending inet - - n - - x\n", masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, TransportWithoutAddressCannotBeRemoved)
{
    load(manyServices);
    EXPECT_EQ("failed to check transport match if domain name not specified: Permission denied",
              exactMessageOf<zorvo::SystemError>([] {
                  IpManager manager("example.org", "", "");
                  errno = EACCES;
                  manager.removeSenderTransport();
              }));
    EXPECT_EQ(manyServices, masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, TransportWithoutDomainCannotBeRemoved)
{
    load(manyServices);
    EXPECT_EQ("Failed to check transport match if domain name not specified: Permission denied",
              exactMessageOf<zorvo::SystemError>([] {
                  DomainManager manager("", "192.0.2.1", "");
                  errno = EACCES;
                  manager.removeSenderTransport();
              }));
    EXPECT_EQ(manyServices, masterCf());
}

// Without a service there is nothing to decide.
PROCESS_TEST_F(SenderTransportManagerTest, WithoutServicesNeitherAddressNorDomainIsNeeded)
{
    load("# top\n");
    IpManager("", "", "").removeSenderTransport();
    DomainManager("", "", "").removeSenderTransport();
    EXPECT_EQ("# top\n", masterCf());
}

PROCESS_TEST_F(SenderTransportManagerTest, OperationsWorkThroughTheInterface)
{
    load("# top");
    const std::unique_ptr<BaseSenderTransportManager> manager(new IpManager("example.org", "192.0.2.1", ""));
    manager->addDomainToSenderTransport();
    manager->removeDomainFromSenderTransport();
    manager->removeSenderTransport();
    EXPECT_EQ((CommandLines{addRecord, {postmapPath, "-d", "@example.org", tableName}}),
              tools_.commandLines());
    EXPECT_EQ("# top\n", masterCf());
}

// --- with the real tools

class SenderTransportManagerPostfixTest : public support::FreshProcessTest {
protected:
    SenderTransportManagerPostfixTest()
    {
        support::ageMainCf();
        // An empty table, as the cleanup of every run leaves it.
        support::outputOf(support::postmapPath + std::string(" -r -i ") + tableName + " </dev/null");
    }

    static std::string records()
    {
        return support::outputOf(support::postmapPath + std::string(" -s ") + tableName + " | sort");
    }

    /// The generated services as postconf(1) reads them, one blank between words.
    static std::string services()
    {
        return support::outputOf(support::postconfPath +
                                 std::string(" -M | grep '^zorvo-' | tr -s ' ' ; true"));
    }
};

PROCESS_TEST_F(SenderTransportManagerPostfixTest, AddressTransportIsSharedAndRemoved)
{
    const std::string before = support::readFile(support::masterCfPath);
    IpManager("example.org", "192.0.2.1", "").addDomainToSenderTransport();
    IpManager("example.com", "192.0.2.1", "").addDomainToSenderTransport();
    IpManager("example.net", "", "2001:db8::1").addDomainToSenderTransport();
    EXPECT_EQ("@example.com\tzorvo-192.0.2.1-:\n@example.net\tzorvo--2001-db8--1:\n@example.org\tzorvo-192.0."
              "2.1-:\n",
              records());
    EXPECT_EQ(std::string(ipService) + "\nzorvo--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= -o "
                                       "smtp_bind_address6=2001:db8::1 "
                                       "-o smtp_address_preference=ipv6 -o inet_protocols=ipv6\n",
              services());
    support::checkPostfix();

    IpManager("example.org", "192.0.2.1", "").removeDomainFromSenderTransport();
    IpManager("example.org", "192.0.2.1", "").removeDomainFromSenderTransport(); // once more: no error
    EXPECT_EQ("@example.com\tzorvo-192.0.2.1-:\n@example.net\tzorvo--2001-db8--1:\n", records());

    IpManager("", "192.0.2.1", "").removeSenderTransport();
    IpManager("", "", "2001:db8::1").removeSenderTransport();
    EXPECT_EQ("", services());
    EXPECT_EQ(before, support::readFile(support::masterCfPath));
}

PROCESS_TEST_F(SenderTransportManagerPostfixTest, DomainTransportsAreAddedAndRemoved)
{
    DomainManager("example.org", "192.0.2.1", "2001:db8::1").addDomainToSenderTransport();
    DomainManager("example.com", "", "2001:db8::1").addDomainToSenderTransport();
    EXPECT_EQ("@example.com\tzorvo-example.com--2001-db8--1:\n"
              "@example.org\tzorvo-example.org-192.0.2.1-2001-db8--1:\n",
              records());
    EXPECT_EQ(std::string(orgService) + "\n" + comService + "\n", services());
    support::checkPostfix();

    DomainManager("example.org", "", "").removeSenderTransport();
    DomainManager("example.org", "", "").removeDomainFromSenderTransport();
    EXPECT_EQ("@example.com\tzorvo-example.com--2001-db8--1:\n", records());
    EXPECT_EQ(std::string(comService) + "\n", services());
}

} // namespace
