// Several programs with different requests at the same time.
//
// Each reads master.cf once and stores its own edit of it, so whose services are in it at the end is chance;
// but at every moment it is one whole file with all foreign entries.
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

/// The service lines that may stand in master.cf.
std::set<std::string> possibleLines()
{
    std::set<std::string> lines = {firstMasterCf.substr(foreignServices.size())};
    for (int program = 0; program < programs; ++program) {
        const Request request = requestOf(program);
        for (size_t number = 1; number <= request.bindings.size(); ++number) {
            const size_t before = request.masterCf(number - 1, 1).size();
            lines.insert(request.masterCf(number, number == 1 ? 0 : 1).substr(before));
        }
    }
    return lines;
}

void requireWhole(Problems& problems, const std::string& text)
{
    static const std::set<std::string> possible = possibleLines();
    if (text.compare(0, foreignServices.size(), foreignServices) != 0) {
        problems.require(false, "foreign entries are lost: " + text);
        return;
    }
    for (size_t begin = foreignServices.size(); begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        const std::string line = text.substr(begin, end - begin);
        problems.require(line == "\n" || possible.count(line) != 0, "a line of nobody: " + line);
        begin = end;
    }
}

/// Runs the program in a process of its own, which ends with 0 when all is well.
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
            requireWhole(problems, now);
        last = now;
        ++looks;
        usleep(100);
    }
    requireWhole(problems, readFile(masterCfPath));
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    problems.requireEqual("main.cf", cleanMainCf, readFile(mainCfPath));
    requireNextRun(problems);
    report.count(name, "looks at master.cf", looks);
    report.add(name, "round " + std::to_string(number), problems);
}

} // namespace

void testSeveralAtOnce(Report& report, bool longForm)
{
    for (int number = 1; number <= (longForm ? 20 : 3); ++number)
        round(report, "rounds of 8 programs at once", number);
}

} // namespace faults
