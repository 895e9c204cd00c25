// Run: one run of the program in a small world of its own, and at most one fault in it.
//
// A fault strikes one system call, counted from the first one of main: it fails without being carried out, or
// fails although it was carried out (what an interrupted close(2) does), or the process is killed right
// before or right after it. The program is followed with ptrace(2), a child of it until it executes its
// program.
#pragma once

#include <functional>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace faults {

enum class Effect { None, Fail, FailAfter, Kill, KillAfter };

struct Fault {
    Effect effect = Effect::None;
    int process = 0;         ///< 0 is the program, N its N-th child.
    std::string call;        ///< As strace(1) names it.
    unsigned occurrence = 1; ///< Counted for each process and call alone.
    int error = 0;
};

/// One system call.
struct Event {
    int process = 0;
    std::string call;
    unsigned occurrence = 0;
    std::string detail; ///< The path or the descriptor that it is about; random characters are "XXXXXX".
    std::vector<unsigned long> arguments;
    long result = 0; ///< The negated error where it failed.
};

/// How to run the program.
struct Launch {
    std::vector<std::string> arguments;
    std::string input;        ///< What standard input gives.
    bool inputIsFile = false; ///< A regular file rather than a pipe.
    bool emptyEnvironment = false;
    std::vector<std::string> environment; ///< Further variables.
    std::vector<std::string> wrapper;     ///< A program and arguments that run the program.
    std::function<void()> before;         ///< Called in the child, right before the program is executed.
    bool traced = false;                  ///< Follow it, for the events; implied by a fault.
    Fault fault;
    std::function<void(const Event&)> onEvent; ///< Told of every call that has ended (traced runs).
    unsigned timeout = 30;                     ///< Seconds until the run counts as one that hangs.
};

/// How a run ended.
struct Outcome {
    int pid = 0;
    int status = 0; ///< As from waitpid(2).
    std::string out;
    std::string err;
    bool hung = false;
    unsigned childrenLeft = 0;            ///< Children that outlived the program, or were not waited for.
    std::vector<std::string> descriptors; ///< Open at the end, except 0, 1 and 2 (traced runs).
    std::vector<Event> events;            ///< In order of their ends (traced runs).
    bool struck = false;                  ///< The fault came to pass, ...
    Event target;                         ///< ...at this call.
    rusage usage = {};

    /// How often a call of the program itself was carried out with success.
    unsigned completed(const std::string& call) const;
};

/// The program under test.
extern std::string programPath;

/// Runs it to its end, and until every process that it left behind has ended, too.
Outcome run(const Launch& launch);

/// The error's name, as "ENOSPC", of those that the sweeps use.
std::string errorName(int error);

} // namespace faults
