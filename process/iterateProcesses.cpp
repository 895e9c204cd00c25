#include "process/iterateProcesses.h"

#include "common/eintr.h"
#include "common/zorvo_log.h"
#include "process/DirOwner.h"
#include "process/FdOwner.h"
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
#include <optional>
#include <string>
#include <utility>
#include <vector>

using zorvo::readAll;
using zorvo::retryOnEintr;
using zorvo::process::DirOwner;
using zorvo::process::FdOwner;

namespace {

/// Reads what /proc has about one process after the other.
class ProcessReader {
public:
    explicit ProcessReader(int procFd) : procFd_(procFd) {}

    /// Null when something that was asked for cannot be read.
    process_info* read(int pid, unsigned flags) noexcept;

private:
    /// "PID/FILE", relative to /proc; `file` may be empty.
    const char* _pathOf(const char* file) noexcept;
    bool _readFile(const char* file);
    bool _readStat();
    bool _readExecutable() noexcept;
    bool _readArguments();
    bool _readIds();
    void _readOwner() noexcept;

    int procFd_;
    process_info info_ = {};
    char path_[64] = "";
    std::string text_;
    std::string command_;
    std::string arguments_;
    std::vector<char*> argv_;
    char executable_[4096 + 1] = "";
};

process_info* ProcessReader::read(int pid, unsigned flags) noexcept
{
    info_ = process_info();
    info_.pid = pid;
    info_.parent_pid = -1;
    info_.owner_uid = -1;
    std::fill(std::begin(info_.uid), std::end(info_.uid), -1);
    std::fill(std::begin(info_.gid), std::end(info_.gid), -1);
    try {
        if ((flags & (PROCESS_INFO_PARENT | PROCESS_INFO_COMMAND)) != 0 && !_readStat())
            return nullptr;
        if ((flags & PROCESS_INFO_EXECUTABLE) != 0 && !_readExecutable())
            return nullptr;
        if ((flags & PROCESS_INFO_ARGUMENTS) != 0 && !_readArguments())
            return nullptr;
        if ((flags & (PROCESS_INFO_UIDS | PROCESS_INFO_GIDS)) != 0 && !_readIds())
            return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if ((flags & PROCESS_INFO_OWNER) != 0)
        _readOwner();
    return &info_;
}

const char* ProcessReader::_pathOf(const char* file) noexcept
{
    (void)std::snprintf(path_, sizeof path_, "%d%s%s", info_.pid, *file != '\0' ? "/" : "", file);
    return path_;
}

bool ProcessReader::_readFile(const char* file)
{
    const char* const path = _pathOf(file);
    const FdOwner fd(retryOnEintr([&] { return ::openat(procFd_, path, O_RDONLY | O_CLOEXEC); }));
    std::optional<std::string> text = fd.isOpen() ? readAll(fd.get()) : std::nullopt;
    if (text)
        text_ = std::move(*text);
    return text.has_value();
}

bool ProcessReader::_readStat()
{
    if (!_readFile("stat") || !zorvo::process::parseProcStat(text_, command_, info_.parent_pid))
        return false;
    info_.command = command_.c_str();
    return true;
}

bool ProcessReader::_readExecutable() noexcept
{
    const char* const path = _pathOf("exe");
    const ssize_t length =
        retryOnEintr([&] { return ::readlinkat(procFd_, path, executable_, sizeof executable_ - 1); });
    if (length == -1)
        return false;
    executable_[length] = '\0';
    info_.executable = executable_;
    return true;
}

bool ProcessReader::_readArguments()
{
    if (!_readFile("cmdline"))
        return false;
    arguments_.swap(text_);
    zorvo::process::splitCmdline(arguments_, argv_);
    info_.argv = argv_.data();
    return true;
}

bool ProcessReader::_readIds()
{
    return _readFile("status") && zorvo::process::parseProcStatus(text_, info_.uid, info_.gid);
}

void ProcessReader::_readOwner() noexcept
{
    struct stat state;
    const char* const path = _pathOf("");
    if (retryOnEintr([&] { return ::fstatat(procFd_, path, &state, 0); }) == 0 && S_ISDIR(state.st_mode))
        info_.owner_uid = static_cast<int>(state.st_uid);
}

/// The pid that an entry of /proc stands for; 0 when it is not a process.
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
        process_info* const info = pid != 0 ? reader.read(pid, flags) : nullptr;
        if (info == nullptr)
            continue;
        result = callback(info, context);
        if (result < 1)
            break;
    }
    return result;
}
