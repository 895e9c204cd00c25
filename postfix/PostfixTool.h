// PostfixTool: runs one of Postfix's command-line tools to its end, and judges how it ended and what it said.
//
//     const ToolResult result = runPostfixTool({postconfPath, "-d", name}, ToolOutput::Captured);
//     requireToolSuccess(result);
//
// A run installs a SIGCHLD handler while it lasts and blocks until the tool has ended (see process/Pipe.h).
#pragma once

#include "process/Pipe.h"

#include <string>

namespace zorvo::mail::postfix {

inline constexpr const char* postconfPath = "/usr/sbin/postconf";
inline constexpr const char* postmapPath = "/usr/sbin/postmap";

/// A tool's path and its arguments, of which the constructor takes those before the first empty one;
/// `arguments.push_back()` adds any.
using ToolCommand = process::Parameters<process::PipeProcessFlags>;

/// Where the tool's standard output goes: to ours, or into the result.
enum class ToolOutput { Inherited, Captured };

/// What a run left.
struct ToolResult {
    int status = 0;          ///< As from waitpid(2).
    std::string output;      ///< Standard output; empty where it was inherited.
    std::string errorOutput; ///< Standard error.
};

/// Runs the tool. With an `input` its standard input is fed from there, otherwise it is inherited. Throws
/// only what Pipe::run() throws: the tool's own failure is in the result.
[[nodiscard]] ToolResult runPostfixTool(const ToolCommand& command, ToolOutput output,
                                        const process::InputSource& input = process::InputSource());

/// True when a tool of wait status `status` exited with 0; a core dump bit is ignored.
[[nodiscard]] bool toolSucceeded(int status) noexcept;

/// Throws PostfixConfigurationError with the tool's standard error, or "unknown error" where that is empty,
/// unless the tool succeeded.
void requireToolSuccess(const ToolResult& result);

/// True when `output` holds no error diagnostic: no line "NAME: LEVEL TEXT" whose level is "panic:", "fatal:"
/// or "error:" (with `strict`, none with another level than "warning:") and is followed by a further colon.
/// Lines of another form never count.
[[nodiscard]] bool checkOutput(const std::string& output, bool strict);

} // namespace zorvo::mail::postfix
