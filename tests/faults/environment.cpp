// Odd environments: what the caller may have done to the descriptors, signals, limits, mask, directory and
// environment that the program starts with.
#include "Sweep.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace faults {

namespace {

using Action = std::function<void()>;

const Request badRequest = {"domain-name", {}};
const char* const badInput = "{\"domains\": [}";
const std::string badText =
    "Fatal error: std::runtime_error(can not parse data from stdin : JSON object is expected. "
    "Error occured at offset 13, character '}'. )\n";
const std::string emptyText =
    "Fatal error: std::runtime_error(can not parse data from stdin : JSON object is expected. "
    "Error occured at offset 0, character '\\x00'. )\n";

Outcome runWith(const Request& request, const Action& before)
{
    resetWorld();
    Launch launch;
    launch.arguments = request.arguments();
    launch.input = request.input();
    launch.before = before;
    return run(launch);
}

Outcome runBadWith(const Action& before)
{
    resetWorld();
    Launch launch;
    launch.arguments = badRequest.arguments();
    launch.input = badInput;
    launch.before = before;
    return run(launch);
}

/// The world as at the start, the end as for a bad request; `out` and `err` are what has to arrive.
void requireRefused(Problems& problems, const Outcome& outcome, const std::string& out,
                    const std::string& err)
{
    requireCleanEnd(problems, outcome);
    problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
    problems.requireEqual("standard output", out, outcome.out);
    problems.requireEqual("standard error", err, outcome.err);
    problems.requireEqual("tool runs", std::vector<std::string>(), toolCalls());
    problems.requireEqual(masterCfPath, firstMasterCf, readFile(masterCfPath));
}

/// Every tool of the run started with nothing but `state` ("BLOCKED IGNORED" masks) and these descriptors.
void requireTools(Problems& problems, const std::string& state,
                  const std::string& descriptors = std::string())
{
    for (const std::string& note : toolNotes()) {
        const size_t tab = note.find('\t');
        problems.requireEqual("descriptors and signals of " + note.substr(0, tab), descriptors + ' ' + state,
                              note.substr(tab + 1));
    }
}

constexpr char ordinarySignals[] = "0000000000000000 0000000000000000";

void succeeds(Report& report, const std::string& name, const std::string& circumstances, const Action& before,
              const std::string& signals = ordinarySignals)
{
    const Outcome outcome = runWith(threeDomains, before);
    Problems problems;
    requireSuccess(problems, threeDomains, outcome);
    requireTools(problems, signals);
    report.add(name, circumstances, problems);
}

void closedDescriptors(Report& report)
{
    const std::string name = "descriptors 0, 1, 2 closed at the start";
    for (unsigned set = 1; set < 8; ++set) {
        const auto isClosed = [=](int fd) { return (set >> fd & 1) != 0; };
        const Action before = [=] {
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
                if (isClosed(fd))
                    close(fd);
        };
        std::string which = "closed:";
        for (const int fd : {0, 1, 2})
            which += isClosed(fd) ? ' ' + std::to_string(fd) : "";

        const auto seen = [&](int fd, const std::string& text) {
            return isClosed(fd) ? std::string() : text;
        };
        Problems problems;
        const Outcome outcome = runWith(threeDomains, before);
        if (isClosed(STDIN_FILENO)) {
            requireRefused(problems, outcome, seen(1, emptyText), seen(2, emptyText));
        } else {
            requireSuccess(problems, threeDomains, outcome);
            requireTools(problems, ordinarySignals);
        }
        report.add(name, which + ", good request", problems);

        Problems badProblems;
        const std::string& text = isClosed(STDIN_FILENO) ? emptyText : badText;
        requireRefused(badProblems, runBadWith(before), seen(1, text), seen(2, text));
        report.add(name, which + ", bad request", badProblems);
    }
}

void uselessOutput(Report& report)
{
    const auto toFull = [](int fd) {
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, fd);
    };
    const auto toClosedPipe = [](int fd) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            _exit(97);
        close(ends[0]);
        dup2(ends[1], fd);
    };
    const std::vector<std::pair<const char*, std::function<void(int)>>> kinds = {
        {"output to /dev/full", toFull}, {"output to a closed pipe", toClosedPipe}};
    for (const auto& [name, spoil] : kinds)
        for (unsigned set = 1; set < 4; ++set) {
            const bool out = (set & 1) != 0;
            const bool err = (set & 2) != 0;
            const auto& spoilOne = spoil;
            const Action before = [=] {
                if (out)
                    spoilOne(STDOUT_FILENO);
                if (err)
                    spoilOne(STDERR_FILENO);
            };
            const std::string which = std::string(out ? " output" : "") + (err ? " error" : "");
            succeeds(report, name, "good request, standard" + which, before);
            Problems problems;
            requireRefused(problems, runBadWith(before), out ? "" : badText, err ? "" : badText);
            report.add(name, "bad request, standard" + which, problems);
        }
}

