// proc_parsers: the texts of /proc/PID (proc(5)) taken apart, as pure functions of the text.
//
// A process chooses its own name and arguments, so the texts are hostile input. All functions are linear in
// the text and accept any bytes.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace zorvo::process {

/// Command name and parent of /proc/PID/stat: "PID (NAME) STATE PARENT ...". The name ends at white space or
/// after 4096 bytes, and loses one ")" at its end. Behind a name with white space the parent is mostly not to
/// be found: -1. False, with nothing changed, when there is no name.
bool parseProcStat(const std::string& text, std::string& command, int& parentPid);

/// Real, effective, saved and file-system ids behind "Uid:" and "Gid:" in /proc/PID/status; the words may
/// stand anywhere, and are looked for until both were found. False when one of them is missing.
bool parseProcStatus(const std::string& text, uid_t (&uid)[4], gid_t (&gid)[4]);

/// The arguments in /proc/PID/cmdline, split at NUL bytes, as a null-terminated vector of pointers into
/// `text`; a last argument without its NUL counts.
void splitCmdline(std::string& text, std::vector<char*>& argv);

} // namespace zorvo::process
