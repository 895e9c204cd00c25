// iterateProcesses: see the header.
#include "process/iterateProcesses.h"

#include "common/eintr.h"
#include "common/zorvo_log.h"
#include "process/DirOwner.h"
#include "process/FdOwner.h"
#include "process/fork_exec.h"
#include "process/proc_parsers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

using zorvo::retryOnEintr;
using zorvo::process::DirOwner;
using zorvo::process::FdOwner;

namespace {

/// Reads what /proc tells about one process after the other; the buffers are kept from each to the next.
class ProcessReader {
public:
    explicit ProcessReader(int procFd) : procFd_(procFd) {}

    /// Null when something that was asked for cannot be read.
    const process_info* read(int pid, unsigned flags) noexcept;

private:
    /// "PID/FILE", relative to /proc; `file` may be empty.
    const char* pathOf(const char* file) noexcept;
    bool readFile(const char* file);
    bool readStat();
    bool readExecutable() noexcept;
    bool readArguments();
    bool readIds();
    void readOwner() noexcept;

    int procFd_;
    process_info info_ = {};
    char path_[64] = "";
    std::string text_;
    std::string command_;
    std::string arguments_;
    std::vector<char*> argv_;
    char executable_[4096 + 1] = "";
};

const process_info* ProcessReader::read(int pid, unsigned flags) noexcept
{
    info_ = process_info();
    info_.pid = pid;
    info_.parent_pid = -1;
    info_.owner_uid = -1;
    std::fill(std::begin(info_.uid), std::end(info_.uid), static_cast<uid_t>(-1));
    std::fill(std::begin(info_.gid), std::end(info_.gid), static_cast<gid_t>(-1));
    try {
        if ((flags & (PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND)) != 0 && !readStat())
            return nullptr;
        if ((flags & PROCESS_INFO_EXECUTABLE) != 0 && !readExecutable())
            return nullptr;
        if ((flags & PROCESS_INFO_ARGUMENTS) != 0 && !readArguments())
            return nullptr;
        if ((flags & (PROCESS_INFO_UIDS | PROCESS_INFO_GIDS)) != 0 && !readIds())
            return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if ((flags & PROCESS_INFO_OWNER) != 0)
        readOwner();
    return &info_;
}

const char* ProcessReader::pathOf(const char* file) noexcept
{
    (void)std::snprintf(path_, sizeof path_, "%d%s%s", info_.pid, *file != '\0' ? "/" : "", file);
    return path_;
}

bool ProcessReader::readFile(const char* file)
{
    text_.clear();
    const char* const path = pathOf(file);
    const FdOwner fd(retryOnEintr([&] { return ::openat(procFd_, path, O_RDONLY | O_CLOEXEC); }));
    char chunk[4096];
    while (fd.isOpen()) {
        const ssize_t got = retryOnEintr([&] { return ::read(fd.get(), chunk, sizeof chunk); });
        if (got <= 0)
            return got == 0;
        text_.append(chunk, static_cast<size_t>(got));
    }
    return false;
}

bool ProcessReader::readStat()
{
    if (!readFile("stat") || !zorvo::process::parseProcStat(text_, command_, info_.parent_pid))
        return false;
    info_.command = command_.c_str();
    return true;
}

bool ProcessReader::readExecutable() noexcept
{
    const char* const path = pathOf("exe");
    const ssize_t length =
        retryOnEintr([&] { return ::readlinkat(procFd_, path, executable_, sizeof executable_ - 1); });
    if (length == -1)
        return false;
    executable_[length] = '\0';
    info_.executable = executable_;
    return true;
}

bool ProcessReader::readArguments()
{
    if (!readFile("cmdline"))
        return false;
    arguments_.swap(text_);
    zorvo::process::splitCmdline(arguments_, argv_);
    info_.argv = argv_.data();
    return true;
}

bool ProcessReader::readIds()
{
    return readFile("status") && zorvo::process::parseProcStatus(text_, info_.uid, info_.gid);
}

void ProcessReader::readOwner() noexcept
{
    struct stat state;
    const char* const path = pathOf("");
    if (retryOnEintr([&] { return ::fstatat(procFd_, path, &state, 0); }) == 0 && S_ISDIR(state.st_mode))
        info_.owner_uid = static_cast<int>(state.st_uid);
}

/// The pid that an entry of /proc stands for; 0 when it is none.
int pidOf(const dirent& entry, int procFd)
{
    const int pid = proc_pid_fd_str_to_int(entry.d_name);
    if (pid <= 0)
        return 0;
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR ? pid : 0;
    struct stat state;
    const bool known =
        retryOnEintr([&] { return ::fstatat(procFd, entry.d_name, &state, AT_SYMLINK_NOFOLLOW); }) == 0;
    return known && S_ISDIR(state.st_mode) ? pid : 0;
}

} // namespace

int iterateProcesses(unsigned flags, process_callback callback, void* context)
{
    DirOwner proc("/proc");
    if (!proc.isOpen()) {
        zorvo_log(LOG_ERR, "unable to open /proc filesystem: %s\n", std::strerror(errno));
        return -1;
    }
    ProcessReader reader(proc.fd());
    int result = 1;
    while (const dirent* const entry = proc.next()) {
        const int pid = pidOf(*entry, proc.fd());
        const process_info* const info = pid != 0 ? reader.read(pid, flags) : nullptr;
        if (info == nullptr)
            continue;
        result = callback(info, context);
        if (result < 1)
            break;
    }
    return result;
}
