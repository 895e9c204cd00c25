// RealPostfix: runs Postfix's own tools, and other commands, to verify what the program made.
#pragma once

#include "support/FixedPaths.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace support {

/// How a shell command ended: wait status and standard output.
struct CommandResult {
    int status = -1;
    std::string out;
};

inline CommandResult runCommand(const std::string& command)
{
    FILE* const pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr)
        throw std::runtime_error("popen");
    CommandResult result;
    char part[4096];
    for (size_t got = 0; (got = std::fread(part, 1, sizeof part, pipe)) > 0;)
        result.out.append(part, got);
    result.status = ::pclose(pipe);
    return result;
}

/// The standard output of a shell command. Throws when that does not exit with 0.
inline std::string outputOf(const std::string& command)
{
    const CommandResult result = runCommand(command);
    if (result.status != 0)
        throw std::runtime_error("failed: " + command);
    return result.out;
}

/// Throws where postfix(1) finds fault with the configuration.
inline void checkPostfix()
{
    outputOf("/usr/sbin/postfix check 2>&1");
}

/// Makes main.cf look old: Postfix's tools wait while it was changed in the last two seconds.
inline void ageMainCf()
{
    const timespec longAgo[2] = {{1000000000, 0}, {1000000000, 0}};
    if (::utimensat(AT_FDCWD, mainCfPath, longAgo, 0) != 0)
        throw std::runtime_error("cannot change the time of main.cf");
}

} // namespace support
