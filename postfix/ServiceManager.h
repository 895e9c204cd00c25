// ServiceManager: starts, stops and queries Postfix and the mail filter through the panel's service script.
// Whether Postfix runs is judged from its own processes: the pid file of master(8) and its child qmgr(8).
#pragma once

#include <string>

/// Run the panel's service script with a service and an action; 0 or its exit code, -1 when it was killed.
/// The first is silent about a failure, the second reports it with the script's output.
int invoke_zorvorc(const char* service, const char* action);
int invoke_zorvorc_keep_fail_msg(const char* service, const char* action);

/// Register a service with the panel, or remove it; silent; 0 or the tool's exit code.
int enable_service(const char* name);
int disable_service(const char* name);

/// Prints "is running" for 0 and "is stopped" for anything else as a line on standard output, whole even if a
/// signal interrupts it. Returns 0.
int print_status(int status);

namespace zorvo::mail::postfix {

/// Every operation returns 0 for success or "running". Those that start Postfix wait up to five seconds for
/// its queue manager. None throws.
class ServiceManager {
public:
    static int startServer();   ///< Nothing to do when it runs.
    static int stopServer();    ///< Nothing to do when it does not run.
    static int restartServer(); ///< The script's failure, or 1 when no queue manager comes up.
    static int tryRestartServer();
    static int reloadServer();

    static int startMilter();
    static int stopMilter();
    static int restartMilter();
    static int statusMilter();

    /// 0 when Postfix runs, 1 when not. Looks once, and then up to `attempts` times more, a second apart.
    static int statusServer(long attempts);

    /// The number in /var/spool/postfix/pid/master.pid; -1 without one.
    static int getMasterPid();
};

} // namespace zorvo::mail::postfix
