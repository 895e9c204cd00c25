// World: what the program finds on the machine and leaves there, in small: four services of its own and one
// that an earlier run generated, a main.cf with a parameter to remove, a table with an old record.
//
// All this is done to the real paths: scripts/sandbox has to make them private first.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace faults {

constexpr char masterCfPath[] = "/etc/postfix/master.cf";
constexpr char mainCfPath[] = "/etc/postfix/main.cf";
constexpr char tablePath[] = "/var/spool/postfix/zorvo/sdd_transport_maps";
constexpr char databasePath[] = "/var/spool/postfix/zorvo/sdd_transport_maps.db";
constexpr char lockDirectory[] = "/run/lock/files";

// Lock files are named by the MD5 of the path that they protect.
constexpr char mainCfLock[] = "/run/lock/files/7963c3b4b0754641744c1ae241e19575";
constexpr char tableLock[] = "/run/lock/files/3f2d29bd9506937ccda01890b1c213f1";
constexpr char masterCfLock[] = "/run/lock/files/b4b19c3e41d17f125e8aaa4dfa930c93";

/// The services that no run may touch.
extern const std::string foreignServices;

struct Binding {
    std::string domain;
    std::string ip4;
    std::string ip6;
};

/// The request document.
std::string request(const std::vector<Binding>& bindings);

/// A transport type with what it is given, and all that follows from it.
struct Request {
    std::string type;
    std::vector<Binding> bindings;

    std::vector<std::string> arguments() const { return {"--transport-type", type}; }
    std::string input() const { return request(bindings); }

    /// master.cf once the first `number` bindings are in it, behind empty lines: the end of the file's last
    /// line counts as one, and so every run adds one.
    std::string masterCf(size_t number, size_t emptyLines = 1) const;
    std::string masterCf() const { return masterCf(bindings.size()); }
    std::string records() const;            ///< The table's database file.
    std::vector<std::string> calls() const; ///< The tools that a run runs, in order.
};

/// Three domains, in the mode with a service for each.
extern const Request threeDomains;

/// Another request, for the run that follows a fault.
extern const Request twoDomains;

constexpr char cleanMainCf[] = "inet_interfaces = loopback-only\n";

/// The master.cf that a test starts with.
extern const std::string firstMasterCf;

/// Path, then mode and bytes, of everything in /etc/postfix and /var/spool/postfix/zorvo.
typedef std::map<std::string, std::string> Snapshot;
Snapshot snapshot();

/// That of a machine on which the request was carried out.
Snapshot snapshotAfter(const Request& request, size_t emptyLines = 1);

/// How many empty lines stand behind the foreign services.
size_t emptyLinesNow();

/// Keeps the real tools, installs the stand-ins, starts a "qmgr" for the program to find. Throws outside the
/// sandbox.
void setUpMachine(const std::string& toolPath);

/// Puts the real postconf and postmap in place, or the stand-ins again.
void useRealTools(bool real);

/// The world as it is at the start.
void resetWorld();

/// The tools that were run since, without what else is noted; and with it.
std::vector<std::string> toolCalls();
std::vector<std::string> toolNotes();

/// Lock files that somebody holds.
std::vector<std::string> heldLocks();

/// Runs the real `postconf -M` on master.cf as it is. Empty, or what is wrong.
std::string judgeByPostconf();

/// Names in a directory, sorted.
std::vector<std::string> listing(const std::string& directory);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

} // namespace faults