std::string mask(std::initializer_list<int> signals)
{
    unsigned long long bits = 0;
    for (const int number : signals)
        bits |= 1ULL << (number - 1);
    char text[20];
    snprintf(text, sizeof text, "%016llx", bits);
    return text;
}

void block(int number)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

void signalStates(Report& report)
{
    const std::string none = mask({});
    const auto ignoreChild = [] { signal(SIGCHLD, SIG_IGN); };
    const auto blockChild = [] { block(SIGCHLD); };
    const auto ignorePipe = [] { signal(SIGPIPE, SIG_IGN); };
    const auto blockPipe = [] { block(SIGPIPE); };
    succeeds(report, "SIGCHLD ignored", "", ignoreChild, none + ' ' + mask({SIGCHLD}));
    succeeds(report, "SIGCHLD blocked", "", blockChild, mask({SIGCHLD}) + ' ' + none);
    succeeds(report, "SIGPIPE ignored", "", ignorePipe, none + ' ' + mask({SIGPIPE}));
    succeeds(report, "SIGPIPE blocked", "", blockPipe, mask({SIGPIPE}) + ' ' + none);
    succeeds(
        report, "SIGCHLD, SIGPIPE, SIGTERM, SIGUSR1 ignored and blocked", "",
        [] {
            for (const int number : {SIGCHLD, SIGPIPE, SIGTERM, SIGUSR1}) {
                signal(number, SIG_IGN);
                block(number);
            }
        },
        mask({SIGCHLD, SIGPIPE, SIGTERM, SIGUSR1}) + ' ' + mask({SIGCHLD, SIGPIPE, SIGTERM, SIGUSR1}));
}

