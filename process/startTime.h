// startTime: when a process was started, from /proc (proc(5)).
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace zorvo::process {

/// Field 22 of /proc/PID/stat, clock ticks from boot to the start. The name in it may hold anything. Nothing
/// where the text is not of that form.
std::optional<unsigned long long> parseStartTicks(const std::string& stat);

/// The start by the clock of the day, to one clock tick (sysconf(3), _SC_CLK_TCK) downwards. Nothing for a
/// process that is not there. A clock that was set since moves it.
std::optional<timespec> startTime(int pid);

} // namespace zorvo::process
