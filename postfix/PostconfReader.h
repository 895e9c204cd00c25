// PostconfReader: main.cf and master.cf as Postfix itself reads them, through postconf(1), for many
// parameters or services in one run of the tool.
//
// A run that fails throws PostfixConfigurationError with the tool's standard error or "unknown error".
#pragma once

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace zorvo::mail::postfix {

/// One service of master.cf as postconf(1) shows it.
struct ServiceView {
    std::string line;                              ///< Of -M, with one blank between the words.
    std::map<std::string, std::string> parameters; ///< Of -P: values by name.
};

class PostconfReader {
public:
    /// Values by name, with references to other parameters expanded: `postconf -x name...`. A name that
    /// Postfix does not know is left out.
    static std::map<std::string, std::string> readParameters(const std::vector<std::string>& names);

    /// The unix services whose names begin with `prefix`, by name: `postconf -M`, then `postconf -P`.
    static std::unordered_map<std::string, ServiceView> readServices(const std::string& prefix);
};

} // namespace zorvo::mail::postfix
