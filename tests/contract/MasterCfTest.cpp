// master.cf: its bytes and mode after a run, and the message when it cannot be read.
#include "Fixture.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

const char service[] =
    "zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
    "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4\n";

class MasterCfTest : public ContractTest {
protected:
    // What a run that only wipes makes of the file.
    static void expectWiped(const std::string& before, const std::string& after)
    {
        writeMasterCf(before);
        EXPECT_EQ(runExplicitIp().end, success());
        EXPECT_EQ(masterCf(), after);
    }

    // Where there is nothing to remove, the file is not replaced.
    static void expectNotStored(const std::string& bytes)
    {
        writeMasterCf(bytes);
        const World before = world();
        EXPECT_EQ(runExplicitIp().end, success());
        EXPECT_EQ(world().at(masterCfPath), before.at(masterCfPath));
    }

    // What a run with one binding makes of the file.
    static void expectBound(const std::string& before, const std::string& after)
    {
        writeMasterCf(before);
        EXPECT_EQ(runDomainIp({{"one.example", "192.0.2.1", ""}}).end, success());
        EXPECT_EQ(masterCf(), after);
    }
};

} // namespace

// A file that ends with a line feed has an empty last line, after which new services are put.

TEST_F(MasterCfTest, FirstRunAddsABlankLineAndTheService)
{
    expectBound("smtp inet n - y - - smtpd\n", "smtp inet n - y - - smtpd\n\n" + std::string(service));
}

TEST_F(MasterCfTest, EachFurtherRunAddsABlankLineAboveTheService)
{
    writeMasterCf("smtp inet n - y - - smtpd\n");
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    const Outcome second = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(second.end, success());
    EXPECT_EQ(second.call(emptyTable).masterCf.bytes, "smtp inet n - y - - smtpd\n\n" + std::string(service));
    EXPECT_EQ(second.call(addRecord).masterCf.bytes,
              "smtp inet n - y - - smtpd\n\n\n" + std::string(service));
    const Outcome third = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(third.end, success());
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n\n\n\n" + std::string(service));
}

TEST_F(MasterCfTest, WipingRunDropsTheBlankLinesAtTheEnd)
{
    writeMasterCf("smtp inet n - y - - smtpd\n");
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    runExplicitIp();
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
}

TEST_F(MasterCfTest, FileWithoutFinalLineFeedGetsNoBlankLine)
{
    expectBound("smtp inet n - y - - smtpd", "smtp inet n - y - - smtpd\n" + std::string(service));
}

TEST_F(MasterCfTest, ServicesOfOneRunStandWithoutBlankLinesBetween)
{
    writeMasterCf("smtp inet n - y - - smtpd\n");
    runDomainIp({{"one.example", "192.0.2.1", ""}, {"two.example", "", "2001:db8::2"}});
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n\n" + std::string(service) +
                              "zorvo--2001-db8--2 unix - - n - - smtp -o smtp_bind_address= "
                              "-o smtp_bind_address6=2001:db8::2 -o smtp_address_preference=ipv6 "
                              "-o inet_protocols=ipv6\n");
}

TEST_F(MasterCfTest, RunWithOtherBindingsReplacesAllServices)
{
    writeMasterCf("smtp inet n - y - - smtpd");
    runDomainName({{"one.example", "192.0.2.7", ""}, {"two.example", "192.0.2.8", ""}});
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n\n" + std::string(service));
}

// Which services count as generated.

TEST_F(MasterCfTest, UnixServicesWithThePrefixAreRemovedWhoeverWroteThem)
{
    expectWiped(
        "zorvo-x unix - - n - - pipe\n  flags=R user=vmail argv=/bin/true\nsmtp inet n - y - - smtpd\n",
        "smtp inet n - y - - smtpd\n");
}

TEST_F(MasterCfTest, ServicesOfOtherTypesWithThePrefixStay)
{
    expectWiped("zorvo-x inet n - n - - smtpd\nzorvo-x unix - - n - - smtp\nzorvo-x fifo n - n - - smtpd\n"
                "zorvo-x pass - - n - - smtpd\nzorvo-x unix-dgram - - n - 1 postlogd\n",
                "zorvo-x inet n - n - - smtpd\nzorvo-x fifo n - n - - smtpd\nzorvo-x pass - - n - - smtpd\n"
                "zorvo-x unix-dgram - - n - 1 postlogd\n");
}

