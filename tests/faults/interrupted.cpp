// Every system call that a signal may interrupt is interrupted, at every place where it stands in a run.
#include "Sweep.h"

#include <cerrno>
#include <fcntl.h>
#include <set>

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

void interrupt(Report& report, const std::string& name, const Event& place, Effect effect)
{
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

} // namespace

void testInterrupted(Report& report, bool longForm)
{
    const auto wanted = [](const Event& event) {
        // fdopen(3) asks for a descriptor's flags that way; that is no more than a look at a number.
        const bool onlyLooks = event.call == "fcntl" && event.arguments[1] == F_GETFL;
        return interruptible.count(event.call) != 0 && !onlyLooks;
    };
    for (const Event& place : placesToStrike(longForm, wanted)) {
        interrupt(report, rowName(place), place, Effect::Fail);
        // On Linux the descriptor is closed all the same.
        if (place.call == "close")
            interrupt(report, rowName(place) + ", closed all the same", place, Effect::FailAfter);
    }
}

} // namespace faults
