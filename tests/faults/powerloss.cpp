// What is on the disk after a power cut follows from the order of the calls: a file's bytes and mode are made
// durable before it is given the name of the old file.
#include "Sweep.h"

#include <algorithm>
#include <fcntl.h>

namespace faults {

namespace {

/// The calls that replace master.cf once, from the lock to its release, one line each; of several writes in a
/// row the total.
std::vector<std::string> storeCalls(std::vector<Event>::const_iterator rename)
{
    const std::string temporary = std::string(masterCfPath) + "XXXXXX";
    const auto isLock = [](const Event& event) { return event.detail == support::lockFileOf(masterCfPath); };
    auto from = rename;
    while (!(isLock(*from) && from->call == "openat"))
        --from;
    auto to = rename;
    while (!(isLock(*to) && to->call == "close"))
        ++to;
    std::vector<std::string> lines;
    long written = 0;
    for (auto event = from; event <= to; ++event) {
        if (!isLock(*event) && event->detail.find(temporary) == std::string::npos)
            continue;
        if (event->call == "write" && event->result > 0) {
            written += event->result;
            continue;
        }
        if (written != 0)
            lines.push_back("write " + std::to_string(written) + " bytes");
        written = 0;
        std::string line = event->call + ' ' + event->detail;
        if (event->call == "openat")
            line += (event->arguments[2] & O_EXCL) != 0 ? " as a new file" : "";
        if (event->call == "fchmod")
            line += ' ' + std::to_string(event->arguments[1]);
        lines.push_back(line + (event->result < 0 ? " fails" : ""));
    }
    return lines;
}

std::vector<std::string> expectedCalls(const std::string& content)
{
    const std::string temporary = std::string(masterCfPath) + "XXXXXX";
    const std::string lock = support::lockFileOf(masterCfPath);
    return {"openat " + lock,
            "flock " + lock,
            "openat " + temporary + " as a new file",
            "fcntl " + temporary, // fdopen(3) looks at its mode
            "write " + std::to_string(content.size()) + " bytes",
            "fchmod " + temporary + ' ' + std::to_string(0644),
            "fsync " + temporary,
            "close " + temporary,
            "rename " + temporary + " -> " + masterCfPath,
            "close " + lock};
}

} // namespace

void testPowerLoss(Report& report, bool)
{
    const std::string name = "order of write, fchmod, fsync, close, rename";
    const std::vector<Event>& events = undisturbedRun();
    size_t stores = 0;
    for (auto event = events.begin(); event != events.end(); ++event) {
        if (event->process != 0 || event->call != "rename")
            continue;
        Problems problems;
        problems.requireEqual("calls", expectedCalls(threeDomains.masterCf(stores)), storeCalls(event));
        report.add(name, "store " + std::to_string(++stores), problems);
    }
    Problems problems;
    problems.require(stores == threeDomains.bindings.size() + 1, std::to_string(stores) + " stores");
    problems.require(std::none_of(events.begin(), events.end(),
                                  [](const Event& event) {
                                      return event.call == "openat" && event.detail == masterCfPath &&
                                             (event.arguments[2] & (O_ACCMODE | O_TRUNC)) != O_RDONLY;
                                  }),
                     "master.cf itself is opened for writing");
    report.add("master.cf is replaced, never written", "the whole run", problems);
}

} // namespace faults
