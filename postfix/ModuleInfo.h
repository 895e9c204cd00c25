// ModuleInfo: one service entry of master.cf (master(5)) as data.
#pragma once

#include <boost/logic/tribool.hpp>

#include <cstdint>
#include <list>
#include <string>

namespace zorvo::mail::postfix {

/// Service types; the values order services of one name.
enum class ModuleType { Inet = 0, Unix = 1, UnixDgram = 2, Fifo = 3, Pass = 4 };

/// One service. The initial values are what a "-" in the file stands for; that of `chroot` is "n", as it is
/// meant to be: a "-" read from that column is written as "n" when the entry is rewritten.
struct ModuleInfo {
    std::string name;
    ModuleType type = ModuleType::Inet;
    boost::logic::tribool privateMode = boost::logic::indeterminate;
    boost::logic::tribool unprivileged = boost::logic::indeterminate;
    boost::logic::tribool chroot = false;
    int32_t wakeup = -1;            ///< Seconds; -1: "-".
    bool wakeupIfUsed = false;      ///< The "?" after the wake-up time.
    int32_t maxProc = -1;           ///< Process limit; -1: "-".
    std::list<std::string> command; ///< The command's name and its arguments, one word each.
};

/// The name of `type` in the file.
const char* typeKeyword(ModuleType type) noexcept;

/// The entry as one line without line feed: the columns and the words, one blank between them.
std::string formatServiceLine(const ModuleInfo& info);

} // namespace zorvo::mail::postfix
