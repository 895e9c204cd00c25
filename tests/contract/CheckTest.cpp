// The whole of zorvo-smtp-check with prepared answers of Postfix's tools: what it runs and prints, and that
// it changes nothing.
#include "Fixture.h"

#include <chrono>
#include <filesystem>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace contract {

namespace {

const Command askParameters = {postconfPath,
                               "-x",
                               "config_directory",
                               "inet_interfaces",
                               "inet_protocols",
                               "sender_dependent_default_transport_maps",
                               "smtp_bind_address",
                               "smtp_bind_address6",
                               "smtp_bind_address_enforce",
                               "smtp_helo_name"};
const Command listTable = {postmapPath, "-s", tableName};
const Command listServices = {postconfPath, "-M"};
const Command listServiceParameters = {postconfPath, "-P"};
const char earlierTable[] = "hash:/etc/postfix/earlier";
const Command askEarlierTable = {postmapPath, "-q", "-", earlierTable};

/// All tool runs of a check. The readers of main.cf and of master.cf both ask for the directory.
const std::vector<Command> allTools = {askParameters, listTable,    askDirectory,
                                       askDirectory,  listServices, listServiceParameters};

/// What postconf answers, with the tables in main.cf.
std::string parametersWith(const std::string& tables)
{
    return "config_directory = /etc/postfix\n"
           "inet_interfaces = loopback-only\n"
           "inet_protocols = all\n"
           "sender_dependent_default_transport_maps = " +
           tables +
           "\n"
           "smtp_bind_address =\n"
           "smtp_bind_address6 =\n"
           "smtp_bind_address_enforce = yes\n"
           "smtp_helo_name = mail.example\n";
}

std::string serviceName(const Binding& binding)
{
    return "zorvo-" + binding.ip4 + "-";
}

class CheckTest : public ContractTest {
protected:
    void SetUp() override
    {
        ContractTest::SetUp();
        answer(Answer(askParameters).prints(parametersWith(tableName)));
    }

    /// The answers and files of a host with these domains, each of which has an IPv4 address alone.
    static void bind(const std::vector<Binding>& domains)
    {
        std::string records;
        std::string services = plainServices;
        std::string views;
        std::string parameters;
        for (const Binding& domain : domains) {
            const std::string name = serviceName(domain);
            const std::string command = "smtp -o smtp_bind_address=" + domain.ip4 +
                                        " -o smtp_bind_address6= -o smtp_address_preference=ipv4"
                                        " -o inet_protocols=ipv4\n";
            records += '@' + domain.domain + '\t' + name + ":\n";
            services += name + " unix - - n - - " + command;
            views += name + " unix -  -       n       -       -       " + command;
            parameters += name + "/unix/inet_protocols = ipv4\n" + name +
                          "/unix/smtp_address_preference = ipv4\n" + name +
                          "/unix/smtp_bind_address = " + domain.ip4 + '\n' + name +
                          "/unix/smtp_bind_address6 =\n";
        }
        answer(Answer(listTable).prints(records));
        answer(Answer(listServices).prints(views));
        answer(Answer(listServiceParameters).prints(parameters));
        writeOldMasterCf(services);
    }

    /// As from before the start of Postfix.
    static void writeOldMasterCf(const std::string& bytes)
    {
        writeMasterCf(bytes);
        fs::last_write_time(masterCfPath, fs::file_time_type::clock::now() - std::chrono::hours(1));
    }

    static Outcome check(const std::vector<std::string>& arguments, const std::string& input = "")
    {
        return Program(arguments, ZORVO_CHECK_PROGRAM).pipe(input).run();
    }

    static Outcome checkDomainIp(const std::vector<Binding>& domains)
    {
        return check({"-t", "domain-ip"}, request(domains));
    }

    static End report(int status, const std::string& text) { return End{W_EXITCODE(status, 0), text, ""}; }

