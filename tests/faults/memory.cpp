// The program under valgrind's memcheck: no wrong access, nothing lost, no descriptor left open.
#include "Sweep.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace faults {

namespace {

const char* const logDirectory = "/run/sandbox/valgrind";
constexpr int errorStatus = 99;

struct Scenario {
    const char* name;
    std::vector<std::string> arguments;
    std::string input;
    std::function<void()> prepare; ///< Makes the world different, after it was reset.
    int status;
    std::string text; ///< On both streams.
    bool inShortForm;
};

void removeTool(const char* path)
{
    fs::remove(path);
}

std::vector<Scenario> scenarios()
{
    const std::string input = threeDomains.input();
    const std::string fatal = "Fatal error: ";
    const std::string missing = "No such file or directory";
    const std::string configuration = fatal + "zorvo::mail::postfix::PostfixConfigurationError(";
    const auto nothing = [] {};
    return {
        {"domain-name", {"-t", "domain-name"}, input, nothing, 0, "", true},
        {"domain-ip", {"-t", "domain-ip"}, input, nothing, 0, "", false},
        {"explicit-ip",
         {"-t", "explicit-ip", "-4", "192.0.2.1", "-6", "2001:db8::1"},
         "",
         nothing,
         0,
         "",
         true},
        {"an unknown type", {"-t", "none"}, input, nothing, 0, "", false},
        {"a malformed request",
         {"-t", "domain-name"},
         "{\"domains\":[{\"domain\":\"a\"}]}",
         nothing,
         1,
         fatal + "std::runtime_error(can not parse data from stdin : Some required fields are missing from "
                 "the JSON "
                 "object. Check that input JSON document conforms to schema. Error occured at offset 26, "
                 "character "
                 "']'. )\n",
         true},
        {"an empty domain",
         {"-t", "domain-name"},
         support::request({{"", "192.0.2.1", ""}}),
         nothing,
         1,
         fatal + "zorvo::SystemError(Empty domain name specified: Success)\n",
         false},
        {"no addresses",
         {"-t", "explicit-ip"},
         "",
         nothing,
         1,
         fatal + "std::runtime_error(either ipv4 and ip6 empty)\n",
         false},
        {"no postmap",
         {"-t", "domain-name"},
         input,
         [] { removeTool(support::postmapPath); },
         1,
         fatal + "zorvo::SystemError(execv: " + missing + ": " + missing + ")\n",
         true},
        {"no service script",
         {"-t", "domain-name"},
         input,
         [] { removeTool(support::serviceScriptPath); },
         0,
         "",
         false},
        {"no lock directory",
         {"-t", "domain-name"},
         input,
         [] { fs::remove(lockDirectory); },
         1,
         "Unable to open file \"" + support::lockFileOf(mainCfPath) + "\": " + missing +
             ".\nSystem error 2: " + missing + "\n" + fatal + "zorvo::SystemError(lock() failed: " + missing +
             ")\n",
         false},
        {"a failing tool",
         {"-t", "domain-name"},
         input,
         [] { fs::remove(mainCfPath); },
         1,
         configuration + "postconf: fatal: open /etc/postfix/main.cf: " + missing + "\n)\n",
         true},
        {"an unreadable master.cf",
         {"-t", "domain-name"},
         input,
         [] { writeFile(masterCfPath, "smtp inet n\n"); },
         1,
         configuration +
             "unable to parse /etc/postfix/master.cf: syntax error at position 0 near 'smtp inet n')\n",
         false},
        {"an empty master.cf",
         {"-t", "domain-name"},
         input,
         [] { writeFile(masterCfPath, ""); },
         1,
         configuration + "unable to open /etc/postfix/master.cf)\n",
         false},
    };
}

/// Judges the report of the program, and those of children that did not become a tool: these have what they
/// inherited open when they end.
void requireCleanReports(Problems& problems, int pid)
{
    const std::vector<std::string> logs = listing(logDirectory);
    problems.require(!logs.empty(), "no report of valgrind");
    for (const std::string& log : logs) {
        const std::string text = readFile(std::string(logDirectory) + '/' + log);
        const auto holds = [&](const char* phrase) { return text.find(phrase) != std::string::npos; };
        if (log == std::to_string(pid)) // the fourth is valgrind's, for this very report
            problems.require(holds("FILE DESCRIPTORS: 4 open (3 std) at exit.") &&
                                 holds((": " + (logDirectory + ('/' + log)) + "\n").c_str()),
                             text);
        else if (!holds("ERROR SUMMARY"))
            continue;
        problems.require(holds("ERROR SUMMARY: 0 errors"), text);
    }
}

void check(Report& report, const Scenario& scenario)
{
    resetWorld();
    fs::remove_all(logDirectory);
    fs::create_directories(logDirectory);
    scenario.prepare();
    Launch launch;
    launch.arguments = scenario.arguments;
    launch.input = scenario.input;
    launch.timeout = 300;
    launch.wrapper = {"/usr/bin/valgrind",
                      "--leak-check=full",
                      "--show-leak-kinds=definite,indirect,possible",
                      "--errors-for-leak-kinds=definite,indirect,possible",
                      "--track-fds=yes",
                      "--error-exitcode=" + std::to_string(errorStatus),
                      std::string("--log-file=") + logDirectory + "/%p"};
    const Outcome outcome = run(launch);
    Problems problems;
    problems.require(!outcome.hung && outcome.childrenLeft == 0, "the run hangs, or left children");
    problems.require(outcome.status == W_EXITCODE(scenario.status, 0),
                     "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard output", scenario.text, outcome.out);
    problems.requireEqual("standard error", scenario.text, outcome.err);
    requireCleanReports(problems, outcome.pid);
    report.add("memcheck", scenario.name, problems);
}

} // namespace

void testMemory(Report& report, bool longForm)
{
    for (const Scenario& scenario : scenarios())
        if (longForm || scenario.inShortForm) {
            check(report, scenario);
            fs::create_directories(lockDirectory);
            useRealTools(false);
        }
    resetWorld();
}

} // namespace faults
