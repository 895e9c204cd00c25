#include "postfix/ServiceManager.h"

#include "common/eintr.h"
#include "common/writeText.h"
#include "process/fork_exec.h"
#include "process/iterateProcesses.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

namespace {

const char* const zorvorcPath = "/usr/local/maru/admin/sbin/zorvorc";
const char* const registerServicePath = "/usr/local/maru/admin/sbin/register_service";

/// Runs a panel tool with two arguments; `quiet` as for fork_execv_log.
int runTool(const char* path, const char* first, const char* second, int quiet)
{
    // exec takes the vector without const for historical reasons and changes nothing (POSIX, exec).
    char* const argv[] = {const_cast<char*>(path), const_cast<char*>(first), const_cast<char*>(second),
                          nullptr};
    return fork_execv_log(path, argv, quiet);
}

} // namespace

int invoke_zorvorc(const char* service, const char* action)
{
    return runTool(zorvorcPath, service, action, 1);
}

int invoke_zorvorc_keep_fail_msg(const char* service, const char* action)
{
    return runTool(zorvorcPath, service, action, 0);
}

int enable_service(const char* name)
{
    return runTool(registerServicePath, "--enable", name, 1);
}

int disable_service(const char* name)
{
    return runTool(registerServicePath, "--disable", name, 1);
}

int print_status(int status)
{
    zorvo::writeText(stdout, {status != 0 ? "is stopped\n" : "is running\n"});
    return 0;
}

namespace zorvo::mail::postfix {

namespace {

const char* const masterPidPath = "/var/spool/postfix/pid/master.pid";
const char* const postfixService = "postfix";
const char* const milterService = "qfilter";
constexpr long startAttempts = 5;

/// Matches the queue manager of the master whose pid `context` points to.
int findQmgrInfo(process_info* info, void* context)
{
    const int masterPid = *static_cast<const int*>(context);
    return info->parent_pid == masterPid && std::strcmp(info->command, "qmgr") == 0 ? 0 : 1;
}

void sleepOneSecond()
{
    struct timespec rest = {1, 0};
    retryOnEintr([&] { return ::nanosleep(&rest, &rest); });
}

} // namespace

int ServiceManager::getMasterPid()
{
    std::ifstream file;
    openRetrying(file, masterPidPath, std::ios::in);
    int pid = -1;
    return file >> pid ? pid : -1;
}

int ServiceManager::statusServer(long attempts)
{
    for (long tries = 0;; ++tries) {
        int masterPid = getMasterPid();
        if (masterPid != -1 &&
            iterateProcesses(PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND, findQmgrInfo, &masterPid) == 0)
            return 0;
        if (tries >= attempts)
            return 1;
        sleepOneSecond();
    }
}

int ServiceManager::startServer()
{
    if (statusServer(0) == 0)
        return 0;
    const int result = invoke_zorvorc(postfixService, "start");
    return result != 0 ? result : statusServer(startAttempts);
}

int ServiceManager::stopServer()
{
    return statusServer(0) == 0 ? invoke_zorvorc(postfixService, "stop") : 0;
}

int ServiceManager::restartServer()
{
    const int result = invoke_zorvorc(postfixService, "restart");
    return result != 0 ? result : statusServer(startAttempts);
}

int ServiceManager::tryRestartServer()
{
    return invoke_zorvorc(postfixService, "try-restart");
}

int ServiceManager::reloadServer()
{
    return invoke_zorvorc(postfixService, "reload");
}

int ServiceManager::startMilter()
{
    return invoke_zorvorc(milterService, "start");
}

int ServiceManager::stopMilter()
{
    return invoke_zorvorc(milterService, "stop");
}

int ServiceManager::restartMilter()
{
    return invoke_zorvorc(milterService, "restart");
}

int ServiceManager::statusMilter()
{
    return invoke_zorvorc(milterService, "status");
}

} // namespace zorvo::mail::postfix
