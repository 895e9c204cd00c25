// zorvo-smtp-check as a program: options, both streams, exit status. Postfix is that of the sandbox, which
// has a main.cf that names the table, no table, and does not run.
#include "support/Child.h"
#include "unit/check/NameServer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

/// Makes `text` the standard input of this process.
void feed(const std::string& text)
{
    int ends[2];
    if (::pipe(ends) != 0 ||
        ::write(ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::dup2(ends[0], STDIN_FILENO) == -1)
        throw std::runtime_error("cannot feed standard input");
    ::close(ends[0]);
    ::close(ends[1]);
}

support::ChildResult check(std::vector<std::string> arguments, const std::string& input = "")
{
    return support::runInChild([&] {
        feed(input);
        std::string name = "zorvo-smtp-check";
        std::vector<char*> argv = {name.data()};
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        ::execv(CHECK_PROGRAM, argv.data());
        return 127;
    });
}

const char* const oneDomain =
    R"({"domains": [{"domain": "one.example", "ip4_addr": "127.0.0.2", "ip6_addr": ""}]})";

void expectRefused(const support::ChildResult& result, const std::string& message)
{
    EXPECT_TRUE(result.exitedWith(2)) << result.status;
    EXPECT_EQ(result.err, message);
    EXPECT_EQ(result.out, "");
}

} // namespace

TEST(CheckProgramTest, SoundRequestAloneHasNoFindings)
{
    const auto result = check({"-t", "domain-name", "--request-only"}, oneDomain);
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "domain       service                       IPv4       IPv6  HELO name    verdict\n"
                          "one.example  zorvo-one.example-127.0.0.2-  127.0.0.2  -     one.example  ok\n"
                          "\n"
                          "nothing wrong\n");
}

TEST(CheckProgramTest, FaultyRequestIsOneProblem)
{
    const auto result =
        check({"--transport-type=explicit-ip", "--ip4-addr=0.0.0.0", "--request-only"}, "not read");
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "domain          service  IPv4     IPv6  HELO name  verdict\n"
              "(whole server)  -        0.0.0.0  -     -          address-unspecified\n"
              "\n"
              "problem: address-unspecified\n"
              "    IPv4 0.0.0.0\n"
              "  It stands for no address in particular: mail leaves from the host's default one.\n"
              "  Name one of the host's addresses.\n"
              "\n"
              "1 problem\n");
}

TEST(CheckProgramTest, MissingDnsRecordsAreReportedWithDns)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    const zorvo::check::ResolverFiles files("nameserver 127.0.0.53\n", "");
    const zorvo::check::NameServer server({"local=/example/", "host-record=one.example,192.0.2.3",
                                           "ptr-record=2.2.0.192.in-addr.arpa,elsewhere.example",
                                           "txt-record=one.example,\"v=spf1 \\e[31m -all\""});
    const auto result =
        check({"-t", "domain-name", "--request-only", "--dns"},
              R"({"domains": [{"domain": "one.example", "ip4_addr": "192.0.2.2", "ip6_addr": ""}]})");
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(
        result.out,
        "domain       service                       IPv4       IPv6  HELO name    verdict\n"
        "one.example  zorvo-one.example-192.0.2.2-  192.0.2.2  -     one.example  ptr-not-leading-back +2\n"
        "\n"
        "problem: ptr-not-leading-back\n"
        "    one.example: IPv4 192.0.2.2, names elsewhere.example\n"
        "  Many receivers refuse mail from an address whose name in the DNS does not lead back to it.\n"
        "  Give a name of the PTR record an A or AAAA record with the address, or have the PTR record name "
        "one "
        "that has it.\n"
        "\n"
        "problem: helo-leads-elsewhere\n"
        "    one.example: IPv4 192.0.2.2, HELO name one.example, leads to 192.0.2.3\n"
        "  Receivers see mail from another address than the HELO name leads to, and some refuse it or take "
        "it for "
        "spam.\n"
        "  Give the HELO name an A or AAAA record with the address as well.\n"
        "\n"
        "problem: spf-unusable\n"
        "    one.example: IPv4 192.0.2.2, because of \"Invalid character at start of mechanism near "
        "'\\x1b[31m -all'\"\n"
        "  The domain's SPF record has an error, and some receivers refuse mail because of it.\n"
        "  Correct the domain's SPF record.\n"
        "\n"
        "3 problems\n");
}

// Without a user to change to, the first question must not be asked.
TEST(CheckProgramTest, RootIsGivenUpBeforeTheDnsIsAsked)
{
    if (!support::canMount())
        GTEST_SKIP() << "no mounts here";
    const zorvo::check::ResolverFiles files("nameserver 127.0.0.53\n", "");
    const zorvo::check::NameServer server({"local=/example/"});
    const support::ScratchDir scratch;
    support::writeFile(scratch.file("passwd"), "");
    support::writeFile(scratch.file("nsswitch.conf"), "passwd: files\n");
    const support::ScopedMount passwd(scratch.file("passwd"), "/etc/passwd", nullptr, MS_BIND);
    const support::ScopedMount nsswitch(scratch.file("nsswitch.conf"), "/etc/nsswitch.conf", nullptr,
                                        MS_BIND);
    expectRefused(
        check({"-t", "domain-name", "--request-only", "--dns"}, oneDomain),
        "Fatal error: std::runtime_error(cannot give up privileges: there is no user \"nobody\")\n");
    EXPECT_TRUE(server.queries().empty());
}

