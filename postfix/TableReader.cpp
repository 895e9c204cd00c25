#include "postfix/TableReader.h"

#include "postfix/PostfixError.h"
#include "postfix/PostfixTool.h"

#include <sys/wait.h>

#include <algorithm>
#include <string_view>

namespace zorvo::mail::postfix {

namespace {

/// Lines of "KEY\tVALUE".
TableRecords parseRecords(std::string_view output)
{
    TableRecords records;
    while (!output.empty()) {
        const std::string_view line = output.substr(0, output.find('\n'));
        output.remove_prefix(std::min(line.size() + 1, output.size()));
        const size_t tab = line.find('\t');
        if (tab != std::string_view::npos)
            records.emplace(line.substr(0, tab), line.substr(tab + 1));
    }
    return records;
}

} // namespace

TableRecords TableReader::readAll(const std::string& table)
{
    const ToolResult result = runPostfixTool({postmapPath, "-s", table}, ToolOutput::Captured);
    requireToolSuccess(result);
    return parseRecords(result.output);
}

TableRecords TableReader::lookUp(const std::string& table, const std::vector<std::string>& keys)
{
    std::string lines;
    for (const std::string& key : keys) {
        if (!key.empty() && key.find('\n') == std::string::npos)
            lines.append(key).append(1, '\n');
    }
    if (lines.empty())
        return {};
    const auto feedAll = [&lines](std::vector<char>& buffer) {
        buffer.assign(lines.begin(), lines.end());
        return false;
    };
    const ToolResult result = runPostfixTool({postmapPath, "-q", "-", table}, ToolOutput::Captured, feedAll);
    // It exits with 1 after an error, and also where no key was found.
    if (!WIFEXITED(result.status) ||
        (WEXITSTATUS(result.status) != 0 && !checkOutput(result.errorOutput, false)))
        throw PostfixDatabaseError(result.errorOutput);
    return parseRecords(result.output);
}

} // namespace zorvo::mail::postfix
