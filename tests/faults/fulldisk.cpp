// Really full disks: file systems of a few kilobytes that fill while the program runs.
#include "Sweep.h"
#include "support/Mounts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>

namespace faults {

namespace {

/// A small file system over a directory while it lives, with the world as it is at the start on it.
class SmallDisk {
public:
    SmallDisk(const char* directory, const std::string& options)
        : directory_(directory), mount_("small", directory, "tmpfs", 0, options.c_str())
    {
        resetWorld();
    }

    void enlarge() const
    {
        if (mount("small", directory_, "tmpfs", MS_REMOUNT, "size=16m,nr_inodes=1000") != 0)
            throw std::system_error(errno, std::generic_category(), "remount");
    }

private:
    const char* directory_;
    support::ScopedMount mount_;
};

/// Many domains, so that the disk fills somewhere on the way.
Request manyDomains(size_t number)
{
    Request request{"domain-name", {}};
    for (size_t i = 0; i < number; ++i)
        request.bindings.push_back(
            {"a-domain-with-a-rather-long-name-number-" + std::to_string(1000 + i) + ".example", "192.0.2.1",
             ""});
    return request;
}

/// What a run on a full disk may report: a failure of the stream, a file that cannot be made, or the error
/// output of a tool.
bool isClearError(const std::string& text)
{
    const std::string fatal = "Fatal error: ";
    const std::string reason = strerror(ENOSPC);
    const std::string tool = "zorvo::mail::postfix::PostfixConfigurationError(post";
    return text == fatal + "std::__ios_failure(basic_ios::clear: iostream error)\n" ||
           text == fatal + "zorvo::SystemError(mkstemp() failed: : " + reason + ")\n" ||
           (text.compare(0, fatal.size() + tool.size(), fatal + tool) == 0 &&
            text.find(": fatal: ") != std::string::npos && text.find(reason) != std::string::npos);
}

/// How many of the request's services are in a master.cf that is whole, or -1.
int servicesIn(const std::string& masterCf, const Request& request)
{
    for (size_t number = 0; number <= request.bindings.size(); ++number)
        if (masterCf == request.masterCf(number))
            return static_cast<int>(number);
    return -1;
}

/// Returns whether the disk was large enough.
bool runOn(Report& report, const std::string& name, const char* directory, const std::string& options,
           const Request& request)
{
    const SmallDisk disk(directory, options);
    Launch launch;
    launch.arguments = request.arguments();
    launch.input = request.input();
    const Outcome outcome = run(launch);
    Problems problems;
    requireCleanEnd(problems, outcome);
    const bool succeeded = outcome.status == 0;
    const std::string masterCf = readFile(masterCfPath);
    const int services = servicesIn(masterCf, request);
    if (succeeded) {
        problems.require(snapshot() == snapshotAfter(request), "not the requested state");
        report.count(name, "large enough");
    } else {
        problems.require(outcome.status == W_EXITCODE(1, 0), "wait status " + std::to_string(outcome.status));
        problems.require(isClearError(outcome.err), "standard error: " + outcome.err);
        problems.requireEqual("standard output", outcome.err, outcome.out);
        problems.require(services >= 0 || masterCf == firstMasterCf, "master.cf is torn");
        report.count(name, services > 0 ? "full on the way" : "full at the start");
    }
    problems.requireEqual("further files", std::vector<std::string>(), strayFiles());
    problems.requireEqual("locks held", std::vector<std::string>(), heldLocks());
    disk.enlarge();
    requireNextRun(problems);
    report.add(name, options, problems);
    return succeeded;
}

/// Also proves that the disk did fill: small ones must not be enough, and large ones must.
void fill(Report& report, const std::string& name, const char* directory, const Request& request, int first,
          int last, int step, const std::string& unit)
{
    bool first_ = true;
    Problems problems;
    bool enough = false;
    for (int size = first; size <= last; size += step) {
        enough = runOn(report, name, directory, unit + std::to_string(size) + (unit == "size=" ? "k" : ""),
                       request);
        problems.require(!first_ || !enough, "the smallest disk is large enough");
        first_ = false;
    }
    problems.require(enough, "the largest disk is too small");
    report.add(name, "from the smallest to the largest", problems);
}

} // namespace

void testFullDisk(Report& report, bool longForm)
{
    const Request request = manyDomains(longForm ? 120 : 40);
    const int step = longForm ? 4 : 12;
    fill(report, "tmpfs full of bytes: configuration directory", support::configDirectory, request, 12,
         longForm ? 80 : 48, step, "size=");
    fill(report, "tmpfs full of files: configuration directory", support::configDirectory, request, 3, 6, 1,
         "nr_inodes=");
    fill(report, "tmpfs full of bytes: spool directory", support::spoolDirectory, request, 4,
         longForm ? 40 : 16, step, "size=");
    fill(report, "tmpfs full of files: spool directory", support::spoolDirectory, request, 2, 4, 1,
         "nr_inodes=");
    resetWorld();
}

} // namespace faults
