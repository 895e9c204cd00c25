// iterateProcesses: a walk over the processes in /proc (proc(5)).
//
// It is a snapshot: a process that ends during the walk, or whose requested data cannot be read, is
// silently skipped.
#pragma once

/// What a process's record holds; combine the wanted ones with |.
enum process_info_flags : unsigned {
    PROCESS_INFO_PARENT = 1,  ///< parent_pid and command, from /proc/PID/stat.
    PROCESS_INFO_COMMAND = 2, ///< The same.
    PROCESS_INFO_EXECUTABLE = 4,
    PROCESS_INFO_ARGUMENTS = 8,
    PROCESS_INFO_UIDS = 16, ///< uids and gids, from /proc/PID/status.
    PROCESS_INFO_GIDS = 32, ///< The same.
    PROCESS_INFO_OWNER = 64
};

/// One process. Belongs to the walk with everything it points to, valid only during the callback. What was
/// not asked for is null or -1.
struct process_info {
    int pid;
    int parent_pid;         ///< -1 where a name with white space hides it in /proc/PID/stat.
    const char* command;    ///< As in /proc/PID/stat, up to the first white space, at most 4096 bytes.
    const char* executable; ///< Target of /proc/PID/exe, at most 4096 bytes.
    char* const* argv;      ///< /proc/PID/cmdline, null-terminated; empty for kernel threads and zombies.
    int uid[4];             ///< Real, effective, saved, file-system.
    int gid[4];             ///< The same four.
    int owner_uid;          ///< Owner of /proc/PID; -1 when it cannot be read.
};

/// Called for each process; a result below 1 stops the walk.
using process_callback = int (*)(process_info* info, void* context);

/// Calls `callback` with `context` for every process except pid 0, filled as `flags` ask. Returns the last
/// result of the callback, 1 when there was no process, -1 (logged at LOG_ERR) when /proc cannot be opened.
int iterateProcesses(unsigned flags, process_callback callback, void* context);
