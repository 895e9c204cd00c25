#include "postfix/MasterCfContent.h"

#include <iterator>
#include <stdexcept>

namespace zorvo::mail::postfix {

void MasterCfContent::addModule(const ModuleInfo& info, const std::string& text)
{
    const Key key(info.name, info.type);
    const auto position = positions_.find(key);
    if (position != positions_.end()) {
        *position->second = text;
    } else {
        rawLines_.push_back(text);
        positions_[key] = std::prev(rawLines_.end());
    }
    modules_[key] = info;
}

bool MasterCfContent::hasModule(const std::string& name, ModuleType type) const
{
    return modules_.count(Key(name, type)) != 0;
}

std::pair<const ModuleInfo&, const std::string&> MasterCfContent::getModule(const std::string& name,
                                                                            ModuleType type) const
{
    const Key key(name, type);
    const auto module = modules_.find(key);
    const auto position = positions_.find(key);
    if (module == modules_.end() || position == positions_.end())
        throw std::out_of_range("no such module " + name);
    return {module->second, *position->second};
}

bool MasterCfContent::removeModule(const std::string& name, ModuleType type)
{
    const Key key(name, type);
    const auto position = positions_.find(key);
    if (position == positions_.end())
        return false;
    rawLines_.erase(position->second);
    positions_.erase(position);
    modules_.erase(key);
    return true;
}

std::vector<ModuleInfo> MasterCfContent::modules() const
{
    std::vector<ModuleInfo> result;
    for (const auto& module : modules_)
        result.push_back(module.second);
    return result;
}

void MasterCfContent::addRawLine(const std::string& line)
{
    rawLines_.push_back(line);
}

} // namespace zorvo::mail::postfix
