// The command line: help, the three valued options, and what the option library refuses.
#include "Fixture.h"
#include "support/HelpText.h"

#include <sys/wait.h>

namespace contract {

namespace {

const End helpPrinted = {W_EXITCODE(1, 0), "", helpText};

End refused(const std::string& type, const std::string& text)
{
    return failure("boost::wrapexcept<boost::" + type + ">(" + text + ')');
}

class CommandLineTest : public ContractTest {
protected:
    // Runs with a good request on standard input; nothing may be changed, and the request not be read.
    static void expectNothingDone(const std::vector<std::string>& arguments, const End& end)
    {
        const World before = world();
        Program program(arguments);
        program.file(request({{"example.com", "192.0.2.1", ""}}));
        const Outcome outcome = program.run();
        EXPECT_EQ(outcome.end, end);
        EXPECT_EQ(outcome.commands(), std::vector<Command>());
        EXPECT_EQ(program.inputPosition(), 0);
        EXPECT_EQ(world(), before);
    }
};

} // namespace

TEST_F(CommandLineTest, HelpGoesToStandardErrorWithStatusOne)
{
    expectNothingDone({"--help"}, helpPrinted);
}

TEST_F(CommandLineTest, ShortHelpIsHelp)
{
    expectNothingDone({"-h"}, helpPrinted);
}

TEST_F(CommandLineTest, HelpWinsOverACompleteRequest)
{
    expectNothingDone({"--transport-type", "domain-ip", "--help"}, helpPrinted);
}

TEST_F(CommandLineTest, HelpWinsOverAddressesThatWouldBeSet)
{
    expectNothingDone({"-h", "-v", "-t", "explicit-ip", "-4", "192.0.2.1", "-6", "2001:db8::1"}, helpPrinted);
}

TEST_F(CommandLineTest, HelpWinsOverMissingAddresses)
{
    expectNothingDone({"-t", "explicit-ip", "--hel"}, helpPrinted);
}

TEST_F(CommandLineTest, MissingTypeIsAFatalError)
{
    expectNothingDone(
        {}, refused("bad_any_cast", "boost::bad_any_cast: failed conversion using boost::any_cast"));
}

TEST_F(CommandLineTest, MissingTypeBesideOtherOptionsIsAFatalError)
{
    expectNothingDone(
        {"-v", "-4", "192.0.2.1", "-6", "2001:db8::1"},
        refused("bad_any_cast", "boost::bad_any_cast: failed conversion using boost::any_cast"));
}

TEST_F(CommandLineTest, UnknownOptionIsNamed)
{
    expectNothingDone({"-t", "explicit-ip", "-4", "192.0.2.1", "--address"},
                      refused("program_options::unknown_option", "unrecognised option '--address'"));
}

TEST_F(CommandLineTest, UnknownShortOptionIsNamed)
{
    expectNothingDone({"-t", "domain-ip", "-5"},
                      refused("program_options::unknown_option", "unrecognised option '-5'"));
}

TEST_F(CommandLineTest, UnknownOptionBesideHelpIsStillRefused)
{
    expectNothingDone({"--help", "--address"},
                      refused("program_options::unknown_option", "unrecognised option '--address'"));
}

TEST_F(CommandLineTest, OptionNamesAreCaseSensitive)
{
    expectNothingDone({"--Help"}, refused("program_options::unknown_option", "unrecognised option '--Help'"));
}

TEST_F(CommandLineTest, AmbiguousAbbreviationNamesBothOptions)
{
    expectNothingDone({"-t", "explicit-ip", "--ip", "192.0.2.1"},
                      refused("program_options::ambiguous_option",
                              "option '--ip' is ambiguous and matches '--ip4-addr', and '--ip6-addr'"));
}

TEST_F(CommandLineTest, MissingValueIsNamed)
{
    expectNothingDone({"--transport-type"},
                      refused("program_options::invalid_command_line_syntax",
                              "the required argument for option '--transport-type' is missing"));
}

TEST_F(CommandLineTest, EmptyValueAfterTheEqualSignIsRefused)
{
    expectNothingDone(
        {"-t", "explicit-ip", "--ip4-addr="},
        refused("program_options::invalid_command_line_syntax",
                "the argument for option '--ip4-addr' should follow immediately after the equal "
                "sign"));
}

TEST_F(CommandLineTest, RepeatedOptionIsRefused)
{
    expectNothingDone({"-t", "explicit-ip", "-t", "domain-ip"},
                      refused("program_options::multiple_occurrences",
                              "option '--transport-type' cannot be specified more than once"));
}

TEST_F(CommandLineTest, FlagWithAValueIsRefused)
{
    expectNothingDone({"-t", "domain-ip", "--verbose=1"},
                      refused("program_options::invalid_command_line_syntax",
                              "option '--verbose' does not take any arguments"));
}

TEST_F(CommandLineTest, ExplicitIpWithoutAddressesIsAFatalError)
{
    expectNothingDone({"-t", "explicit-ip"}, failure("std::runtime_error(either ipv4 and ip6 empty)"));
}

TEST_F(CommandLineTest, ExplicitIpWithTwoEmptyAddressesIsAFatalError)
{
    expectNothingDone({"-t", "explicit-ip", "--ip4-addr", "", "--ip6-addr", ""},
                      failure("std::runtime_error(either ipv4 and ip6 empty)"));
}

TEST_F(CommandLineTest, ExplicitIpWithOneEmptyAddressIsAFatalError)
{
    expectNothingDone({"-t", "explicit-ip", "-6", ""},
                      failure("std::runtime_error(either ipv4 and ip6 empty)"));
}

TEST_F(CommandLineTest, AbbreviatedOptionsAreCompleted)
{
    const Outcome outcome =
        Program({"--trans", "explicit-ip", "--ip4", "192.0.2.1", "--ip6=2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"),
                                             setParameter("smtp_bind_address6=2001:db8::1"), restart}));
}

TEST_F(CommandLineTest, ShortOptionsTakeTheirValueAttachedOrApart)
{
    const Outcome outcome = Program({"-vtexplicit-ip", "-4192.0.2.1", "-6", "2001:db8::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"),
                                             setParameter("smtp_bind_address6=2001:db8::1"), restart}));
}

TEST_F(CommandLineTest, PositionalArgumentsAreIgnored)
{
    const Outcome outcome =
        Program({"first", "-t", "explicit-ip", "-4", "192.0.2.1", "-", "--", "-6", "::1"}).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({setParameter("smtp_bind_address=192.0.2.1"), restart}));
}

TEST_F(CommandLineTest, VerboseChangesNothing)
{
    const std::string domains = request({{"example.com", "192.0.2.1", "2001:db8::1"}});
    const Outcome plain = Program({"-t", "domain-name"}).pipe(domains).run();
    const std::string plainFile = masterCf();
    writeMasterCf(plainServices);
    const Outcome verbose = Program({"-t", "domain-name", "--verbose"}).pipe(domains).run();
    EXPECT_EQ(verbose.end, success());
    EXPECT_EQ(verbose.commands(), plain.commands());
    EXPECT_EQ(verbose.records(), plain.records());
    EXPECT_EQ(masterCf(), plainFile);
}

} // namespace contract
