// log: where the stand-in of the tools notes its runs.
#pragma once

namespace faults {

inline constexpr char toolLogPath[] = "/run/sandbox/log";

} // namespace faults
