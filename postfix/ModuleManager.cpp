// ModuleManager, and the shared instances of the grammars of CommonParsers.h.
#include "postfix/ModuleManager.h"

#include "common/MKLock.h"
#include "common/TmpFile.h"
#include "postfix/MainCfManager.h"
#include "postfix/MasterCfParser.h"
#include "postfix/PostfixError.h"

#include <boost/spirit/include/classic_file_iterator.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace zorvo::parser {

const classic::chset<char> swsp_p("\t \r");
const classic::chlit<char> lf_p('\n');
const comments_parser comments_p;
const empty_line_parser empty_line_p;
const comments_line_parser comments_line_p;
const continuous_spaces_parser continuous_spaces_p;

} // namespace zorvo::parser

namespace zorvo::mail::postfix {

namespace {

namespace fs = std::filesystem;
using MappedFile = boost::spirit::classic::file_iterator<char>;

const char* const disabledPath = "/var/spool/postfix/zorvo/master.cf.disabled";
constexpr unsigned masterCfMode = 0644;

/// Writes the lines up to the last one that is not empty; all of them where all are empty. Each line is
/// flushed, so that a full disk is noticed at the end of a line.
void writeLines(std::ostream& out, const std::list<std::string>& lines)
{
    const auto lastText =
        std::find_if(lines.rbegin(), lines.rend(), [](const std::string& line) { return !line.empty(); });
    const auto end = lastText == lines.rend() ? lines.end() : lastText.base();
    for (auto line = lines.begin(); line != end; ++line)
        out << *line << std::endl;
}

/// Maps a file; an empty iterator for anything except a readable regular file with content.
MappedFile mapFile(const std::string& path)
{
    MappedFile file;
    std::error_code ignored;
    // Looked at first: opening a FIFO would wait for a writer.
    if (!fs::is_regular_file(path, ignored))
        return file;
    do {
        errno = 0;
        file = MappedFile(path);
    } while (!static_cast<bool>(file) && errno == EINTR);
    return file;
}

/// Size of the file of disabled services; 0 without one. Any other reason for not knowing it is an error:
/// a file that is taken for absent is replaced by the next store.
std::uintmax_t disabledFileSize()
{
    std::error_code error;
    const std::uintmax_t size = fs::file_size(disabledPath, error);
    if (error == std::errc::no_such_file_or_directory)
        return 0;
    if (error)
        throw fs::filesystem_error("cannot get file size", disabledPath, error);
    return size;
}

bool includesEnabled(boost::logic::tribool enabled)
{
    return enabled.value != boost::logic::tribool::false_value;
}

bool includesDisabled(boost::logic::tribool enabled)
{
    return enabled.value != boost::logic::tribool::true_value;
}

/// The text from `position` to the end of its line.
std::string lineFrom(const MappedFile& position, const MappedFile& end)
{
    return std::string(position, std::find(position, end, '\n'));
}

} // namespace

ModuleManager& ModuleManager::getInstance()
{
    static ModuleManager instance;
    return instance;
}

ModuleManager::ModuleManager()
    : masterCfPath_(MainCfManager::getInstance().getStringValue("config_directory", false, false) +
                    "/master.cf")
{
}

void ModuleManager::loadMasterCf(const std::string& path, MasterCfContent& content)
{
    MappedFile begin = mapFile(path);
    if (!begin)
        throw PostfixConfigurationError("unable to open " + path);
    const MappedFile end = begin.make_end();
    const MasterCfParser grammar(content);
    const auto result = parser::classic::parse(begin, end, grammar);
    if (!result.full) {
        const auto position = static_cast<unsigned long>(result.stop - begin);
        throw PostfixConfigurationError("unable to parse " + path + ": syntax error at position " +
                                        std::to_string(position) + " near '" + lineFrom(result.stop, end) +
                                        "'");
    }
}

void ModuleManager::storeMasterCf(const std::string& path, const MasterCfContent& content)
{
    const MKLock lock(path, HashedName, Blocking);
    TmpFile file(path, true);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    writeLines(file, content.rawLines());
    file.replace(path, masterCfMode);
}

void ModuleManager::loadModules(bool force)
{
    if (enabled_ && !force)
        return;
    boost::scoped_ptr<MasterCfContent> enabled(new MasterCfContent);
    loadMasterCf(masterCfPath_, *enabled);
    enabled_.swap(enabled);
    if (disabledFileSize() != 0) {
        boost::scoped_ptr<MasterCfContent> disabled(new MasterCfContent);
        loadMasterCf(disabledPath, *disabled);
        disabled_.swap(disabled);
    }
    enabledChanged_ = false;
    disabledChanged_ = false;
}

void ModuleManager::storeModules(bool force)
{
    _requireLoaded();
    if (force || enabledChanged_) {
        storeMasterCf(masterCfPath_, *enabled_);
        enabledChanged_ = false;
    }
    if (disabled_ && (force || disabledChanged_)) {
        storeMasterCf(disabledPath, *disabled_);
        disabledChanged_ = false;
    }
}

void ModuleManager::_requireLoaded() const
{
    if (!enabled_)
        throw std::logic_error("modules configuration isn't loaded yet");
}

MasterCfContent& ModuleManager::_disabledContent()
{
    if (!disabled_)
        disabled_.reset(new MasterCfContent);
    return *disabled_;
}

const MasterCfContent& ModuleManager::enabledContent() const
{
    _requireLoaded();
    return *enabled_;
}

bool ModuleManager::hasModule(const std::string& name, ModuleType type, boost::logic::tribool enabled) const
{
    _requireLoaded();
    return (includesEnabled(enabled) && enabled_->hasModule(name, type)) ||
           (includesDisabled(enabled) && disabled_ && disabled_->hasModule(name, type));
}

std::pair<const ModuleInfo&, const std::string&>
ModuleManager::getModule(const std::string& name, ModuleType type, boost::logic::tribool enabled) const
{
    _requireLoaded();
    if (!includesDisabled(enabled) || (includesEnabled(enabled) && enabled_->hasModule(name, type)))
        return enabled_->getModule(name, type);
    if (!disabled_)
        throw std::out_of_range("no such module " + name);
    return disabled_->getModule(name, type);
}

void ModuleManager::addModule(const ModuleInfo& info, bool enabled)
{
    _requireLoaded();
    const std::string text = formatServiceLine(info);
    if (enabled) {
        enabled_->addModule(info, text);
        enabledChanged_ = true;
        if (disabled_ && disabled_->removeModule(info.name, info.type))
            disabledChanged_ = true;
    } else {
        _disabledContent().addModule(info, text);
        disabledChanged_ = true;
        if (enabled_->removeModule(info.name, info.type))
            enabledChanged_ = true;
    }
}

void ModuleManager::removeModule(const std::string& name, ModuleType type)
{
    _requireLoaded();
    // A copy, as it may be the name in the entry itself.
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const std::string removed = name;
    if (enabled_->removeModule(removed, type))
        enabledChanged_ = true;
    if (disabled_ && disabled_->removeModule(removed, type))
        disabledChanged_ = true;
}

void ModuleManager::enableModule(const std::string& name, ModuleType type)
{
    _requireLoaded();
    if (enabled_->hasModule(name, type))
        return;
    if (!disabled_)
        throw std::out_of_range("no such module " + name);
    const auto module = disabled_->getModule(name, type);
    enabled_->addModule(module.first, module.second);
    disabled_->removeModule(name, type);
    enabledChanged_ = true;
    disabledChanged_ = true;
}

void ModuleManager::disableModule(const std::string& name, ModuleType type)
{
    _requireLoaded();
    if (!enabled_->hasModule(name, type))
        return;
    const auto module = enabled_->getModule(name, type);
    _disabledContent().addModule(module.first, module.second);
    enabled_->removeModule(name, type);
    enabledChanged_ = true;
    disabledChanged_ = true;
}

} // namespace zorvo::mail::postfix
