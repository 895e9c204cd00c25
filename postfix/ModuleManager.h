// ModuleManager: the owner of Postfix's service table, master.cf, and of the companion file of disabled
// services, /var/spool/postfix/zorvo/master.cf.disabled.
//
// loadModules(), edit, storeModules(): nothing is written before that. A file is replaced atomically under a
// lock (MKLock) that keeps our own programs apart; readers need no lock. postconf(1) -M edits under a lock of
// its own, so do not run both at once.
#pragma once

#include "postfix/MasterCfContent.h"

#include <boost/logic/tribool.hpp>
#include <boost/scoped_ptr.hpp>

#include <string>
#include <utility>

namespace zorvo::mail::postfix {

/// Edits, lookups and storeModules throw std::logic_error "modules configuration isn't loaded yet" before the
/// first loadModules.
class ModuleManager {
public:
    /// The one instance, made by the first call; asks MainCfManager for config_directory and throws as that
    /// does, the next call trying again.
    static ModuleManager& getInstance();

    ModuleManager(const ModuleManager&) = delete;
    ModuleManager& operator=(const ModuleManager&) = delete;

    /// Reads master.cf, then the disabled-services file, unless the first is loaded and `force` is false.
    /// Each replaces what was in memory as soon as it is read; a disabled-services file that is absent or
    /// empty replaces nothing. Throws as loadMasterCf, or std::filesystem::filesystem_error "cannot get file
    /// size" where it cannot be told whether the second file is there.
    void loadModules(bool force);

    /// Writes those of the two files whose services were changed; with `force` both, the disabled one where
    /// there is anything in memory for it. Throws as storeMasterCf.
    void storeModules(bool force);

    /// Whether the service is in master.cf (`enabled` true), among the disabled ones (false) or in either
    /// (indeterminate).
    bool hasModule(const std::string& name, ModuleType type, boost::logic::tribool enabled) const;

    /// The service and its text, looked up in the same way, enabled first; valid until it is changed or
    /// removed. Throws std::out_of_range "no such module NAME".
    std::pair<const ModuleInfo&, const std::string&> getModule(const std::string& name, ModuleType type,
                                                               boost::logic::tribool enabled) const;

    /// Adds or replaces a service, as one line, among the enabled or the disabled, and removes it from the
    /// others.
    void addModule(const ModuleInfo& info, bool enabled);

    /// Removes a service wherever it is; an unknown one is not an error.
    void removeModule(const std::string& name, ModuleType type);

    /// Moves a service with its text to the end of master.cf. Nothing to do for an enabled one;
    /// std::out_of_range "no such module NAME" for an unknown one.
    void enableModule(const std::string& name, ModuleType type);

    /// Moves a service with its text to the disabled ones. Nothing to do for any that is not enabled.
    void disableModule(const std::string& name, ModuleType type);

    /// The services of master.cf as loaded.
    const MasterCfContent& enabledContent() const;

    /// Reads one file into `content`. Throws PostfixConfigurationError "unable to open PATH" for anything
    /// except a readable regular file with content, and "unable to parse PATH: syntax error at position N
    /// near 'TEXT'"; what was read before that stays in `content`.
    static void loadMasterCf(const std::string& path, MasterCfContent& content);

    /// Replaces one file with the content's lines without empty ones at the end, mode 0644. The new file is
    /// on the disk before it takes the name. After any failure the old one is whole and no other is left.
    /// Throws SystemError (lock, temporary file), std::ios_base::failure (write),
    /// std::filesystem::filesystem_error
    /// ("chmod", "fsync") or FSError ("rename").
    static void storeMasterCf(const std::string& path, const MasterCfContent& content);

private:
    ModuleManager();
    void _requireLoaded() const;
    MasterCfContent& _disabledContent(); ///< Made on first need.

    boost::scoped_ptr<MasterCfContent> enabled_;  ///< Null: nothing is loaded yet.
    boost::scoped_ptr<MasterCfContent> disabled_; ///< Null: no disabled services so far.
    bool enabledChanged_ = false;
    bool disabledChanged_ = false;
    std::string masterCfPath_;
};

} // namespace zorvo::mail::postfix
