// bench_baseline MODE LIST: what a run of the program is compared with. Makes the same tool runs in the same
// order with posix_spawn(3) and the same stores of master.cf with the same number of writes, and nothing
// else: no request to parse, no locks, no captured output, no checks.
//
// LIST has a line "DOMAIN IP4 IP6" for each domain, "-" standing for no address.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

const char* const masterCf = "/etc/postfix/master.cf";
const char* const tableSource = "/var/spool/postfix/zorvo/sdd_transport_maps";
const char* const table = "hash:/var/spool/postfix/zorvo/sdd_transport_maps";

void require(bool condition, const char* what)
{
    if (!condition) {
        std::perror(what);
        std::exit(1);
    }
}

pid_t spawnTool(char** argv, int inputFd)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (inputFd != -1)
        posix_spawn_file_actions_adddup2(&actions, inputFd, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    require(::posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ) == 0, argv[0]);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/// Runs a tool; `input`, where not null, is its standard input.
void runTool(const std::vector<const char*>& arguments, const std::string* input = nullptr)
{
    std::vector<char*> argv;
    for (const char* const argument : arguments)
        argv.push_back(const_cast<char*>(argument));
    argv.push_back(nullptr);

    int feed[2] = {-1, -1};
    require(input == nullptr || ::pipe2(feed, O_CLOEXEC) == 0, "pipe2");
    const pid_t pid = spawnTool(argv.data(), feed[0]);
    if (input != nullptr) {
        ::close(feed[0]);
        require(::write(feed[1], input->data(), input->size()) == static_cast<ssize_t>(input->size()),
                "write");
        ::close(feed[1]);
    }
    int status = 0;
    require(::waitpid(pid, &status, 0) == pid && status == 0, argv[0]);
}

/// Replaces master.cf, a write a line.
void store(const std::list<std::string>& lines)
{
    std::string path = std::string(masterCf) + "XXXXXX";
    const int fd = ::mkostemp(path.data(), O_CLOEXEC);
    require(fd != -1, "mkostemp");
    for (const std::string& line : lines)
        require(::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()), "write");
    require(::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0 && ::close(fd) == 0, "store");
    require(::rename(path.c_str(), masterCf) == 0, "rename");
}

/// master.cf without generated services, an entry or other line an element, each with its line feed. True in
/// `changed` when there were any.
std::list<std::string> loadForeign(bool& changed)
{
    std::list<std::string> lines;
    std::ifstream file(masterCf);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 6, "zorvo-") == 0)
            changed = true;
        else if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && !lines.empty())
            lines.back() += line + "\n"; // the program writes an entry with all its lines at once
        else
            lines.push_back(line + "\n");
    }
    return lines;
}

std::string serviceName(bool withDomain, const std::string& domain, const std::string& ip4,
                        const std::string& ip6)
{
    std::string name = "zorvo-" + (withDomain ? domain + "-" : std::string()) + ip4 + "-" + ip6;
    std::replace(name.begin(), name.end(), ':', '-');
    return name;
}

std::string serviceLine(const std::string& name, bool withDomain, const std::string& domain,
                        const std::string& ip4, const std::string& ip6)
{
    const char* const preference = !ip4.empty() ? "ipv4" : "ipv6";
    std::string line = name + " unix - - n - - smtp -o smtp_bind_address=" + ip4 +
                       " -o smtp_bind_address6=" + ip6 + " -o smtp_address_preference=" + preference;
    if (ip4.empty() != ip6.empty())
        line += std::string(" -o inet_protocols=") + preference;
    if (withDomain)
        line += " -o smtp_helo_name=" + domain;
    return line + "\n";
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_baseline domain-ip|domain-name LIST\n");
        return 2;
    }
    const bool withDomain = std::string(argv[1]) == "domain-name";
    std::ifstream list(argv[2]);

    runTool({"/usr/sbin/postconf", "-h", "config_directory"});
    runTool({"/usr/sbin/postconf", "-X", "smtp_bind_address"});
    runTool({"/usr/sbin/postconf", "-X", "smtp_bind_address6"});
    ::close(::open(tableSource, O_WRONLY | O_CREAT | O_TRUNC, 0644));
    runTool({"/usr/sbin/postmap", "-r", table});
    ::unlink(tableSource);
    runTool({"/usr/sbin/postconf", "-h", "config_directory"});

    bool changed = false;
    std::list<std::string> lines = loadForeign(changed);
    if (changed)
        store(lines);
    std::unordered_map<std::string, std::string*> services;
    for (std::string domain, ip4, ip6; list >> domain >> ip4 >> ip6;) {
        if (ip4 == "-")
            ip4.clear();
        if (ip6 == "-")
            ip6.clear();
        const std::string name = serviceName(withDomain, domain, ip4, ip6);
        if (services.count(name) == 0) {
            // The blank line that the program leaves above the first new service.
            if (services.empty() && lines.back() != "\n")
                lines.emplace_back("\n");
            lines.push_back(serviceLine(name, withDomain, domain, ip4, ip6));
            services[name] = &lines.back();
        }
        store(lines);
        const std::string record = "@" + domain + " " + name + ":\n";
        runTool({"/usr/sbin/postmap", "-r", "-i", table}, &record);
    }
    runTool({"/usr/local/maru/admin/sbin/zorvorc", "postfix", "restart"});
    return 0;
}
