// System calls fail, one after the other, with what a full, broken or read-only disk and a machine short of
// memory or descriptors answer.
#include "Sweep.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <regex>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace faults {

namespace {

const int errors[] = {ENOSPC, EIO, EACCES, EMFILE, ENOMEM, EROFS};

const std::set<std::string> programCalls = {"openat", "write", "fchmod", "fsync", "rename",
                                            "pipe2",  "fork",  "flock",  "writev"};
const std::set<std::string> childCalls = {"close",  "fcntl",      "dup2",         "execve",
                                          "openat", "getdents64", "rt_sigaction", "rt_sigprocmask"};

const std::string streamFailure = "std::__ios_failure(basic_ios::clear: iostream error)";

/// How a run with one failed call has to end.
struct Expected {
    std::string text;         ///< On both streams.
    bool tolerated = false;   ///< The run succeeds all the same.
    bool endsInside = false;  ///< The process ends at the failed call, and open descriptors with it.
    bool onlyOnError = false; ///< The text is on standard error alone.

    std::string output() const { return onlyOnError ? std::string() : text; }
};

Expected fatal(const std::string& description)
{
    return {"Fatal error: " + description + '\n', false, false, false};
}

Expected tolerated()
{
    return {"", true, false, false};
}

Expected systemError(const std::string& label, const char* reason)
{
    return fatal("zorvo::SystemError(" + label + ": " + reason + ")");
}

/// The pipes of a run in order: the labels of their failures, or empty for those of the service script.
std::vector<std::string> pipeLabels()
{
    const std::string catcher = "process set catcher control pipe";
    const std::vector<std::string> query = {catcher, "stdout pipe", "stderr pipe", "pipe"};
    const std::vector<std::string> change = {catcher, "stderr pipe", "pipe"};
    const std::vector<std::string> addition = {catcher, "stdin pipe", "stderr pipe", "pipe"};
    const std::vector<std::string> script(2);
    std::vector<std::string> labels;
    for (const support::Command& command : threeDomains.tools()) {
        const auto& launch = command == support::askDirectory ? query
                             : command == support::addRecord  ? addition
                             : command == support::restart    ? script
                                                              : change;
        labels.insert(labels.end(), launch.begin(), launch.end());
    }
    return labels;
}

/// What the helpers of the service script say before they end the process.
Expected scriptFailure(const std::string& text, int error, const char* reason)
{
    return {text + "\nSystem error " + std::to_string(error) + ": " + reason + '\n', false, true, false};
}

Expected expectOpen(const Event& place, int error, const char* reason)
{
    const std::string& path = place.detail;
    if (path.compare(0, sizeof lockDirectory - 1, lockDirectory) == 0) {
        Expected expected = systemError("lock() failed", reason);
        expected.text = "Unable to open file \"" + path + "\": " + reason + ".\nSystem error " +
                        std::to_string(error) + ": " + reason + '\n' + expected.text;
        return expected;
    }
    if (path == tableSourcePath)
        return fatal(streamFailure);
    if (path == masterCfPath)
        return fatal("zorvo::mail::postfix::PostfixConfigurationError(unable to open " + path + ')');
    if (path == std::string(masterCfPath) + "XXXXXX")
        return systemError("mkstemp() failed: ", reason);
    // Whether Postfix came up does not decide about the run: it is looked at again a second later.
    if (path == "/proc")
        return {"unable to open /proc filesystem: " + std::string(reason) + "\n\n", true, false, false};
    if (path == support::pidFilePath || path == "PID/stat")
        return tolerated();
    return fatal("(no expectation for " + path + ')');
}

Expected expectWrite(const Event& place, const char* reason)
{
    // With this call the signal handler wakes the loop, which would find out without it as well.
    if (place.detail == "pipe, one byte")
        return tolerated();
    return place.detail == "pipe" ? systemError("write", reason) : fatal(streamFailure);
}

Expected expectOfProgram(const Event& place, int error)
{
    const char* const reason = strerror(error);
    const std::string temporary = std::string(masterCfPath) + "XXXXXX";
    if (place.call == "openat")
        return expectOpen(place, error, reason);
    if (place.call == "write")
        return expectWrite(place, reason);
    if (place.call == "fchmod" || place.call == "fsync")
        return fatal("std::filesystem::__cxx11::filesystem_error(filesystem error: " +
                     std::string(place.call == "fsync" ? "fsync" : "chmod") + ": " + reason + " [" +
                     temporary + "])");
    if (place.call == "rename")
        return fatal("zorvo::mail::FSError(filesystem error: rename for " + std::string(masterCfPath) + " (" +
                     temporary + "): " + reason + " [" + temporary + "])");
    if (place.call == "flock")
        return systemError("lock() failed", reason);
    if (place.call == "fork")
        return isScript(static_cast<int>(place.occurrence))
                   ? scriptFailure("fork_execv_pipes: fork() failed", error, reason)
                   : systemError("fork", reason);
    const std::string label = pipeLabels().at(place.occurrence - 1);
    return label.empty() ? scriptFailure("fork_execv_getouterr: pipe() failed", error, reason)
                         : systemError(label, reason);
}

/// A failure between fork and exec comes back through the control pipe, with the reason in it and after it.
Expected expectOfChild(const Event& place, int error)
{
    const std::string reason = strerror(error);
    // The service script may start without its signals restored, and its failure does not make the run fail.
    // What its child writes before standard error is the pipe is seen.
    const bool seen = place.call == "dup2" || (place.call == "close" && place.occurrence == 1);
    if (isScript(place.process) && seen)
        return {"fork_execv: dup() failed: " + reason + '\n', true, false, true};
    if (isScript(place.process) || place.call == "rt_sigaction" || place.call == "rt_sigprocmask")
        return tolerated();
    std::string label = place.call;
    if (place.call == "execve")
        label = "execv";
    else if (place.call == "fcntl")
        label = "control pipe close-on-exec fcntl";
    else if (place.call == "dup2")
        label = std::vector<std::string>{"stdin dup2", "stdout dup2", "stderr dup2"}.at(place.arguments[1]);
    return systemError(label + ": " + reason, reason.c_str());
}

/// A message without its random characters.
std::string withoutChance(const std::string& text)
{
    static const std::regex temporary("(/etc/postfix/master\\.cf)[A-Za-z0-9]{6}(?![A-Za-z0-9])");
    return std::regex_replace(text, temporary, "$1XXXXXX");
}

/// The script itself was not run.
bool preventsScript(const Event& place)
{
    return isScript(place.process) && (place.call == "dup2" || place.call == "execve" ||
                                       (place.call == "close" && place.occurrence <= 2));
}

void requireToleratedEnd(Problems& problems, const Event& place, const Expected& expected, Outcome outcome)
{
    problems.requireEqual("standard error", expected.text, outcome.err);
    problems.requireEqual("standard output", expected.output(), outcome.out);
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == 0, "wait status " + std::to_string(outcome.status));
    std::vector<std::string> calls = threeDomains.calls();
    std::vector<std::string> found = toolCalls();
    if (preventsScript(place)) {
        calls.pop_back();
        if (found.size() > calls.size())
            found.pop_back();
    }
    problems.requireEqual("tool runs", calls, found);
    problems.require(snapshot() == snapshotAfter(threeDomains), "not the requested state");
}