void limitDescriptors(rlim_t number)
{
    const rlimit limit = {number, number};
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// With few descriptors a run says which call had none left, and leaves everything whole; with a few more it
/// succeeds.
void lowLimit(Report& report)
{
    const std::string name = "RLIMIT_NOFILE 3 to 20";
    bool succeeded = false;
    for (rlim_t limit = 3; limit <= 20; ++limit) {
        const Outcome outcome = runWith(threeDomains, [=] { limitDescriptors(limit); });
        Problems problems;
        const std::string reason = strerror(EMFILE);
        problems.require(!outcome.hung && outcome.childrenLeft == 0, "the run hangs, or left children");
        if (outcome.status == 0) {
            // Even a failed restart would not make the run fail.
            problems.require(snapshot() == snapshotAfter(threeDomains), "not the requested state");
        } else {
            problems.require(!succeeded, "a lower limit was enough");
            const std::string& text = outcome.err;
            const bool byLoader = text.find("error while loading shared libraries") != std::string::npos &&
                                  outcome.status == W_EXITCODE(127, 0);
            const bool byProgram = outcome.status == W_EXITCODE(1, 0) &&
                                   text.find("Fatal error: ") != std::string::npos &&
                                   (text.find(reason) != std::string::npos ||
                                    text.find("basic_ios::clear: iostream error") != std::string::npos ||
                                    text.find("unable to open /etc/postfix/master.cf") != std::string::npos ||
                                    text.find("error while loading shared libraries") != std::string::npos);
            problems.require(byLoader || byProgram,
                             "wait status " + std::to_string(outcome.status) + ", no clear error: " + text);
            const std::string masterCf = readFile(masterCfPath);
            bool whole = masterCf == firstMasterCf;
            for (size_t number = 0; number <= threeDomains.bindings.size(); ++number)
                whole = whole || masterCf == threeDomains.masterCf(number);
            problems.require(whole, "master.cf is torn");
        }
        succeeded = succeeded || outcome.status == 0;
        problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
        problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
        requireNextRun(problems);
        report.add(name, "limit " + std::to_string(limit), problems);
    }
    Problems problems;
    problems.require(succeeded, "20 descriptors are not enough");
    report.add(name, "all", problems);
}

/// Opens every descriptor up to this number, for the programs to inherit.
void openMany(int last)
{
    limitDescriptors(8192);
    const int null = fcntl(open("/dev/null", O_RDONLY), F_DUPFD_CLOEXEC, last + 1);
    for (int fd = STDERR_FILENO + 1; fd <= last; ++fd)
        if (dup2(null, fd) == -1)
            _exit(97);
}

void manyDescriptors(Report& report)
{
    {
        const Outcome outcome = runWith(threeDomains, [] { openMany(1000); });
        Problems problems;
        requireSuccess(problems, threeDomains, outcome);
        // They belong to the caller; the tools in pipelines may inherit these and no others.
        std::string inherited;
        for (int fd = STDERR_FILENO + 1; fd <= 1000; ++fd)
            inherited += std::to_string(fd) + "=/dev/null,";
        const std::vector<std::string> notes = toolNotes();
        for (const std::string& note : notes) {
            const bool isScript = note.find("zorvorc") != std::string::npos;
            problems.require(note.substr(note.find('\t') + 1) ==
                                 (isScript ? std::string() : inherited) + ' ' + ordinarySignals,
                             "descriptors and signals: " + note);
        }
        report.add("1000 descriptors open at the start", "", problems);
    }
    {
        // More than select(2) takes.
        const Outcome outcome = runWith(threeDomains, [] { openMany(1100); });
        Problems problems;
        const std::string text = "Fatal error: zorvo::SystemError(select: Too many open files)\n";
        problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
        requireCleanEnd(problems, outcome);
        problems.requireEqual("standard output", text, outcome.out);
        problems.requireEqual("standard error", text, outcome.err);
        problems.requireEqual(masterCfPath, firstMasterCf, readFile(masterCfPath));
        problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
        requireNextRun(problems);
        report.add("1100 descriptors open at the start", "", problems);
    }
}

void masks(Report& report)
{
    for (const mode_t value : {0777U, 0U}) {
        const Outcome outcome = runWith(threeDomains, [=] { umask(value); });
        Problems problems;
        requireCleanEnd(problems, outcome);
        problems.require(outcome.status == 0,
                         "wait status " + std::to_string(outcome.status) + ", " + outcome.err);
        const Snapshot found = snapshot();
        // The other files are made by the tools, which inherit the mask.
        problems.requireEqual(masterCfPath, snapshotAfter(threeDomains).at(masterCfPath),
                              found.at(masterCfPath));
        problems.requireEqual(databasePath, threeDomains.records(), readFile(databasePath));
        problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
        chmod(mainCfPath, 0644);
        chmod(databasePath.c_str(), 0644);
        requireNextRun(problems);
        report.add(value == 0 ? "umask 0" : "umask 0777", "", problems);
    }
}

void surroundings(Report& report)
{
    succeeds(report, "working directory deleted", "", [] {
        if (mkdir("/run/sandbox/gone", 0755) != 0 || chdir("/run/sandbox/gone") != 0 ||
            rmdir("/run/sandbox/gone") != 0)
            _exit(97);
    });
    {
        resetWorld();
        Launch launch;
        launch.arguments = threeDomains.arguments();
        launch.input = threeDomains.input();
        launch.emptyEnvironment = true;
        const Outcome outcome = run(launch);
        Problems problems;
        requireSuccess(problems, threeDomains, outcome);
        report.add("no environment", "", problems);
    }
    for (const char* const locale :
         {"tr_TR.UTF-8", "xx_XX.no-such-charset", "../../../../etc", "C.UTF-8", ""}) {
        Request request = threeDomains;
        for (Binding& binding : request.bindings)
            binding.domain = "i" + binding.domain;
        std::string input = request.input();
        for (size_t at = input.find(": \"i"); at != std::string::npos; at = input.find(": \"i", at + 1))
            input[at + 3] = 'I'; // Turkish has another small letter for it
        resetWorld();
        Launch launch;
        launch.arguments = request.arguments();
        launch.input = input;
        launch.environment = {std::string("LC_ALL=") + locale, std::string("LANGUAGE=") + locale,
                              "ZORVO_LOG_LEVEL=99", "ZORVO_LOG_TRACE_ID=" + std::string(100000, '%')};
        const Outcome outcome = run(launch);
        Problems problems;
        requireSuccess(problems, request, outcome);
        report.add("hostile locale", locale, problems);
    }
}

} // namespace

void testEnvironment(Report& report, bool)
{
    closedDescriptors(report);
    uselessOutput(report);
    signalStates(report);
    masks(report);
    surroundings(report);
}

void testDescriptorLimits(Report& report, bool)
{
    lowLimit(report);
    manyDescriptors(report);
}

} // namespace faults
