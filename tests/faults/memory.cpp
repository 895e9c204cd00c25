// The program under valgrind's memcheck: no wrong access, nothing lost, no descriptor left open.
#include "Scenario.h"
#include "Sweep.h"

#include <filesystem>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace faults {

namespace {

const char* const logDirectory = "/run/sandbox/valgrind";
constexpr int errorStatus = 99;

size_t countOf(std::string_view phrase, std::string_view text)
{
    size_t count = 0;
    for (size_t at = text.find(phrase); at != text.npos; at = text.find(phrase, at + 1))
        ++count;
    return count;
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
        // Up to version 3.23 valgrind counts the descriptor of this very report as a fourth.
        const bool withReport = holds("FILE DESCRIPTORS: 4 open (3 std) at exit.") &&
                                holds((": " + (logDirectory + ('/' + log)) + "\n").c_str());
        if (log == std::to_string(pid))
            problems.require(withReport || holds("FILE DESCRIPTORS: 3 open (3 std) at exit."), text);
        else if (!holds("ERROR SUMMARY"))
            continue;
        // From version 3.24 on each descriptor that is left open counts as an error.
        const std::string inherited = std::to_string(countOf("Open file descriptor ", text));
        problems.require(
            holds("ERROR SUMMARY: 0 errors") ||
                (log != std::to_string(pid) && holds(("ERROR SUMMARY: " + inherited + " errors").c_str())),
            text);
    }
}

void check(Report& report, const Scenario& scenario)
{
    fs::remove_all(logDirectory);
    fs::create_directories(logDirectory);
    scenario.begin();
    Launch launch = scenario.launch();
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
    problems.requireEqual("standard output", scenario.out, outcome.out);
    problems.requireEqual("standard error", scenario.err, outcome.err);
    requireCleanReports(problems, outcome.pid);
    report.add("memcheck", scenario.name, problems);
}

} // namespace

void testMemory(Report& report, bool longForm)
{
    for (const Scenario& scenario : scenarios())
        if ((longForm || scenario.inShortForm) && report.takes())
            check(report, scenario);
    restoreMachine();
}

} // namespace faults