void requireFailedEnd(Problems& problems, const Expected& expected, Outcome outcome)
{
    problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard error", expected.text, withoutChance(outcome.err));
    problems.requireEqual("standard output", expected.output(), withoutChance(outcome.out));
    if (expected.endsInside)
        outcome.descriptors.clear();
    requireCleanEnd(problems, outcome);
    const unsigned stores = outcome.completed("rename");
    problems.requireEqual(masterCfPath, stores == 0 ? firstMasterCf : threeDomains.masterCf(stores - 1),
                          readFile(masterCfPath));
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
}

void failAt(Report& report, const Event& place, int error)
{
    const Expected expected =
        place.process == 0 ? expectOfProgram(place, error) : expectOfChild(place, error);
    const std::string name =
        errorName(error) + ' ' + place.call + (place.process == 0 ? "" : " (between fork and exec)");
    const Outcome outcome = strike(place, Effect::Fail, error);
    if (!outcome.struck || outcome.target.detail != place.detail) {
        report.missed(name);
        return;
    }
    Problems problems;
    if (expected.tolerated) {
        report.count(name, "tolerated");
        requireToleratedEnd(problems, place, expected, outcome);
    } else {
        requireFailedEnd(problems, expected, outcome);
    }
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    requireNextRun(problems);
    report.add(name, describe(outcome.target), problems);
}

