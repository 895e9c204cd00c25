#include "postfix/ModuleInfo.h"

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
    std::string line = info.name;
    const auto add = [&line](const std::string& column) { line.append(1, ' ').append(column); };
    add(typeKeyword(info.type));
    add(yesNo(info.privateMode));
    add(yesNo(info.unprivileged));
    add(yesNo(info.chroot));
    add(number(info.wakeup) + (info.wakeup != -1 && info.wakeupIfUsed ? "?" : ""));
    add(number(info.maxProc));
    for (const std::string& word : info.command)
        add(word);
    return line;
}

} // namespace zorvo::mail::postfix
