// proc_parsers: the texts of /proc (proc(5)) taken apart, as pure functions of the text.
//
// A process chooses its own name and arguments, so the texts are hostile input. All functions are linear in
// the text and accept any bytes.
#pragma once

#include <string>
#include <vector>

/// The number that a name in /proc/self/fd or /proc stands for; -1 for anything but a decimal number of at
/// most 2147483647 without a leading zero. Async-signal-safe.
int proc_pid_fd_str_to_int(const char* name) noexcept;

namespace zorvo::process {

/// Command name and parent of /proc/PID/stat: "PID (NAME) STATE PARENT ...". The name ends at white space or
/// after 4096 bytes, and loses one ")" at its end. After a name with white space the parent is usually not to
/// be found: -1. False, with nothing changed, when there is no name.
bool parseProcStat(const std::string& text, std::string& command, int& parentPid);

/// Real, effective, saved and file-system ids after "Uid:" and "Gid:" in /proc/PID/status; the words may
/// stand anywhere, and are looked for until both are found. The kernel's numbers are unsigned: 4294967295
/// comes out as -1. False when one of the words is missing.
bool parseProcStatus(const std::string& text, int (&uid)[4], int (&gid)[4]);

/// The arguments in /proc/PID/cmdline, split at NUL bytes, as a null-terminated vector of pointers into
/// `text`; a last argument without its NUL counts.
void splitCmdline(std::string& text, std::vector<char*>& argv);

} // namespace zorvo::process