    static void expectNotChecked(const Outcome& outcome, const std::string& message)
    {
        EXPECT_EQ(outcome.end, (End{W_EXITCODE(2, 0), "", "Fatal error: " + message + '\n'}));
    }

    /// Both programs refuse this with the same message, and run no tool.
    static void expectRefusedAlike(const std::vector<std::string>& arguments, const std::string& input)
    {
        SCOPED_TRACE(testing::PrintToString(arguments) + ' ' + input);
        const Outcome refusal = Program(arguments).pipe(input).run();
        const Outcome outcome = check(arguments, input);
        ASSERT_EQ(refusal.end.waitStatus, W_EXITCODE(1, 0));
        ASSERT_EQ(refusal.end.err.rfind("Fatal error: ", 0), 0U);
        EXPECT_EQ(outcome.end, (End{W_EXITCODE(2, 0), "", refusal.end.err}));
        EXPECT_EQ(outcome.commands(), std::vector<Command>());
    }
};

const Binding oneDomain = {"one.example", "127.0.0.2", ""};
const Binding twoDomain = {"two.example", "127.0.0.3", ""};

const char soundReport[] = "domain       service           IPv4       IPv6  HELO name     verdict\n"
                           "one.example  zorvo-127.0.0.2-  127.0.0.2  -     mail.example  ok\n"
                           "two.example  zorvo-127.0.0.3-  127.0.0.3  -     mail.example  ok\n"
                           "\n"
                           "nothing wrong\n";

const char jsonReport[] = R"({
  "status": 1,
  "routes": [
    {
      "domain": "one.example",
      "service": "zorvo-127.0.0.2-",
      "ip4": "127.0.0.2",
      "ip6": "",
      "helo": "mail.example",
      "findings": [
        "record-differs"
      ]
    }
  ],
  "findings": [
    {
      "identifier": "record-differs",
      "gravity": "problem",
      "domain": "one.example",
      "values": {
        "in the table": "smtp:",
        "asked for": "zorvo-127.0.0.2-:"
      }
    }
  ],
  "kinds": {
    "record-differs": {
      "gravity": "problem",
      "consequence": "The table gives the domain's mail to another service than the one asked for.",
      "remedy": "Run zorvo-smtp-bind with the whole request."
    }
  }
}
)";

} // namespace

TEST_F(CheckTest, SoundHostIsStatusZero)
{
    bind({oneDomain, twoDomain});
    EXPECT_EQ(checkDomainIp({oneDomain, twoDomain}).end, report(0, soundReport));
}

TEST_F(CheckTest, WithoutARequestWhatIsBoundIsReported)
{
    bind({oneDomain, twoDomain});
    const Outcome outcome = check({}, "not read");
    EXPECT_EQ(outcome.end, report(0, soundReport));
    EXPECT_EQ(outcome.commands(), allTools);
}

TEST_F(CheckTest, ProblemIsStatusOne)
{
    bind({oneDomain});
    EXPECT_EQ(checkDomainIp({oneDomain, twoDomain}).end,
              report(1, "domain       service           IPv4       IPv6  HELO name     verdict\n"
                        "one.example  zorvo-127.0.0.2-  127.0.0.2  -     mail.example  ok\n"
                        "two.example  zorvo-127.0.0.3-  127.0.0.3  -     mail.example  record-missing +1\n"
                        "\n"
                        "problem: record-missing\n"
                        "    two.example: service zorvo-127.0.0.3-\n"
                        "  The table does not name the domain, so its mail leaves as if it were not bound.\n"
                        "  Run zorvo-smtp-bind with the whole request.\n"
                        "\n"
                        "problem: service-missing\n"
                        "    two.example: service zorvo-127.0.0.3-\n"
                        "  The service is not in master.cf, and mail that the table gives to it waits in the "
                        "queue (\"mail transport unavailable\").\n"
                        "  Run zorvo-smtp-bind with the whole request.\n"
                        "\n"
                        "2 problems\n"));
}

