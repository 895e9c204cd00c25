// MasterCfContent: see the header.
#include "postfix/MasterCfContent.h"

#include <iterator>
#include <stdexcept>

namespace zorvo::mail::postfix {

void MasterCfContent::addModule(const ModuleInfo& info, const std::string& text)
{
    const Key key(info.name, info.type);
    const auto position = positions_.lower_bound(key);
    if (position != positions_.end() && position->first == key) {
        *position->second = text;
        modules_[key] = info;
        return;
    }
    rawLines_.push_back(text);
    positions_.emplace_hint(position, key, std::prev(rawLines_.end()));
    modules_.emplace(key, info);
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
    result.reserve(modules_.size());
    for (const auto& module : modules_)
        result.push_back(module.second);
    return result;
}

void MasterCfContent::addRawLine(const std::string& line)
{
    rawLines_.push_back(line);
}

} // namespace zorvo::mail::postfix
