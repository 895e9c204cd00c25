#include "World.h"

#include "Run.h"
#include "support/RealPostfix.h"
#include "tool/log.h"

#include <boost/algorithm/string/join.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace faults {

namespace {

const char* const keptTools = "/run/sandbox/real";
const char* const directories[] = {support::configDirectory, support::spoolDirectory};
const char* const tools[] = {support::postconfPath, support::postmapPath};

std::string standin;

// The name of a binding's service in master.cf and its line.
std::string serviceName(const std::string& type, const Binding& binding)
{
    std::string name = "zorvo-" + (type == "domain-name" ? binding.domain + '-' : std::string()) +
                       binding.ip4 + '-' + binding.ip6;
    std::replace(name.begin(), name.end(), ':', '-');
    return name;
}

std::string serviceLine(const std::string& type, const Binding& binding)
{
    std::string line = serviceName(type, binding) +
                       " unix - - n - - smtp -o smtp_bind_address=" + binding.ip4 +
                       " -o smtp_bind_address6=" + binding.ip6 +
                       " -o smtp_address_preference=" + (binding.ip4.empty() ? "ipv6" : "ipv4");
    if (binding.ip4.empty() || binding.ip6.empty())
        line += binding.ip4.empty() ? " -o inet_protocols=ipv6" : " -o inet_protocols=ipv4";
    if (type == "domain-name")
        line += " -o smtp_helo_name=" + binding.domain;
    return line + '\n';
}

// A "qmgr" whose parent is named in the pid file; neither is a child of this process.
void startQmgr()
{
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        if (fork() != 0)
            _exit(0);
        const std::string number = std::to_string(getpid()) + '\n';
        if (fork() == 0) {
            prctl(PR_SET_NAME, "qmgr");
            writeFile(support::pidFilePath, number);
        }
        for (const int fd : {0, 1, 2})
            close(fd);
        for (;;)
            pause();
    }
    waitpid(pid, nullptr, 0);
    while (!fs::exists(support::pidFilePath) || readFile(support::pidFilePath).empty())
        usleep(1000);
}

} // namespace

const std::string foreignServices = "# Services of this host.\n"
                                    "smtp      inet  n       -       y       -       -       smtpd\n"
                                    "  -o smtpd_sasl_auth_enable=yes\n"
                                    "#628       inet  n       -       y       -       -       qmqpd\n"
                                    "\n"
                                    "pickup    unix  n       -       y       60      1       pickup\n"
                                    "zorvo-kept inet n - n - - smtpd\n"
                                    "qmgr      unix\tn       -       n       300     1       qmgr\n";

const Request threeDomains = {"domain-name",
                              {{"a.example", "192.0.2.1", ""},
                               {"b.example", "", "2001:db8::1"},
                               {"c.example", "192.0.2.2", "2001:db8::2"}}};

const Request twoDomains = {"domain-ip",
                            {{"d.example", "192.0.2.3", "2001:db8::3"}, {"e.example", "192.0.2.4", ""}}};

const std::string firstMasterCf =
    foreignServices + "zorvo-old.example-192.0.2.9- unix - - n - - smtp -o smtp_bind_address=192.0.2.9\n";

std::string Request::masterCf(size_t number, size_t emptyLines) const
{
    std::string text = foreignServices + std::string(number == 0 ? 0 : emptyLines, '\n');
    for (size_t i = 0; i < number; ++i)
        text += serviceLine(type, bindings[i]);
    return text;
}

std::string Request::records() const
{
    std::map<std::string, std::string> records;
    for (const Binding& binding : bindings)
        records['@' + binding.domain] = serviceName(type, binding) + ':';
    std::string text;
    for (const auto& [key, value] : records)
        text += key + ' ' + value + '\n';
    return text;
}

std::vector<support::Command> Request::tools() const
{
    std::vector<support::Command> runs(bindings.size(), support::addRecord);
    runs.push_back(support::restart);
    return support::afterWipe(runs);
}

std::vector<std::string> Request::calls() const
{
    std::vector<std::string> lines;
    for (const support::Command& command : tools())
        lines.push_back(boost::algorithm::join(command, " "));
    return lines;
}

Snapshot snapshot()
{
    Snapshot found;
    for (const char* const directory : directories)
        for (const std::string& name : listing(directory)) {
            const std::string path = std::string(directory) + '/' + name;
            struct stat info = {};
            lstat(path.c_str(), &info);
            std::ostringstream text;
            text << std::oct << info.st_mode << '\n' << (S_ISREG(info.st_mode) ? readFile(path) : "");
            found[path] = text.str();
        }
    return found;
}

size_t emptyLinesNow()
{
    const std::string text = readFile(masterCfPath);
    size_t number = 0;
    while (text[foreignServices.size() + number] == '\n')
        ++number;
    return number;
}

Snapshot snapshotAfter(const Request& request, size_t emptyLines)
{
    return {{masterCfPath, "100644\n" + request.masterCf(request.bindings.size(), emptyLines)},
            {mainCfPath, std::string("100644\n") + cleanMainCf},
            {databasePath, "100644\n" + request.records()}};
}

void setUpMachine(const std::string& toolPath)
{
    if (!fs::exists(support::sandboxDirectory))
        throw std::runtime_error("this would change the host: run it with scripts/sandbox");
    umask(022);
    standin = toolPath;
    fs::create_directories(keptTools);
    for (const std::string tool : tools)
        fs::copy_file(tool, keptTools + ("/" + fs::path(tool).filename().string()));
    restoreMachine();
    startQmgr();
    // Processes that a run leaves behind become children of this process.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

void useRealTools(bool real)
{
    for (const std::string tool : tools)
        support::putLink(real ? keptTools + ("/" + fs::path(tool).filename().string()) : standin, tool);
}

void resetWorld()
{
    for (const char* const directory : directories)
        support::emptyDirectory(directory);
    support::emptyDirectory(lockDirectory);
    fs::remove(toolLogPath);
    writeFile(masterCfPath, firstMasterCf);
    writeFile(mainCfPath, std::string(cleanMainCf) + "smtp_bind_address = 192.0.2.9\n");
    writeFile(databasePath, "@old.example zorvo-old.example-192.0.2.9-:\n");
}

void restoreMachine()
{
    useRealTools(false);
    support::putLink(standin, support::serviceScriptPath);
    resetWorld();
}

std::vector<std::string> toolNotes()
{
    std::vector<std::string> lines;
    std::ifstream file(toolLogPath);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> toolCalls()
{
    std::vector<std::string> calls = toolNotes();
    for (std::string& line : calls)
        line.erase(line.find('\t'));
    return calls;
}

std::vector<std::string> heldLocks()
{
    return support::lockedFilesIn(lockDirectory);
}

std::string judgeByPostconf()
{
    support::ageMainCf();
    const auto [status, text] = support::runCommand(std::string(keptTools) + "/postconf -M 2>&1");
    const bool named = text.compare(0, 5, "smtp ") == 0 && text.find("\nqmgr ") != std::string::npos;
    if (status == 0 && named && text.find("postconf:") == std::string::npos)
        return std::string();
    return "postconf -M ends with " + std::to_string(status) + ": " + text;
}

} // namespace faults
