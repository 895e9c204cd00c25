// A smaller sweep with the real postconf and postmap: interruptions and kills while master.cf is stored, and
// while a tool is launched, fed and waited for. Each of these runs waits for Postfix's own protection against
// half-written files, about two seconds.
#include "Sweep.h"
#include "support/RealPostfix.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

namespace faults {

namespace {

/// Every record of the real table, in the order of `Request::records`.
std::string realRecords()
{
    const support::CommandResult result =
        support::runCommand(support::postmapPath + std::string(" -s ") + support::tableName + " 2>&1");
    std::istringstream stream(result.out);
    std::set<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        std::replace(line.begin(), line.end(), '\t', ' ');
        lines.insert(line + '\n');
    }
    std::string text = result.status == 0 ? "" : "postmap -s fails\n";
    for (const std::string& one : lines)
        text += one;
    return text;
}

void resetForRealTools()
{
    resetWorld();
    std::filesystem::remove(databasePath); // that one is a text
    support::ageMainCf();
}

Outcome runReal(const Request& request, const Fault& fault = Fault(), bool traced = false)
{
    support::ageMainCf();
    Launch launch;
    launch.arguments = request.arguments();
    launch.input = request.input();
    launch.traced = traced;
    launch.fault = fault;
    launch.timeout = 60;
    return run(launch);
}

void requireRequested(Problems& problems, const Request& request, size_t emptyLines)
{
    support::ageMainCf();
    problems.requireEqual(masterCfPath, request.masterCf(request.bindings.size(), emptyLines),
                          readFile(masterCfPath));
    problems.requireEqual("table", request.records(), realRecords());
    problems.requireEqual(mainCfPath, cleanMainCf, readFile(mainCfPath));
    problems.requireEqual("postconf -M", "", judgeByPostconf());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
}

void requireEnd(Problems& problems, const Outcome& outcome)
{
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == 0, "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard error", "", outcome.err);
}

/// The calls from the second store of master.cf to the end of the tool run that follows it.
std::vector<Event> places()
{
    resetForRealTools();
    const Outcome outcome = runReal(threeDomains, Fault(), true);
    std::vector<Event> found;
    unsigned stores = 0;
    unsigned forks = 0;
    const auto emptying = static_cast<unsigned>(processOf(support::emptyTable));
    const auto adding = static_cast<unsigned>(processOf(support::addRecord));
    const std::set<std::string> wanted = {"openat", "write",    "fchmod", "fsync", "close", "rename", "flock",
                                          "fork",   "pselect6", "wait4",  "read",  "pipe2", "unlink"};
    for (const Event& event : outcome.events) {
        if (event.process != 0)
            continue;
        stores += event.call == "rename" ? 1 : 0;
        forks += event.call == "fork" ? 1 : 0;
        const bool emptiesTable = (forks + 1 == emptying || forks == emptying) &&
                                  (event.detail == tableSourcePath || event.call == "unlink");
        if (wanted.count(event.call) != 0 &&
            (emptiesTable || stores == 1 || (stores == 2 && forks <= adding)))
            found.push_back(event);
    }
    return found;
}

void interrupt(Report& report, const Event& place)
{
    resetForRealTools();
    const Outcome outcome = runReal(threeDomains, {Effect::Fail, 0, place.call, place.occurrence, EINTR});
    if (!outcome.struck)
        return report.missed("real tools: EINTR");
    Outcome judged = outcome;
    if (place.call == "close")
        judged.descriptors.clear();
    Problems problems;
    requireEnd(problems, judged);
    requireRequested(problems, threeDomains, 1);
    report.add("real tools: EINTR", describe(outcome.target), problems);
}

void killAt(Report& report, const Event& place, Effect effect)
{
    const std::string name =
        std::string("real tools: SIGKILL ") + (effect == Effect::Kill ? "before" : "after");
    resetForRealTools();
    const Outcome outcome = runReal(threeDomains, {effect, 0, place.call, place.occurrence, 0});
    if (!outcome.struck)
        return report.missed(name);
    Problems problems;
    problems.require(WIFSIGNALED(outcome.status), "wait status " + std::to_string(outcome.status));
    const unsigned stores = outcome.completed("rename");
    problems.requireEqual(masterCfPath, stores == 0 ? firstMasterCf : threeDomains.masterCf(stores - 1),
                          readFile(masterCfPath));
    support::ageMainCf();
    problems.requireEqual("postconf -M", "", judgeByPostconf());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    report.count(name, "left files", static_cast<unsigned>(strayFiles().size()));
    const size_t emptyLines = emptyLinesNow() + 1;
    requireEnd(problems, runReal(twoDomains));
    requireRequested(problems, twoDomains, emptyLines);
    report.add(name, describe(outcome.target), problems);
}

} // namespace

void testRealTools(Report& report, bool longForm)
{
    useRealTools(true);
    size_t number = 0;
    for (const Event& place : places()) {
        if (!longForm && number++ % 16 != 0)
            continue;
        if (!report.takes())
            continue;
        interrupt(report, place);
        killAt(report, place, Effect::Kill);
        if (longForm)
            killAt(report, place, Effect::KillAfter);
    }
    useRealTools(false);
    resetWorld();
}

} // namespace faults