TEST_F(CheckTest, WarningAloneIsStatusZero)
{
    bind({oneDomain, twoDomain});
    answer(Answer(listTable).prints("@one.example\tzorvo-127.0.0.2-:\n"));
    EXPECT_EQ(check({}).end,
              report(0, "domain       service           IPv4       IPv6  HELO name     verdict\n"
                        "one.example  zorvo-127.0.0.2-  127.0.0.2  -     mail.example  ok\n"
                        "\n"
                        "warning: service-left-over\n"
                        "    service zorvo-127.0.0.3-\n"
                        "  No record names the service, and no mail uses it.\n"
                        "  Run zorvo-smtp-bind with the whole request, which removes it.\n"
                        "\n"
                        "1 warning\n"));
}

TEST_F(CheckTest, StoppedPostfixIsAProblem)
{
    bind({oneDomain});
    stopMailServer();
    EXPECT_EQ(checkDomainIp({oneDomain}).end,
              report(1, "domain       service           IPv4       IPv6  HELO name     verdict\n"
                        "one.example  zorvo-127.0.0.2-  127.0.0.2  -     mail.example  postfix-not-running\n"
                        "\n"
                        "severe: postfix-not-running\n"
                        "  No mail leaves.\n"
                        "  Start Postfix; if it does not come up, its log tells why.\n"
                        "\n"
                        "1 severe\n"));
}

TEST_F(CheckTest, JsonDocumentHasRoutesFindingsAndKinds)
{
    bind({oneDomain});
    answer(Answer(listTable).prints("@one.example\tsmtp:\n"));
    EXPECT_EQ(check({"-t", "domain-ip", "--json"}, request({oneDomain})).end, report(1, jsonReport));
}

TEST_F(CheckTest, ToolsRunNoMoreOftenForManyDomains)
{
    std::vector<Binding> domains;
    std::string keys;
    for (int i = 0; i < 100; ++i) {
        const std::string ip4 = "127.0." + std::to_string(i) + ".1";
        domains.push_back({"domain" + std::to_string(i) + ".example", ip4, ""});
        keys += '@' + domains.back().domain + '\n';
    }
    bind(domains);
    answer(Answer(askParameters).prints(parametersWith(std::string(earlierTable) + ", " + tableName)));
    // Exits with 1 where no key is found.
    answer(Answer(askEarlierTable).exits(1));
    const Outcome outcome = checkDomainIp(domains);
    EXPECT_EQ(outcome.end.waitStatus, 0) << outcome.end;
    std::vector<Command> commands = allTools;
    commands.push_back(askEarlierTable);
    EXPECT_EQ(outcome.commands(), commands);
    EXPECT_EQ(outcome.call(askEarlierTable).input, keys);
    EXPECT_EQ(outcome.leftProcesses, 0);
}

TEST_F(CheckTest, NothingIsChangedAndNoLockTaken)
{
    bind({oneDomain});
    writeWhole(disabledPath, "");
    const World before = world();
    const Outcome outcome = checkDomainIp({oneDomain, twoDomain});
    EXPECT_EQ(outcome.end.waitStatus, W_EXITCODE(1, 0));
    EXPECT_EQ(outcome.commands(), allTools);
    EXPECT_EQ(world(), before);
    EXPECT_EQ(listing(lockDirectory), std::vector<std::string>());
    for (const Call& call : outcome.calls) {
        SCOPED_TRACE(testing::PrintToString(call.command));
        EXPECT_EQ(call.heldLocks, std::vector<std::string>());
        EXPECT_EQ(call.furtherDescriptors, std::vector<std::string>());
    }
}

TEST_F(CheckTest, LocksOfARunAreNotWaitedFor)
{
    bind({oneDomain, twoDomain});
    const HeldLock run(lockFileOf(spoolDirectory));
    const HeldLock mainCf(lockFileOf(mainCfPath));
    const HeldLock table(lockFileOf(tableSourcePath));
    const HeldLock services(lockFileOf(masterCfPath));
    EXPECT_EQ(checkDomainIp({oneDomain, twoDomain}).end, report(0, soundReport));
}

