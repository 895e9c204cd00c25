// Several programs with different requests at the same time: they come one after the other, so that at every
// moment master.cf holds the services of one request alone, and at the end exactly what one of them asked for
// is left.
#include "Sweep.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace faults {

namespace {

constexpr int programs = 8;

Request requestOf(int program)
{
    Request request{program % 2 == 0 ? "domain-name" : "domain-ip", {}};
    for (int i = 0; i <= program % 4 + 1; ++i) {
        const std::string number = std::to_string(program) + '-' + std::to_string(i);
        request.bindings.push_back({"domain-" + number + ".example",
                                    "192.0.2." + std::to_string(10 * program + i),
                                    i % 2 == 0 ? "2001:db8::" + std::to_string(program) : std::string()});
    }
    return request;
}

/// What master.cf may hold after the foreign services and empty lines: nothing, the services of before
/// all runs, or the first ones of one request.
std::set<std::string> possibleServices()
{
    std::set<std::string> possible = {"", firstMasterCf.substr(foreignServices.size())};
    for (int program = 0; program < programs; ++program) {
        const Request request = requestOf(program);
        for (size_t number = 1; number <= request.bindings.size(); ++number)
            possible.insert(request.masterCf(number, 0).substr(foreignServices.size()));
    }
    return possible;
}

void requireOneRequest(Problems& problems, const std::string& text)
{
    static const std::set<std::string> possible = possibleServices();
    const bool isWhole = text.compare(0, foreignServices.size(), foreignServices) == 0;
    const size_t services = std::min(text.find_first_not_of('\n', foreignServices.size()), text.size());
    problems.require(isWhole && possible.count(text.substr(services)) == 1,
                     "master.cf of no request: " + text);
}

/// The state is that after exactly one of the requests, each run having added its empty line.
void requireLeftByOne(Problems& problems)
{
    const Snapshot left = snapshot();
    int found = 0;
    for (int program = 0; program < programs; ++program)
        found += left == snapshotAfter(requestOf(program), programs) ? 1 : 0;
    problems.require(found == 1, "the state that " + std::to_string(found) + " of the requests ask for");
}

/// Runs the program in a process of its own, which exits with 0 when all is well.
pid_t startProgram(int program)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const Request request = requestOf(program);
    Launch launch;
    launch.arguments = request.arguments();
    launch.input = request.input();
    launch.timeout = 120;
    const Outcome outcome = run(launch);
    int status = 0;
    if (outcome.hung)
        status = 3;
    else if (outcome.status != 0 || !outcome.err.empty() || !outcome.out.empty())
        status = 4;
    if (status != 0)
        fprintf(stderr, "program %d: wait status %d, %s\n", program, outcome.status, outcome.err.c_str());
    _exit(status);
}

void round(Report& report, const std::string& name, int number)
{
    resetWorld();
    Problems problems;
    std::set<pid_t> running;
    for (int program = 0; program < programs; ++program)
        running.insert(startProgram(program));
    unsigned looks = 0;
    std::string last;
    while (!running.empty()) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended > 0) {
            problems.require(running.erase(ended) == 1, "a child outlived its program");
            problems.require(status == 0, "wait status " + std::to_string(status));
        }
        const std::string now = readFile(masterCfPath);
        if (now != last)
            requireOneRequest(problems, now);
        last = now;
        ++looks;
        usleep(100);
    }
    requireLeftByOne(problems);
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    requireNextRun(problems);
    report.count(name, "looks at master.cf", looks);
    report.add(name, "round " + std::to_string(number), problems);
}

} // namespace

void testSeveralAtOnce(Report& report, bool longForm)
{
    for (int number = 1; number <= (longForm ? 200 : 20); ++number)
        if (report.takes())
            round(report, "rounds of 8 programs at once", number);
}

} // namespace faults
