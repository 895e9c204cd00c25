#include "Sweep.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <set>
#include <stdexcept>
#include <sys/wait.h>
#include <tuple>

namespace faults {

namespace {

Launch launchOf(const Request& request)
{
    Launch launch;
    launch.arguments = request.arguments();
    launch.input = request.input();
    return launch;
}

[[noreturn]] void throwUnexpected(const std::string& what, const Problems& problems)
{
    throw std::runtime_error("the undisturbed run, " + what + ": " + Problems::joined(problems.texts()));
}

// The program, and one child of each kind: with its output in pipes, with its input from one, the service
// script.
bool isTypicalProcess(int process)
{
    return process == 0 || process == processOf(support::askDirectory) ||
           process == processOf(support::addRecord) || isScript(process);
}

} // namespace

const support::Command& commandOf(int process)
{
    static const std::vector<support::Command> tools = threeDomains.tools();
    return tools.at(static_cast<size_t>(process) - 1);
}

int processOf(const support::Command& command)
{
    int process = 1;
    while (commandOf(process) != command)
        ++process;
    return process;
}

bool isScript(int process)
{
    return process != 0 && commandOf(process) == support::restart;
}

const std::vector<Event>& undisturbedRun()
{
    static const std::vector<Event> events = [] {
        resetWorld();
        Launch launch = launchOf(threeDomains);
        launch.traced = true;
        const Outcome outcome = run(launch);
        Problems problems;
        requireSuccess(problems, threeDomains, outcome);
        if (!problems.texts().empty())
            throwUnexpected("three domains", problems);
        return outcome.events;
    }();
    return events;
}

void requireReport(Problems& problems, const Scenario& scenario, const Outcome& outcome)
{
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == W_EXITCODE(scenario.status, 0),
                     "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard output", scenario.out, outcome.out);
    problems.requireEqual("standard error", scenario.err, outcome.err);
}

Outcome runUndisturbed(const Scenario& scenario)
{
    scenario.begin();
    Launch launch = scenario.launch();
    launch.traced = true;
    Outcome outcome = run(launch);
    Problems problems;
    requireReport(problems, scenario, outcome);
    if (!problems.texts().empty())
        throwUnexpected(scenario.name, problems);
    return outcome;
}

std::vector<Event> placesToStrike(const std::vector<Event>& events, bool longForm,
                                  const std::function<bool(const Event&)>& wanted)
{
    std::vector<Event> places;
    for (const Event& event : events)
        if (wanted(event) && (longForm || isTypicalProcess(event.process)))
            places.push_back(event);
    if (longForm)
        return places;
    const auto kind = [](const Event& event) { return std::tie(event.process, event.call, event.detail); };
    std::vector<Event> chosen;
    for (auto place = places.begin(); place != places.end(); ++place) {
        const auto alike = [&](const Event& other) { return kind(other) == kind(*place); };
        if (std::none_of(places.begin(), place, alike) || std::none_of(place + 1, places.end(), alike))
            chosen.push_back(*place);
    }
    return chosen;
}

namespace {

Outcome strikeRun(const std::function<void()>& begin, Launch launch, const Event& place, Effect effect,
                  int error)
{
    constexpr int patience = 5;
    launch.fault = {effect, place.process, place.call, place.occurrence, error};
    Outcome outcome;
    for (int i = 0; i < patience && !outcome.struck; ++i) {
        begin();
        outcome = run(launch);
    }
    return outcome;
}

} // namespace

Outcome strike(const Event& place, Effect effect, int error)
{
    return strikeRun(resetWorld, launchOf(threeDomains), place, effect, error);
}

Outcome strike(const Scenario& scenario, const Event& place, Effect effect, int error)
{
    return strikeRun([&] { scenario.begin(); }, scenario.launch(), place, effect, error);
}

std::string describe(const Event& place)
{
    return (place.process == 0 ? std::string() : "child " + std::to_string(place.process) + ": ") +
           place.call + " number " + std::to_string(place.occurrence) + ", " + place.detail;
}

void requireCleanEnd(Problems& problems, const Outcome& outcome)
{
    problems.require(!outcome.hung, "the run hangs");
    problems.require(outcome.childrenLeft == 0,
                     std::to_string(outcome.childrenLeft) + " children outlived the program");
    problems.requireEqual("descriptors open at the end", std::vector<std::string>(), outcome.descriptors);
}

void requireSuccess(Problems& problems, const Request& request, const Outcome& outcome,
                    const std::string& output)
{
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == 0, "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard output", output, outcome.out);
    problems.requireEqual("standard error", output, outcome.err);
    problems.requireEqual("tool runs", request.calls(), toolCalls());
    const Snapshot found = snapshot();
    for (const auto& [path, content] : snapshotAfter(request)) {
        const auto file = found.find(path);
        problems.requireEqual(path, content, file != found.end() ? file->second : std::string("(missing)"));
    }
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
}

void requireNextRun(Problems& problems, const std::vector<std::string>& leftovers)
{
    const size_t callsBefore = toolCalls().size();
    const size_t emptyLines = emptyLinesNow() + 1;
    const Outcome outcome = run(launchOf(twoDomains));
    Problems next;
    requireCleanEnd(next, outcome);
    next.require(outcome.status == 0, "wait status " + std::to_string(outcome.status) + ", " + outcome.err);
    std::vector<std::string> calls = toolCalls();
    calls.erase(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(callsBefore));
    next.requireEqual("tool runs", twoDomains.calls(), calls);
    Snapshot found = snapshot();
    for (const std::string& path : leftovers)
        found.erase(path);
    next.require(found == snapshotAfter(twoDomains, emptyLines), "not the requested state");
    for (const std::string& text : next.texts())
        problems.require(false, "the next run: " + text);
}

std::vector<std::string> strayFiles()
{
    std::vector<std::string> stray;
    for (const auto& [path, content] : snapshot())
        if (path != masterCfPath && path != mainCfPath && path != databasePath)
            stray.push_back(path);
    return stray;
}

} // namespace faults
