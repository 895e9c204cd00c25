// SignalStates: which signals a process blocks and ignores.
#pragma once

#include "support/ScratchDir.h"

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

namespace support {

/// The bit of a signal in the masks of /proc/PID/status.
constexpr uint64_t bit(int signal)
{
    return uint64_t{1} << (signal - 1);
}

/// Blocked and ignored signals of a process.
struct Signals {
    uint64_t blocked = 0;
    uint64_t ignored = 0;
};

inline bool operator==(const Signals& one, const Signals& other)
{
    return one.blocked == other.blocked && one.ignored == other.ignored;
}

inline std::ostream& operator<<(std::ostream& stream, const Signals& signals)
{
    return stream << std::hex << "blocked " << signals.blocked << ", ignored " << signals.ignored << std::dec;
}

/// From the text of a /proc/PID/status.
inline Signals signalsIn(const std::string& status)
{
    Signals signals;
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 7, "SigBlk:") == 0)
            signals.blocked = std::stoull(line.substr(7), nullptr, 16);
        if (line.compare(0, 7, "SigIgn:") == 0)
            signals.ignored = std::stoull(line.substr(7), nullptr, 16);
    }
    return signals;
}

/// Of this process.
inline Signals ownSignals()
{
    return signalsIn(readFile("/proc/self/status"));
}

} // namespace support