TEST_F(MasterCfTest, ServicesNamedShorterOrOtherwiseStay)
{
    expectNotStored("zorvo unix - - n - - smtp\nzorvo_x unix - - n - - smtp\nazorvo-x unix - - n - - smtp\n");
}

TEST_F(MasterCfTest, ServiceNamedByThePrefixAloneIsRemoved)
{
    expectWiped("zorvo- unix - - n - - smtp\nsmtp inet n - y - - smtpd\n", "smtp inet n - y - - smtpd\n");
}

TEST_F(MasterCfTest, CommentedServicesStay)
{
    expectNotStored(
        "#zorvo-x unix - - n - - smtp\n # zorvo-y unix - - n - - smtp\nsmtp inet n - y - - smtpd\n");
}

TEST_F(MasterCfTest, CommentAboveARemovedServiceStays)
{
    expectWiped("# above\nzorvo-x unix - - n - - smtp\n# below\n", "# above\n# below\n");
}

TEST_F(MasterCfTest, CommentsAndBlankLinesInsideARemovedServiceGoWithIt)
{
    expectWiped("a inet n - y - - smtpd\nzorvo-x unix - - n # chroot\n\n  # still it\n  - - smtp\n# other\n"
                "\t-o smtp_bind_address=192.0.2.1\nb inet n - y - - smtpd\n",
                "a inet n - y - - smtpd\nb inet n - y - - smtpd\n");
}

// What the file is made of, kept and not kept.

TEST_F(MasterCfTest, WithoutGeneratedServicesAWipingRunDoesNotTouchTheFile)
{
    expectNotStored(plainServices);
}

TEST_F(MasterCfTest, FileThatIsNotStoredKeepsItsTrailingBlankLines)
{
    expectNotStored("smtp inet n - y - - smtpd\n\n\n");
}

TEST_F(MasterCfTest, FileThatIsNotStoredKeepsItsMode)
{
    chmod(masterCfPath, 0600);
    runExplicitIp();
    EXPECT_EQ(stateOf(masterCfPath).mode, 0600u);
}

TEST_F(MasterCfTest, StoredFileHasMode644WhateverItWas)
{
    chmod(masterCfPath, 0600);
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(stateOf(masterCfPath).mode, 0644u);
}

TEST_F(MasterCfTest, StoredFileHasMode644WhateverTheMask)
{
    Program({"-t", "domain-ip"})
        .pipe(request({{"one.example", "192.0.2.1", ""}}))
        .before([] { umask(0077); })
        .run();
    EXPECT_EQ(stateOf(masterCfPath).mode, 0644u);
}

TEST_F(MasterCfTest, EveryOtherByteIsKept)
{
    const std::string others = "# Head\n"
                               "\n"
                               "   \t \n"
                               "smtp      inet  n       -       y       -       -       smtpd \t\n"
                               "  -o\tsyslog_name=postfix/$service_name\n"
                               "\n"
                               "# inside\n"
                               " -o smtpd_x={ a, b }\n"
                               "pickup\tunix n - y 60? 1 pickup\r\n"
                               "#last\n"
                               "n-n unix-dgram n - n 0 0 a\n";
    expectWiped(others + "zorvo-x unix - - n - - smtp\n", others);
}

// The file that Debian's postfix package installs.
TEST_F(MasterCfTest, StockFileIsKeptByteForByte)
{
    const std::string stock = readFile("/usr/share/postfix/master.cf.dist");
    expectWiped(stock + "zorvo-x unix - - n - - smtp\n", stock);
}

TEST_F(MasterCfTest, ServiceIsPutAfterTheStockFile)
{
    const std::string stock = readFile("/usr/share/postfix/master.cf.dist");
    expectBound(stock, stock + '\n' + service);
}

TEST_F(MasterCfTest, LineOfBlanksAtTheEndIsKept)
{
    expectWiped("zorvo-x unix - - n - - smtp\n# c\n \t\n\n", "# c\n \t\n");
}

