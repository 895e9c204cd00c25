// checkOutput: judges what Postfix's command-line tools print; and how the end of such a tool is judged.
#pragma once

#include <string>

namespace zorvo::mail::postfix {

/// True when `output` holds no error diagnostic: no line "NAME: LEVEL TEXT" whose level is "panic:", "fatal:"
/// or "error:" (with `strict`, none with another level than "warning:") and is followed by a further colon.
/// Lines of another form never count.
bool checkOutput(const std::string& output, bool strict);

/// True when a tool of wait status `status` exited with 0; a core dump bit is ignored.
bool toolSucceeded(int status) noexcept;

/// Throws PostfixConfigurationError with the tool's standard error, or "unknown error" where that is empty,
/// unless toolSucceeded(status).
void requireToolSuccess(int status, const std::string& errorOutput);

} // namespace zorvo::mail::postfix
