// Every system call that a signal may interrupt is interrupted, each time that a run makes it.
#include "Sweep.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/wait.h>

namespace faults {

namespace {

// Those that POSIX or Linux's manual pages let fail with EINTR, or that a file system in user space or on a
// network may interrupt. The others of a run (brk, mmap, newfstatat, rt_sigreturn...) have no such failure.
const std::set<std::string> interruptible = {
    "chdir",        "clock_nanosleep", "close",      "dup2",   "execve", "fchmod",   "fcntl", "flock",
    "fork",         "fsync",           "getdents64", "openat", "pipe2",  "pselect6", "read",  "rename",
    "rt_sigaction", "rt_sigprocmask",  "unlink",     "wait4",  "write",  "writev",
};

std::string rowName(const Event& place)
{
    return "EINTR " + place.call + (place.process == 0 ? "" : " (between fork and exec)");
}

void interrupt(Report& report, const Event& place, Effect effect)
{
    const std::string name = rowName(place) + (effect == Effect::FailAfter ? ", closed all the same" : "");
    const Outcome outcome = strike(place, effect, EINTR);
    if (!outcome.struck) {
        report.missed(name);
        return;
    }
    Problems problems;
    Outcome judged = outcome;
    // A close(2) that fails with EINTR has closed on Linux, and the streams of the C++ library rely on it.
    if (effect == Effect::Fail && place.call == "close")
        judged.descriptors.clear();
    requireSuccess(problems, threeDomains, judged);
    report.add(name, describe(outcome.target), problems);
}

/// The run ends as an undisturbed one does: with the whole report on both streams, the same tool runs and the
/// same files.
void interruptReporting(Report& report, const Scenario& scenario, const Event& place, Effect effect,
                        const std::vector<std::string>& calls, const Snapshot& left)
{
    const std::string name = "EINTR " + place.call + " in a run that ends with a report";
    Outcome outcome = strike(scenario, place, effect, EINTR);
    if (!outcome.struck) {
        report.missed(name);
        return;
    }
    if (effect == Effect::Fail && place.call == "close")
        outcome.descriptors.clear();
    Problems problems;
    requireReport(problems, scenario, outcome);
    problems.requireEqual("tool runs", calls, toolCalls());
    problems.require(snapshot() == left, "not what the undisturbed run leaves");
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    report.add(name, scenario.name + ": " + describe(outcome.target), problems);
}

bool canBeInterrupted(const Event& event)
{
    // fdopen(3) asks for a descriptor's flags that way; that only looks at a number.
    const bool onlyLooks = event.call == "fcntl" && event.arguments[1] == F_GETFL;
    return interruptible.count(event.call) != 0 && !onlyLooks;
}

/// Without the calls by which glibc 2.41 blocks all signals around the fork of fork(3), and puts the mask
/// back: it counts on them, since sigprocmask(2) has no EINTR.
std::vector<Event> withoutThoseOfFork(const std::vector<Event>& events)
{
    std::set<size_t> ofFork;
    std::map<int, size_t> latest; ///< The event before, of each process.
    for (size_t i = 0; i < events.size(); ++i) {
        const auto before = latest.find(events[i].process);
        if (before != latest.end() && events[i].call == "fork")
            ofFork.insert(before->second);
        if (before != latest.end() && events[before->second].call == "fork")
            ofFork.insert(i);
        latest[events[i].process] = i;
    }
    std::vector<Event> kept;
    for (size_t i = 0; i < events.size(); ++i)
        if (events[i].call != "rt_sigprocmask" || ofFork.count(i) == 0)
            kept.push_back(events[i]);
    return kept;
}

/// On Linux an interrupted close(2) has closed the descriptor all the same.
std::vector<Effect> effectsOn(const Event& place)
{
    if (place.call == "close")
        return {Effect::Fail, Effect::FailAfter};
    return {Effect::Fail};
}

} // namespace

void testInterrupted(Report& report, bool longForm)
{
    for (const Event& place :
         placesToStrike(withoutThoseOfFork(undisturbedRun()), longForm, canBeInterrupted))
        for (const Effect effect : effectsOn(place))
            if (report.takes())
                interrupt(report, place, effect);
    // Every single write of a report is a place of its own, so here the short form leaves none out.
    for (const Scenario& scenario : reportingScenarios(longForm)) {
        const std::vector<Event> events = withoutThoseOfFork(runUndisturbed(scenario).events);
        const std::vector<std::string> calls = toolCalls();
        const Snapshot left = snapshot();
        for (const Event& place : placesToStrike(events, true, canBeInterrupted))
            for (const Effect effect : effectsOn(place))
                if (report.takes())
                    interruptReporting(report, scenario, place, effect, calls, left);
    }
    restoreMachine();
}

} // namespace faults