TEST_F(CheckTest, RequestAloneRunsNoTool)
{
    const Outcome outcome = check({"-t", "domain-ip", "--request-only"}, request({oneDomain}));
    EXPECT_EQ(outcome.end, report(0, "domain       service           IPv4       IPv6  HELO name  verdict\n"
                                     "one.example  zorvo-127.0.0.2-  127.0.0.2  -     -          ok\n"
                                     "\n"
                                     "nothing wrong\n"));
    EXPECT_EQ(outcome.commands(), std::vector<Command>());
}

TEST_F(CheckTest, RequestIsRefusedInTheWordsOfZorvoSmtpBind)
{
    const std::string document = request({oneDomain});
    for (const char* const type : {"domain-ip", "domain-name"}) {
        expectRefusedAlike({"-t", type}, "");
        expectRefusedAlike({"-t", type}, "[]");
        expectRefusedAlike({"-t", type}, R"({"domains": [{"domain": "one.example"}]})");
        expectRefusedAlike({"-t", type}, document.substr(0, document.size() / 2));
        expectRefusedAlike({"-t", type}, request({{"one.ex\u00e4mple", "127.0.0.2", ""}}));
    }
    expectRefusedAlike({"-t", "explicit-ip"}, "");
}

TEST_F(CheckTest, FailureOfPostconfIsStatusTwo)
{
    for (const Command& command : {askParameters, listServices, listServiceParameters}) {
        SCOPED_TRACE(testing::PrintToString(command));
        answer(Answer(command).complains("postconf: fatal: it\033[2J\n").exits(1).onRun(1));
        expectNotChecked(check({}),
                         "zorvo::mail::postfix::PostfixConfigurationError(postconf: fatal: it\\x1b[2J\n)");
    }
}

TEST_F(CheckTest, TableThatCannotBeReadIsStatusTwo)
{
    writeWhole(std::string(tableSourcePath) + ".db", "");
    answer(Answer(listTable).complains("postmap: fatal: it is torn\n").exits(1));
    const Outcome outcome = check({});
    expectNotChecked(outcome,
                     "zorvo::mail::postfix::PostfixConfigurationError(postmap: fatal: it is torn\n)");
    EXPECT_EQ(outcome.commands(), (std::vector<Command>{askParameters, listTable}));
}

TEST_F(CheckTest, MissingMasterCfIsStatusTwo)
{
    fs::remove(masterCfPath);
    expectNotChecked(check({}), "zorvo::mail::postfix::PostfixConfigurationError(unable to open "
                                "/etc/postfix/master.cf)");
}

TEST_F(CheckTest, WarningsOfToolsAreNotFailures)
{
    bind({oneDomain, twoDomain});
    answer(Answer(askParameters)
               .prints(parametersWith(tableName))
               .complains("postconf: warning: /etc/postfix/main.cf: unused parameter: x=y\n"));
    EXPECT_EQ(checkDomainIp({oneDomain, twoDomain}).end, report(0, soundReport));
}

TEST_F(CheckTest, ControlBytesOfTheTableAreShownEscaped)
{
    writeOldMasterCf(plainServices);
    answer(Answer(listTable).prints("@one\033]0;x\007\tzorvo-\r:\n"));
    EXPECT_EQ(check({}).end,
              report(1, "domain           service   IPv4  IPv6  HELO name     verdict\n"
                        "one\\x1b]0;x\\x07  zorvo-\\r  -     -     mail.example  service-missing\n"
                        "\n"
                        "problem: service-missing\n"
                        "    one\\x1b]0;x\\x07: service zorvo-\\r\n"
                        "  The service is not in master.cf, and mail that the table gives to it waits in the "
                        "queue (\"mail transport unavailable\").\n"
                        "  Run zorvo-smtp-bind with the whole request.\n"
                        "\n"
                        "1 problem\n"));
}

} // namespace contract
