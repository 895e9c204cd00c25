// FailingCall: one call of one C library function fails inside a scope; AtCall: something happens right
// before each call of one; ScriptedWait: one waitpid(2) answers what the test says; UntypedEntries:
// readdir(3) does not tell the type of a file.
//
// The functions are interposed for the whole test program (FailingCall.cpp) and pass everything on while no
// scope is open. Forked children inherit an open scope; calls are counted in shared memory, so the parent
// sees what happened in them. Calls that the C library makes inside itself (popen, opendir) are not seen.
#pragma once

#include <sys/types.h>

namespace faults {

enum class Call {
    open,       ///< open(2), openat(2)
    pipe,       ///< pipe(2), pipe2(2)
    close,      ///< close(2); the descriptor is released all the same, as Linux does
    closeNever, ///< close(2); the descriptor stays open
    read,
    write,
    fork,
    dup2,
    fcntl, ///< fcntl(2), any command
    setFd, ///< fcntl(2) with F_SETFD
    setFl, ///< fcntl(2) with F_SETFL
    select,
    waitpid,
    sigaction,
    sigprocmask,
    setsid,
    getrlimit,
    chdir,
    exec, ///< execv(3), execvp(3), execve(2)
    closeRange,
};

/// Whose calls count: those of the process that opened the scope, or those of its descendants.
enum class Who { parent, child };

class FailingCall {
public:
    /// The `nth` call (the first is 1) from now on returns -1 with `error`; all others work.
    FailingCall(Call call, int nth, int error, Who who = Who::parent);
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
    ~FailingCall();

    /// True once the call has failed.
    bool happened() const;
    /// Ends the scope early: calls pass from here on and are not counted.
    void stop();
};

class AtCall {
public:
    /// Calls `action` before the `nth` call from now on in this process; the call itself works. Not beside a
    /// FailingCall.
    AtCall(Call call, int nth, void (*action)());
    AtCall(const AtCall&) = delete;
    AtCall& operator=(const AtCall&) = delete;
    ~AtCall();

    /// True once the action was called.
    bool happened() const;
};

class UntypedEntries {
public:
    UntypedEntries();
    UntypedEntries(const UntypedEntries&) = delete;
    UntypedEntries& operator=(const UntypedEntries&) = delete;
    ~UntypedEntries();
};

class ScriptedWait {
public:
    /// The next waitpid(2) of this process returns `result` and stores `status`, without waiting.
    ScriptedWait(pid_t result, int status);
    ScriptedWait(const ScriptedWait&) = delete;
    ScriptedWait& operator=(const ScriptedWait&) = delete;
    ~ScriptedWait();
};

} // namespace faults
