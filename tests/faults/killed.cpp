// The program, and the children that it has just made, are killed at one place of a run after the other.
#include "Sweep.h"

#include <csignal>
#include <fcntl.h>
#include <set>
#include <sys/wait.h>

namespace faults {

namespace {

const std::set<std::string> changing = {"fchmod", "flock",  "fork",  "fsync", "pipe2",
                                        "rename", "unlink", "wait4", "write", "writev"};

bool opensForWriting(const Event& event)
{
    return event.call == "openat" && (event.arguments[2] & O_ACCMODE) != O_RDONLY;
}

// The files that a killed run may leave; both are named in the manual.
void countLeftovers(Report& report, const std::string& name, Problems& problems,
                    const std::vector<std::string>& leftovers)
{
    unsigned temporary = 0;
    unsigned source = 0;
    for (const std::string& path : leftovers) {
        if (path == tableSourcePath)
            ++source;
        else if (path.compare(0, sizeof masterCfPath - 1, masterCfPath) == 0 &&
                 path.size() == sizeof masterCfPath - 1 + 6)
            ++temporary;
        else
            problems.require(false, "left behind: " + path);
    }
    problems.require(temporary <= 1, "more than one temporary file");
    report.count(name, "left master.cfXXXXXX", temporary);
    report.count(name, "left table source", source);
}

void killProgram(Report& report, const Event& place, Effect effect)
{
    const std::string name =
        std::string("SIGKILL ") + (effect == Effect::Kill ? "before " : "after ") + place.call;
    const Outcome outcome = strike(place, effect);
    if (!outcome.struck) {
        report.missed(name);
        return;
    }
    Problems problems;
    problems.require(!outcome.hung, "a tool hangs");
    problems.require(WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGKILL,
                     "wait status " + std::to_string(outcome.status));
    const unsigned stores = outcome.completed("rename");
    problems.requireEqual(masterCfPath, stores == 0 ? firstMasterCf : threeDomains.masterCf(stores - 1),
                          readFile(masterCfPath));
    problems.requireEqual("postconf -M", "", judgeByPostconf());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    std::vector<std::string> leftovers = strayFiles();
    countLeftovers(report, name, problems, leftovers);
    // The next run replaces the table's source file and removes it.
    requireNextRun(problems, leftovers);
    for (const std::string& path : strayFiles())
        problems.require(path != tableSourcePath, "the table's source file outlived the next run");
    report.add(name, describe(outcome.target), problems);
}

// A tool that never started: the run fails like one whose tool was killed.
void killChild(Report& report, const Event& place)
{
    const std::string name = "SIGKILL of a child before " + place.call;
    const Outcome outcome = strike(place, Effect::Kill);
    if (!outcome.struck) {
        report.missed(name);
        return;
    }
    Problems problems;
    requireCleanEnd(problems, outcome);
    const std::string killedText =
        "Fatal error: zorvo::mail::postfix::PostfixConfigurationError(unknown error)\n";
    if (isScript(place.process)) {
        // What became of the restart is only logged.
        problems.require(outcome.status == 0, "wait status " + std::to_string(outcome.status));
        const std::string end =
            std::string(": process '") + support::serviceScriptPath + "' killed by signal 9\n";
        problems.require(outcome.err.size() > end.size() &&
                             outcome.err.compare(outcome.err.size() - end.size(), end.size(), end) == 0,
                         "standard error: " + outcome.err);
    } else {
        problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
        problems.requireEqual("standard error", killedText, outcome.err);
    }
    problems.requireEqual("standard output", outcome.err, outcome.out);
    const unsigned stores = outcome.completed("rename");
    problems.requireEqual(masterCfPath, stores == 0 ? firstMasterCf : threeDomains.masterCf(stores - 1),
                          readFile(masterCfPath));
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    requireNextRun(problems);
    report.add(name, describe(outcome.target), problems);
}

} // namespace

void testKilled(Report& report, bool longForm)
{
    const auto wanted = [=](const Event& event) {
        if (event.process != 0)
            return longForm || event.call == "execve";
        return longForm || changing.count(event.call) != 0 || opensForWriting(event);
    };
    for (const Event& place : placesToStrike(undisturbedRun(), longForm, wanted)) {
        if (!report.takes())
            continue;
        if (place.process != 0) {
            killChild(report, place);
            continue;
        }
        killProgram(report, place, Effect::Kill);
        killProgram(report, place, Effect::KillAfter);
    }
}

} // namespace faults
