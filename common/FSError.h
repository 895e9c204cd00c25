// FSError: a failed change of a file that has both a temporary and a final name.
#pragma once

#include <filesystem>
#include <string>

namespace zorvo::mail {

/// A std::filesystem::filesystem_error whose message names the operation, the final name and the file that
/// was to become it: "rename for TARGET (PATH)".
class FSError : public std::filesystem::filesystem_error {
public:
    /// `code` is an errno value; 0 stands for ECANCELED. `path` becomes path1().
    FSError(const std::string& operation, const std::filesystem::path& path, const std::string& target,
            int code);
};

} // namespace zorvo::mail
