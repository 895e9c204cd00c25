// MasterCfContent: one master.cf-format file in memory: its text line by line, and an index of its services.
#pragma once

#include "postfix/ModuleInfo.h"

#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zorvo::mail::postfix {

/// Lines are kept as read. A service that spans several physical lines is one raw line here. Services are
/// told apart by name and type together.
class MasterCfContent {
public:
    MasterCfContent() = default;
    MasterCfContent(const MasterCfContent&) = delete;
    MasterCfContent& operator=(const MasterCfContent&) = delete;

    /// Replaces the service of that name and type, data and text, at its place in the file; a new one becomes
    /// the last line. `text` has no trailing line feed.
    void addModule(const ModuleInfo& info, const std::string& text);

    bool hasModule(const std::string& name, ModuleType type) const;

    /// The service and its text, valid until it is changed or removed.
    /// Throws std::out_of_range "no such module NAME".
    std::pair<const ModuleInfo&, const std::string&> getModule(const std::string& name,
                                                               ModuleType type) const;

    /// Removes the service and its line. False when there is none.
    bool removeModule(const std::string& name, ModuleType type);

    /// Copies of all services in the order of name and type.
    std::vector<ModuleInfo> modules() const;

    /// Adds a comment or an empty line at the end.
    void addRawLine(const std::string& line);

    /// All lines in file order.
    const std::list<std::string>& rawLines() const noexcept { return rawLines_; }

private:
    using Key = std::pair<std::string, ModuleType>;

    std::list<std::string> rawLines_;
    std::map<Key, ModuleInfo> modules_;
    std::map<Key, std::list<std::string>::iterator> positions_; ///< Same keys as modules_.
};

} // namespace zorvo::mail::postfix
