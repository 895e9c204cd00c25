#include "process/startTime.h"

#include "common/eintr.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace zorvo::process {

namespace {

constexpr long long nanoseconds = 1000000000;

long long nanosecondsOf(clockid_t clock)
{
    timespec now = {};
    (void)::clock_gettime(clock, &now);
    return now.tv_sec * nanoseconds + now.tv_nsec;
}

} // namespace

std::optional<unsigned long long> parseStartTicks(const std::string& stat)
{
    // The name, in parentheses, may hold blanks and parentheses itself; after the last one come fields 3 on.
    const std::string::size_type nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos)
        return std::nullopt;
    std::istringstream fields(stat.substr(nameEnd + 1));
    constexpr int skipped = 19;
    std::string field;
    for (int i = 0; i < skipped; ++i)
        fields >> field;
    unsigned long long ticks = 0;
    if (!(fields >> ticks))
        return std::nullopt;
    return ticks;
}

std::optional<timespec> startTime(int pid)
{
    std::ifstream file;
    openRetrying(file, "/proc/" + std::to_string(pid) + "/stat", std::ios::in);
    const std::string stat{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::optional<unsigned long long> ticks = parseStartTicks(stat);
    if (!ticks)
        return std::nullopt;
    const long long boot = nanosecondsOf(CLOCK_REALTIME) - nanosecondsOf(CLOCK_BOOTTIME);
    const long long start = boot + static_cast<long long>(*ticks) * (nanoseconds / ::sysconf(_SC_CLK_TCK));
    return timespec{start / nanoseconds, start % nanoseconds};
}

} // namespace zorvo::process