/// Whether `found` is `whole` with characters left out.
bool isPartOf(const std::string& found, const std::string& whole)
{
    size_t at = 0;
    for (const char c : whole)
        if (at < found.size() && found[at] == c)
            ++at;
    return at == found.size();
}

/// A failing call in a run that ends with a report anyway: the earlier failure is reported, or the one that
/// it would have been; and where it is the report itself that cannot be written, what else there is of it
/// arrives.
void failReporting(Report& report, const Scenario& scenario, const Event& place, int error,
                   const std::string& before, const std::string& after)
{
    const std::string name = errorName(error) + ' ' + place.call + " in a run that ends with a report";
    const Outcome outcome = strike(scenario, place, Effect::Fail, error);
    if (!outcome.struck) {
        report.missed(name);
        return;
    }
    Problems problems;
    problems.require(outcome.status == W_EXITCODE(scenario.status, 0),
                     "wait status " + std::to_string(outcome.status));
    const bool isReport = place.process == 0 && (place.call == "write" || place.call == "writev");
    if (isReport && place.arguments[0] == STDOUT_FILENO) {
        problems.requireEqual("standard error", scenario.err, outcome.err);
        problems.require(isPartOf(outcome.out, scenario.out), "standard output: " + outcome.out);
    } else if (isReport && place.arguments[0] == STDERR_FILENO) {
        problems.requireEqual("standard output", scenario.out, outcome.out);
        problems.require(isPartOf(outcome.err, scenario.err), "standard error: " + outcome.err);
    } else {
        Expected expected = place.process == 0 ? expectOfProgram(place, error) : expectOfChild(place, error);
        if (expected.tolerated)
            expected.text = scenario.err;
        problems.requireEqual("standard error", expected.text, withoutChance(outcome.err));
        problems.requireEqual("standard output", expected.text, withoutChance(outcome.out));
    }
    requireCleanEnd(problems, outcome);
    problems.requireEqual(masterCfPath, outcome.completed("rename") == 0 ? before : after,
                          readFile(masterCfPath));
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    report.add(name, scenario.name + ": " + describe(outcome.target), problems);
}

/// All errors, in the long form; else one, in turn, so that every error strikes at some places.
std::vector<int> errorsAt(size_t place, bool longForm)
{
    if (longForm)
        return {std::begin(errors), std::end(errors)};
    return {errors[place % std::size(errors)]};
}

} // namespace

void testFailing(Report& report, bool longForm)
{
    const auto wanted = [](const Event& event) {
        return (event.process == 0 ? programCalls : childCalls).count(event.call) != 0;
    };
    size_t next = 0;
    for (const Event& place : placesToStrike(undisturbedRun(), longForm, wanted))
        for (const int error : errorsAt(next++, longForm))
            if (report.takes())
                failAt(report, place, error);
    for (const Scenario& scenario : reportingScenarios(longForm)) {
        scenario.begin();
        const std::string before = readFile(masterCfPath);
        const std::vector<Event> events = runUndisturbed(scenario).events;
        const std::string after = readFile(masterCfPath);
        for (const Event& place : placesToStrike(events, longForm, wanted))
            for (const int error : errorsAt(next++, longForm))
                if (report.takes())
                    failReporting(report, scenario, place, error, before, after);
    }
    restoreMachine();
}

} // namespace faults