TEST(CheckProgramTest, JsonOptionPrintsADocument)
{
    const auto result = check({"-t", "domain-ip", "--request-only", "--json"}, R"({"domains": []})");
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ(result.out,
              "{\n  \"status\": 0,\n  \"routes\": [],\n  \"findings\": [],\n  \"kinds\": {}\n}\n");
}

TEST(CheckProgramTest, HostIsComparedWithTheRequest)
{
    const auto result = check({"-t", "explicit-ip", "-4", "203.0.113.5"});
    EXPECT_TRUE(result.exitedWith(1));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(
        result.out,
        "domain          service  IPv4         IPv6  HELO name        verdict\n"
        "(whole server)  -        203.0.113.5  -     sandbox.example  postfix-not-running +3\n"
        "\n"
        "severe: postfix-not-running\n"
        "  No mail leaves.\n"
        "  Start Postfix; if it does not come up, its log tells why.\n"
        "\n"
        "severe: table-unavailable\n"
        "    table hash:/var/spool/postfix/zorvo/sdd_transport_maps\n"
        "  Postfix defers all mail, of other domains as well, because a lookup in the table fails.\n"
        "  Run zorvo-smtp-bind with the whole request.\n"
        "\n"
        "problem: address-not-on-host\n"
        "    IPv4 203.0.113.5, bind \"Cannot assign requested address\"\n"
        "  Postfix cannot bind to the address, logs a warning and sends from the host's default one.\n"
        "  Add the address to an interface, or bind to one that the host has.\n"
        "\n"
        "problem: bind-address-missing\n"
        "    asked for 203.0.113.5\n"
        "  main.cf does not set the address, so mail in this family leaves from the host's default one.\n"
        "  Run zorvo-smtp-bind with the whole request.\n"
        "\n"
        "warning: enforce-off\n"
        "  If an address is taken off the host, Postfix logs a warning and sends from the default one.\n"
        "  Set \"smtp_bind_address_enforce = yes\" in main.cf if such mail should wait in the queue "
        "instead.\n"
        "\n"
        "2 severe, 2 problems, 1 warning\n");
}

TEST(CheckProgramTest, OutputThatIsNotATerminalGetsNoColour)
{
    ASSERT_EQ(::setenv("TERM", "xterm", 1), 0);
    EXPECT_EQ(check({}).out.find('\033'), std::string::npos);
}

TEST(CheckProgramTest, RequestIsRefusedInTheWordsOfZorvoSmtpBind)
{
    expectRefused(
        check({"-t", "domain-ip", "--request-only"}, "{"),
        "Fatal error: std::runtime_error(can not parse data from stdin : JSON document has ended "
        "prematurely. Check that all strings are properly ended. Error occured at offset 1, character "
        "'\\x00'. )\n");
    expectRefused(check({"-t", "explicit-ip"}),
                  "Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n");
}

TEST(CheckProgramTest, CommandLineIsRefusedWithStatusTwo)
{
    expectRefused(check({"-t", "Domain-ip\033"}),
                  "Fatal error: std::runtime_error(unknown transport type: Domain-ip\\x1b)\n");
    expectRefused(check({"--request-only"}),
                  "Fatal error: std::runtime_error(--request-only needs --transport-type)\n");
    EXPECT_TRUE(check({"--nonsense"}).exitedWith(2));
    EXPECT_TRUE(check({"word"}).exitedWith(2));
}

TEST(CheckProgramTest, HelpIsTheOptionsOnStandardOutput)
{
    const auto result = check({"--help"});
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "Options:\n"
                          "  -t [ --transport-type ] arg Hold the host against a request of this type: \n"
                          "                              explicit-ip, domain-ip or domain-name\n"
                          "  -4 [ --ip4-addr ] arg       IPv4 address, for explicit-ip\n"
                          "  -6 [ --ip6-addr ] arg       IPv6 address, for explicit-ip\n"
                          "  --request-only              Look at the request alone\n"
                          "  --dns                       Look as well whether the DNS lets receivers \n"
                          "                              believe the addresses and names\n"
                          "  --json                      Print a JSON document\n"
                          "  -h [ --help ]               Show this text\n");
}

TEST(CheckProgramTest, ReportThatCannotBeWrittenIsAFailure)
{
    const auto result = support::runInChild([] {
        const int full = ::open("/dev/full", O_WRONLY);
        ::dup2(full, STDOUT_FILENO);
        ::execl(CHECK_PROGRAM, CHECK_PROGRAM, "--help", nullptr);
        return 127;
    });
    expectRefused(result, "Fatal error: std::runtime_error(cannot write to standard output)\n");
}
