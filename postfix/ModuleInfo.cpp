// ModuleInfo: see the header.
#include "postfix/ModuleInfo.h"

#include <boost/algorithm/string/join.hpp>

namespace zorvo::mail::postfix {

namespace {

const char* yesNo(boost::logic::tribool value)
{
    if (boost::logic::indeterminate(value))
        return "-";
    return value ? "y" : "n";
}

std::string number(int32_t value)
{
    return value == -1 ? "-" : std::to_string(value);
}

} // namespace

const char* typeKeyword(ModuleType type) noexcept
{
    switch (type) {
    case ModuleType::Inet:
        return "inet";
    case ModuleType::Unix:
        return "unix";
    case ModuleType::UnixDgram:
        return "unix-dgram";
    case ModuleType::Fifo:
        return "fifo";
    case ModuleType::Pass:
        return "pass";
    }
    return "";
}

std::string formatServiceLine(const ModuleInfo& info)
{
    std::list<std::string> columns{info.name,
                                   typeKeyword(info.type),
                                   yesNo(info.privateMode),
                                   yesNo(info.unprivileged),
                                   yesNo(info.chroot),
                                   number(info.wakeup) + (info.wakeup != -1 && info.wakeupIfUsed ? "?" : ""),
                                   number(info.maxProc)};
    columns.insert(columns.end(), info.command.begin(), info.command.end());
    return boost::algorithm::join(columns, " ");
}

} // namespace zorvo::mail::postfix
