#include "postfix/PostfixTool.h"

#include "postfix/PostfixError.h"

namespace zorvo::mail::postfix {

namespace {

/// All of a wait status except the core dump bit (waitpid(2)).
constexpr int statusMask = 0xff7f;

bool beginsWith(const std::string& line, std::string::size_type at, const char* word)
{
    return line.compare(at, std::char_traits<char>::length(word), word) == 0;
}

/// Judges one line, "NAME: LEVEL TEXT" or anything else.
bool checkLine(const std::string& line, bool strict)
{
    const std::string::size_type colon = line.find(':');
    if (colon == std::string::npos || colon + 1 == line.size())
        return true;
    const std::string::size_type level = line.find_first_not_of(' ', colon + 1);
    if (level == std::string::npos || level + 1 == line.size())
        return true;
    if (line.find(':', level + 1) == std::string::npos)
        return true;
    if (beginsWith(line, level, "panic:") || beginsWith(line, level, "fatal:") ||
        beginsWith(line, level, "error:"))
        return false;
    return !strict || beginsWith(line, level, "warning:");
}

} // namespace

ToolResult runPostfixTool(const ToolCommand& command, ToolOutput output, const process::InputSource& input)
{
    ToolResult result;
    process::Pipe pipe;
    if (input) {
        pipe.stdinFd = process::kPipeFd;
        pipe.stdinSource = input;
    }
    if (output == ToolOutput::Captured) {
        pipe.stdoutFd = process::kPipeFd;
        pipe.stdoutReceiver = process::makeStringReceiver(result.output);
    }
    pipe.stderrFd = process::kPipeFd;
    pipe.stderrReceiver = process::makeStringReceiver(result.errorOutput);
    pipe.processes().push_back(command);
    result.status = pipe.run();
    return result;
}

bool toolSucceeded(int status) noexcept
{
    return (status & statusMask) == 0;
}

void requireToolSuccess(const ToolResult& result)
{
    if (!toolSucceeded(result.status))
        throw PostfixConfigurationError(result.errorOutput.empty() ? "unknown error" : result.errorOutput);
}

bool checkOutput(const std::string& output, bool strict)
{
    for (std::string::size_type begin = 0; begin < output.size();) {
        std::string::size_type end = output.find('\n', begin);
        if (end == std::string::npos)
            end = output.size();
        if (!checkLine(output.substr(begin, end - begin), strict))
            return false;
        begin = end + 1;
    }
    return true;
}

} // namespace zorvo::mail::postfix
