// ToolRuns: the runs of other programs that make up a run of the program, in order. What a test says about
// the position of a run, or about the number of a child, it takes from here.
#pragma once

#include "support/FixedPaths.h"

#include <algorithm>
#include <string>
#include <vector>

namespace support {

/// The argument vector of one run of a tool, element 0 being the program's path.
using Command = std::vector<std::string>;

/// The parameters of main.cf that every run removes, in order.
inline const std::vector<std::string> removedParameters = {"smtp_bind_address", "smtp_bind_address6"};

inline const Command askDirectory = {postconfPath, "-h", "config_directory"};
/// What is asked when that fails: the built-in default.
inline const Command askDefaultDirectory = {postconfPath, "-h", "-d", "config_directory"};
inline const Command emptyTable = {postmapPath, "-r", tableName};
inline const Command addRecord = {postmapPath, "-r", "-i", tableName};
inline const Command restart = {serviceScriptPath, "postfix", "restart"};

inline Command removeParameter(const std::string& name)
{
    return {postconfPath, "-X", name};
}

inline Command setParameter(const std::string& assignment)
{
    return {postconfPath, "-e", assignment};
}

/// Whether postmap(1), run so, reads records ("-i") or keys ("-" in place of a key) on standard input.
inline bool readsInput(const Command& command)
{
    return std::any_of(command.begin(), command.end(),
                       [](const std::string& word) { return word == "-i" || word == "-"; });
}

/// What every run does first: it removes what earlier runs set up.
inline std::vector<Command> wipe()
{
    std::vector<Command> runs = {askDirectory};
    for (const std::string& name : removedParameters)
        runs.push_back(removeParameter(name));
    runs.push_back(emptyTable);
    runs.push_back(askDirectory);
    return runs;
}

/// The whole of a run that then does `further`.
inline std::vector<Command> afterWipe(const std::vector<Command>& further)
{
    std::vector<Command> runs = wipe();
    runs.insert(runs.end(), further.begin(), further.end());
    return runs;
}

/// The part of the wipe that ends with `last`, which is not the query.
inline std::vector<Command> wipeUpTo(const Command& last)
{
    std::vector<Command> runs;
    for (const Command& command : wipe()) {
        runs.push_back(command);
        if (command == last)
            break;
    }
    return runs;
}

/// The part of the wipe before `next`, which is not the query.
inline std::vector<Command> wipeBefore(const Command& next)
{
    std::vector<Command> runs = wipeUpTo(next);
    runs.pop_back();
    return runs;
}

} // namespace support
