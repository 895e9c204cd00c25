// The file of disabled services beside master.cf.
#include "Fixture.h"

#include <sys/stat.h>

namespace contract {

namespace {

class DisabledServicesTest : public ContractTest {};

const char generated[] = "zorvo-192.0.2.1- unix - - n - - smtp -v\n";

} // namespace

TEST_F(DisabledServicesTest, AbsentFileIsNotMade)
{
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(listing(spoolDirectory), std::vector<std::string>());
}

TEST_F(DisabledServicesTest, EmptyFileIsIgnoredAndStaysAsItIs)
{
    writeWhole(disabledPath, "");
    const World before = world();
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(world().at(disabledPath), before.at(disabledPath));
}

TEST_F(DisabledServicesTest, FileWithOtherServicesStaysAsItIs)
{
    writeWhole(disabledPath, "old unix - - n - - smtp\n\n\n");
    const World before = world();
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(world().at(disabledPath), before.at(disabledPath));
}

TEST_F(DisabledServicesTest, GeneratedServiceThatIsOnlyDisabledIsNotRemoved)
{
    writeWhole(disabledPath, generated);
    const World before = world();
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(world().at(disabledPath), before.at(disabledPath));
}

TEST_F(DisabledServicesTest, ServiceRemovedFromMasterCfIsRemovedFromTheDisabledOnesToo)
{
    writeMasterCf("smtp inet n - y - - smtpd\nzorvo-192.0.2.1- unix - - n - - smtp\n");
    writeWhole(disabledPath, "# off\n" + std::string(generated) + "old unix - - n - - smtp\n\n\n");
    chmod(disabledPath, 0600);
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
    EXPECT_EQ(stateOf(disabledPath), (FileState{0644, "# off\nold unix - - n - - smtp\n"}));
}

TEST_F(DisabledServicesTest, ServiceOfAnotherTypeInMasterCfKeepsTheDisabledOneOfItsName)
{
    writeMasterCf("zorvo-192.0.2.1- inet n - n - - smtpd\n");
    writeWhole(disabledPath, generated);
    const World before = world();
    const Outcome outcome = runExplicitIp();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(world().at(disabledPath), before.at(disabledPath));
}

TEST_F(DisabledServicesTest, ServiceThatIsBoundIsNoLongerDisabled)
{
    writeWhole(disabledPath, "old unix - - n - - smtp\n" + std::string(generated));
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(stateOf(disabledPath), (FileState{0644, "old unix - - n - - smtp\n"}));
    EXPECT_EQ(outcome.call(addRecord).spoolListing, std::vector<std::string>{"master.cf.disabled"});
}

TEST_F(DisabledServicesTest, LastServiceLeavesABlankLine)
{
    writeWhole(disabledPath, generated);
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(stateOf(disabledPath), (FileState{0644, "\n"}));
}

TEST_F(DisabledServicesTest, StoringLocksTheFilesOwnName)
{
    writeWhole(disabledPath, generated);
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_THAT(listing(lockDirectory),
                testing::UnorderedElementsAre(runLock, mainCfLock, tableLock, masterCfLock, disabledLock));
}

TEST_F(DisabledServicesTest, UnparsableFileStopsTheRunUnderItsName)
{
    writeMasterCf("smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n");
    writeWhole(disabledPath, "old unix - - n - - smtp\nBAD\n");
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end,
              failure("zorvo::mail::postfix::PostfixConfigurationError(unable to parse "
                      "/var/spool/postfix/zorvo/master.cf.disabled: syntax error at position 24 near "
                      "'BAD')"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\nzorvo-192.0.2.9- unix - - n - - smtp\n");
}

} // namespace contract