TEST_F(MasterCfTest, TrailingBlankLinesAreDroppedWhenStored)
{
    expectWiped("smtp inet n - y - - smtpd\nzorvo-x unix - - n - - smtp\n\n\n\n",
                "smtp inet n - y - - smtpd\n");
}

TEST_F(MasterCfTest, FileOfBlankLinesKeepsThemAll)
{
    expectWiped("\n\nzorvo-x unix - - n - - smtp\n", "\n\n\n");
}

TEST_F(MasterCfTest, FileOfOneGeneratedServiceBecomesABlankLine)
{
    expectWiped("zorvo-x unix - - n - - smtp\n", "\n");
}

TEST_F(MasterCfTest, FileOfOneGeneratedServiceWithoutLineFeedBecomesEmpty)
{
    expectWiped("zorvo-x unix - - n - - smtp", "");
}

TEST_F(MasterCfTest, BlankLineAloneGetsTheServiceAfterIt)
{
    expectBound("\n", "\n\n" + std::string(service));
}

TEST_F(MasterCfTest, LaterServiceOfTheSameNameAndTypeTakesTheEarlierOnesPlaceWhenStored)
{
    expectWiped(
        "a unix - - n - - one\nb unix - - n - - two\nzorvo-x unix - - n - - smtp\na unix - - y - - three\n",
        "a unix - - y - - three\nb unix - - n - - two\n");
}

TEST_F(MasterCfTest, GeneratedServiceListedTwiceIsRemovedWhole)
{
    expectWiped("zorvo-x unix - - n - - smtp\na unix - - n - - one\nzorvo-x unix - - n - - smtp -v\n",
                "a unix - - n - - one\n");
}

TEST_F(MasterCfTest, CommandWordsOfEveryKindAreKept)
{
    const std::string words = "a unix - - n - - /usr/bin/A-z0!@$%^&*()-_=+\\|[]{}:;'\"<>.,?*~`\n";
    expectWiped(words + "zorvo-x unix - - n - - smtp\n", words);
}

TEST_F(MasterCfTest, LargestProcessLimitIsRead)
{
    const std::string line = "a unix - - n - 4294967295 one\n";
    expectWiped(line + "zorvo-x unix - - n - - smtp\n", line);
}

TEST_F(MasterCfTest, FileIsReplacedThroughARename)
{
    fs::create_hard_link(masterCfPath, "/etc/postfix/kept");
    runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(readFile("/etc/postfix/kept"), plainServices);
    EXPECT_EQ(masterCf(), plainServices + ("\n" + std::string(service)));
    EXPECT_EQ(listing(configDirectory), (std::vector<std::string>{"kept", "master.cf"}));
}

// A file that cannot be read: by then main.cf and the table have been wiped, nothing else is done.

namespace {

class UnreadableMasterCfTest : public ContractTest {
protected:
    static void expectStopped(const std::string& message)
    {
        const World before = world();
        const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
        EXPECT_EQ(outcome.end, failure("zorvo::mail::postfix::PostfixConfigurationError(" + message + ')'));
        EXPECT_EQ(outcome.commands(), afterWipe({}));
        World after = world();
        for (const std::string& lock : {runLock, mainCfLock, tableLock})
            after.erase(std::string(lockDirectory) + '/' + lock);
        EXPECT_EQ(after, before);
    }

    static void expectUnparsable(const std::string& bytes, size_t position, const std::string& near)
    {
        writeMasterCf(bytes);
        expectStopped("unable to parse /etc/postfix/master.cf: syntax error at position " +
                      std::to_string(position) + " near '" + near + '\'');
    }
};

} // namespace

TEST_F(UnreadableMasterCfTest, MissingFileCannotBeOpened)
{
    unlink(masterCfPath);
    expectStopped("unable to open /etc/postfix/master.cf");
}

TEST_F(UnreadableMasterCfTest, FileOfZeroLengthCannotBeOpened)
{
    writeMasterCf("");
    expectStopped("unable to open /etc/postfix/master.cf");
}

TEST_F(UnreadableMasterCfTest, DirectoryCannotBeOpened)
{
    unlink(masterCfPath);
    mkdir(masterCfPath, 0755);
    expectStopped("unable to open /etc/postfix/master.cf");
}

