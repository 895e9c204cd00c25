// Hostile input: huge, deep, cut short, with every byte everywhere. A request that is refused changes
// nothing; time and memory grow no faster than the input.
#include "Sweep.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/wait.h>

namespace faults {

namespace {

using support::repeated;

const char* const type = "domain-name";

/// A kind of large input: `make` gives one of about that size, complete or cut short.
struct Kind {
    const char* name;
    size_t unit;      ///< Bytes of one element.
    bool inShortForm; ///< Instructions are counted there, too.
    std::function<std::string(size_t elements, bool complete)> make;
};

const std::vector<Kind> kinds = {
    {"one string in an unknown member", 1, true,
     [](size_t elements, bool complete) {
         return "{\"x\":\"" + std::string(elements, 'a') + (complete ? "\",\"domains\":[]}" : "");
     }},
    {"a string of escapes", 2, false,
     [](size_t elements, bool complete) {
         return "{\"x\":\"" + repeated("\\n", elements) + (complete ? "\",\"domains\":[]}" : "");
     }},
    {"domains", 68, true,
     [](size_t elements, bool complete) {
         return "{\"domains\":[" +
                repeated("{\"domain\":\"a.example\",\"ip4_addr\":\"192.0.2.100\",\"ip6_addr\":\"\",\"y\":1},",
                         elements) +
                (complete ? "{\"domain\":\"b.example\",\"ip4_addr\":\"192.0.2.1\",\"ip6_addr\":\"\"}]}" : "");
     }},
    {"nested arrays", 1, true,
     [](size_t elements, bool complete) {
         return "{\"x\":" + std::string(elements, '[') +
                (complete ? std::string(elements, ']') + ",\"domains\":[]}" : "");
     }},
    {"nested objects", 5, false,
     [](size_t elements, bool complete) {
         return "{\"x\":" + repeated("{\"k\":", elements) +
                (complete ? "1" + std::string(elements, '}') + ",\"domains\":[]}" : "");
     }},
    {"unknown members", 6, false,
     [](size_t elements, bool complete) {
         return "{" + repeated("\"x\":1,", elements) + (complete ? "\"domains\":[]}" : "");
     }},
    {"blanks", 1, false,
     [](size_t elements, bool complete) {
         return "{\"domains\":" + std::string(elements, ' ') + (complete ? "[]}" : "");
     }},
    {"digits", 1, false,
     [](size_t elements, bool complete) {
         return "{\"x\":" + std::string(elements, '7') + (complete ? ",\"domains\":[]}" : "");
     }},
};

Launch launchWith(const std::string& transportType, const std::string& input)
{
    Launch launch;
    launch.arguments = {"--transport-type", transportType};
    launch.input = input;
    launch.inputIsFile = true;
    launch.timeout = 300;
    return launch;
}

void requireNothingChanged(Problems& problems, const Outcome& outcome, const Snapshot& before)
{
    problems.require(!outcome.hung && outcome.childrenLeft == 0, "the run hangs, or left children");
    problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
    const std::string start = "Fatal error: std::runtime_error(can not parse data from stdin : ";
    problems.require(outcome.err.compare(0, start.size(), start) == 0, "standard error: " + outcome.err);
    problems.requireEqual("standard output", outcome.err, outcome.out);
    problems.requireEqual("tool runs", std::vector<std::string>(), toolCalls());
    problems.require(snapshot() == before, "something was changed");
}

std::string megabytes(long kilobytes)
{
    return std::to_string(kilobytes / 1024) + " MB";
}

/// One large input: cut short it changes nothing, complete it wipes (the type adds nothing).
void large(Report& report, const Kind& kind, size_t elements, bool complete)
{
    const std::string name = "hostile: " + std::to_string(elements) + ' ' + kind.name;
    resetWorld();
    const Snapshot before = snapshot();
    const std::string input = kind.make(elements, complete);
    // The program itself; the text, and twice that while it grows; what is kept of each element.
    const long bound = 16384 + static_cast<long>(input.size() * 4 / 1024);
    const Outcome outcome = run(launchWith("wipe", input));
    Problems problems;
    if (complete)
        requireSuccess(problems, {"wipe", {}}, outcome);
    else
        requireNothingChanged(problems, outcome, before);
    problems.require(outcome.usage.ru_maxrss < bound,
                     "peak memory " + megabytes(outcome.usage.ru_maxrss) + ", allowed " + megabytes(bound));
    report.add(name, complete ? "complete" : "cut short", problems);
    report.count(name, complete ? "peak MB" : "peak MB cut short",
                 static_cast<unsigned>(outcome.usage.ru_maxrss / 1024));
}

/// Instructions that the program executes for an input that it refuses.
double instructions(const std::string& input)
{
    const char* const log = "/run/sandbox/callgrind";
    Launch launch = launchWith(type, input);
    launch.wrapper = {"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                      std::string("--log-file=") + log};
    const Outcome outcome = run(launch);
    if (outcome.status != W_EXITCODE(1, 0))
        return -1;
    const std::string text = readFile(log);
    const std::string label = "Collected : ";
    const size_t at = text.find(label);
    return at == std::string::npos ? -1 : strtod(text.c_str() + at + label.size(), nullptr);
}

/// Counted, not timed: four times the input must take at most four times the instructions, plus a margin
/// for chance.
void linear(Report& report, const Kind& kind, size_t bytes)
{
    const std::string name = std::string("linear time: ") + kind.name;
    const size_t elements = bytes / kind.unit;
    resetWorld();
    const double none = instructions(kind.make(1, false));
    const double once = instructions(kind.make(elements, false)) - none;
    const double fourTimes = instructions(kind.make(4 * elements, false)) - none;
    Problems problems;
    problems.require(none > 0 && once > 0 && fourTimes > 0, "the instructions cannot be counted");
    const double ratio = fourTimes / once;
    problems.require(ratio < 4.5,
                     "four times the input takes " + std::to_string(ratio) + " times the instructions");
    report.add(name, std::to_string(elements) + " elements", problems);
    report.count(name, "percent of the instructions for four times the input",
                 static_cast<unsigned>(ratio * 100));
}

const Request smallRequest = {"domain-name", {{"a.b", "1.2.3.4", ""}}};

/// Refused, or carried out; never anything else.
void requireEither(Problems& problems, const Outcome& outcome, const Snapshot& before)
{
    requireCleanEnd(problems, outcome);
    const std::string parse = "Fatal error: std::runtime_error(can not parse data from stdin : ";
    if (outcome.status == 0) {
        problems.requireEqual("standard error", "", outcome.err);
        problems.require(readFile(masterCfPath).compare(0, foreignServices.size(), foreignServices) == 0,
                         "foreign entries are lost");
    } else if (outcome.err.compare(0, parse.size(), parse) == 0) {
        requireNothingChanged(problems, outcome, before);
    } else {
        // An empty domain, or no address at all, is found only when that domain is bound.
        problems.require(outcome.status == W_EXITCODE(1, 0) &&
                             outcome.err.find("Fatal error: zorvo::SystemError(") == 0,
                         "wait status " + std::to_string(outcome.status) + ", " + outcome.err);
        problems.requireEqual(masterCfPath, foreignServices, readFile(masterCfPath));
    }
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
}

void everyByte(Report& report, bool longForm)
{
    const std::string name = "every byte at every position of a small request";
    const std::string original = smallRequest.input();
    const std::string choice = std::string("\0\x01\t\n \"\\{}[]:,0a\x7f\x80\xff", 18);
    for (size_t position = 0; position < original.size(); ++position)
        for (unsigned value = 0; value < 256; ++value) {
            const char byte = static_cast<char>(value);
            if (!longForm && (choice.find(byte) == std::string::npos || (position + value) % 4 != 0))
                continue;
            if (!report.takes())
                continue;
            std::string input = original;
            input[position] = byte;
            resetWorld();
            const Snapshot before = snapshot();
            const Outcome outcome = run(launchWith(type, input));
            Problems problems;
            requireEither(problems, outcome, before);
            report.add(name, "byte " + std::to_string(value) + " at " + std::to_string(position), problems);
        }
}

void truncated(Report& report)
{
    const std::string original = smallRequest.input();
    const size_t end = original.rfind('}'); // what follows does not count
    resetWorld();
    const Snapshot before = snapshot();
    for (size_t length = 0; length <= end; ++length) {
        if (!report.takes())
            continue;
        const Outcome cut = run(launchWith(type, original.substr(0, length)));
        Problems problems;
        requireNothingChanged(problems, cut, before);
        report.add("request cut at every byte", std::to_string(length) + " bytes", problems);

        // The text ends at a NUL, whatever follows.
        std::string input = original;
        input[length] = '\0';
        const Outcome marked = run(launchWith(type, input));
        Problems nulProblems;
        requireNothingChanged(nulProblems, marked, before);
        nulProblems.requireEqual("standard error", cut.err, marked.err);
        report.add("NUL at every byte of a request", std::to_string(length), nulProblems);
    }
}

/// Every domain costs a store and a run of postmap, so that number is smaller.
void manyDomains(Report& report, size_t number)
{
    Request request{"domain-ip", {}};
    for (size_t i = 0; i < number; ++i)
        request.bindings.push_back({std::to_string(1000000 + i) + ".example", "192.0.2.1", ""});
    resetWorld();
    const Outcome outcome = run(launchWith("domain-ip", request.input()));
    Problems problems;
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == 0,
                     "wait status " + std::to_string(outcome.status) + ", " + outcome.err);
    problems.requireEqual("tool runs", request.calls(), toolCalls());
    problems.requireEqual(databasePath, request.records(), readFile(databasePath));
    const Request one{"domain-ip", {request.bindings[0]}};
    problems.requireEqual(masterCfPath, one.masterCf(), readFile(masterCfPath));
    report.add("domains carried out in one run", std::to_string(number), problems);
    report.count("domains carried out in one run", "domains", static_cast<unsigned>(number));
}

/// A domain of 64 MiB goes all the way: into master.cf, the record and the log.
void hugeDomain(Report& report, size_t size)
{
    const Request request{"domain-name", {{std::string(size, 'd'), "192.0.2.1", ""}}};
    resetWorld();
    const Outcome outcome = run(launchWith("domain-name", request.input()));
    Problems problems;
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == 0, "wait status " + std::to_string(outcome.status));
    problems.require(readFile(masterCfPath) == request.masterCf(), "not the requested master.cf");
    problems.require(readFile(databasePath) == request.records(), "not the requested record");
    const std::string name = "a domain of " + std::to_string(size >> 20) + " MiB carried out";
    report.add(name, "", problems);
    report.count(name, "peak MB", static_cast<unsigned>(outcome.usage.ru_maxrss / 1024));
    resetWorld();
}

} // namespace

void testHostileInput(Report& report, bool longForm)
{
    constexpr size_t mebi = 1 << 20;
    for (const Kind& kind : kinds) {
        size_t elements = longForm ? 64 * mebi / kind.unit : 4 * mebi / kind.unit;
        if (kind.name == std::string("domains"))
            elements = longForm ? 200000 : 50000;
        else if (kind.name == std::string("nested arrays"))
            elements = 10000000;
        for (const bool complete : {false, true})
            if (report.takes())
                large(report, kind, elements, complete);
    }
    for (const Kind& kind : kinds)
        if ((longForm || kind.inShortForm) && report.takes())
            linear(report, kind, longForm ? 2 * mebi : mebi / 4);
    everyByte(report, longForm);
    truncated(report);
    if (report.takes())
        manyDomains(report, longForm ? 2000 : 50);
    if (report.takes())
        hugeDomain(report, longForm ? 64 * mebi : mebi);
}

} // namespace faults