TEST_F(UnreadableMasterCfTest, DeviceCannotBeOpened)
{
    unlink(masterCfPath);
    ASSERT_EQ(0, symlink("/dev/zero", masterCfPath));
    expectStopped("unable to open /etc/postfix/master.cf");
}

TEST_F(UnreadableMasterCfTest, NamedPipeCannotBeOpened)
{
    unlink(masterCfPath);
    mkfifo(masterCfPath, 0644);
    expectStopped("unable to open /etc/postfix/master.cf");
}

TEST_F(UnreadableMasterCfTest, ServiceNameInCapitalsStopsAtItsLine)
{
    expectUnparsable("SMTP inet n - y - - smtpd\nb inet n - y - - smtpd\n", 0, "SMTP inet n - y - - smtpd");
}

TEST_F(UnreadableMasterCfTest, GeneratedPrefixInCapitalsStopsAtItsLine)
{
    expectUnparsable("smtp inet n - y - - smtpd\nZorvo-x unix - - n - - smtp", 26,
                     "Zorvo-x unix - - n - - smtp");
}

TEST_F(UnreadableMasterCfTest, BadFieldStopsAtTheBeginningOfItsService)
{
    expectUnparsable("# c\nsmtp inet n - x - - smtpd\n", 4, "smtp inet n - x - - smtpd");
}

TEST_F(UnreadableMasterCfTest, BadFieldInAContinuationStopsAtTheBeginningOfItsService)
{
    expectUnparsable("smtp inet n -\n  x - - smtpd\n", 0, "smtp inet n -");
}

TEST_F(UnreadableMasterCfTest, UnknownTypeStopsAtTheBeginningOfItsService)
{
    expectUnparsable("smtp udp n - n - - smtpd\n", 0, "smtp udp n - n - - smtpd");
}

TEST_F(UnreadableMasterCfTest, ServiceWithoutCommandStopsAtItsBeginning)
{
    expectUnparsable("smtp inet n - n - -\n", 0, "smtp inet n - n - -");
}

TEST_F(UnreadableMasterCfTest, QuestionMarkWithoutNumberStopsAtTheBeginningOfItsService)
{
    expectUnparsable("pickup unix n - y ? 1 pickup\n", 0, "pickup unix n - y ? 1 pickup");
}

TEST_F(UnreadableMasterCfTest, NumberBeyond32BitsStopsAtTheBeginningOfItsService)
{
    expectUnparsable("a unix - - n - 4294967296 one\n", 0, "a unix - - n - 4294967296 one");
}

TEST_F(UnreadableMasterCfTest, CommentAfterTheLastWordStopsAtTheComment)
{
    expectUnparsable("smtp inet n - y - - smtpd # note\nb inet n - y - - smtpd\n", 26, "# note");
}

TEST_F(UnreadableMasterCfTest, LetterOfAnotherAlphabetStopsAtIt)
{
    expectUnparsable("smtp inet n - y - - smtpd -o x=\xc3\xa9\n", 31, "\xc3\xa9");
}

TEST_F(UnreadableMasterCfTest, BlankLineStartStopsAfterTheBlanks)
{
    expectUnparsable("# c\n \tsmtp inet n - y - - smtpd\n", 6, "smtp inet n - y - - smtpd");
}

TEST_F(UnreadableMasterCfTest, NulCutsTheMessageThere)
{
    writeMasterCf("a unix - - n - - one\n" + std::string("X\0Y\n", 4));
    const Outcome outcome = runDomainIp({{"one.example", "192.0.2.1", ""}});
    EXPECT_EQ(outcome.end, failure("zorvo::mail::postfix::PostfixConfigurationError(unable to parse "
                                   "/etc/postfix/master.cf: syntax error at position 21 near 'X)"));
    EXPECT_EQ(outcome.commands(), afterWipe({}));
}

TEST_F(UnreadableMasterCfTest, CommentAfterAWordOfAContinuedServiceIsRead)
{
    writeMasterCf("zorvo-x unix - - n - - smtp # note\n  -o a=b\nsmtp inet n - y - - smtpd\n");
    EXPECT_EQ(runExplicitIp().end, success());
    EXPECT_EQ(masterCf(), "smtp inet n - y - - smtpd\n");
}

} // namespace contract
