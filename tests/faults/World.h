// World: what the program finds on the machine and leaves there, in small: four services of its own and one
// that an earlier run generated, a main.cf with a parameter to remove, a table with an old record.
//
// All this is done to the real paths: scripts/sandbox has to make them private first.
#pragma once

#include "support/LockFiles.h"
#include "support/RequestText.h"
#include "support/ScratchDir.h"
#include "support/TableFiles.h"
#include "support/ToolRuns.h"

#include <map>
#include <string>
#include <vector>

namespace faults {

using support::listing;
using support::lockDirectory;
using support::mainCfPath;
using support::masterCfPath;
using support::readFile;
using support::tableSourcePath;
using support::writeFile;

/// Where the stand-in of postmap keeps the table's records, as text.
inline const std::string databasePath = support::databaseOf(support::tableName);

/// The services that no run may touch.
extern const std::string foreignServices;

using support::Binding;

/// A transport type with what it is given, and all that follows from it.
struct Request {
    std::string type;
    std::vector<Binding> bindings;

    std::vector<std::string> arguments() const { return {"--transport-type", type}; }
    std::string input() const { return support::request(bindings); }

    /// master.cf once the first `number` bindings are in it, after empty lines: the end of the file's last
    /// line counts as one, and so every run adds one.
    std::string masterCf(size_t number, size_t emptyLines = 1) const;
    std::string masterCf() const { return masterCf(bindings.size()); }
    std::string records() const;                 ///< The table's database file.
    std::vector<support::Command> tools() const; ///< The tools that a run runs, in order.
    std::vector<std::string> calls() const;      ///< The same, as toolCalls() has them.
};

/// Three domains, in the mode with a service for each.
extern const Request threeDomains;

/// Another request, for the run that follows a fault.
extern const Request twoDomains;

constexpr char cleanMainCf[] = "inet_interfaces = loopback-only\n";

/// The master.cf that a test starts with.
extern const std::string firstMasterCf;

/// Path, then mode and bytes, of everything in /etc/postfix and /var/spool/postfix/zorvo.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot();

/// That of a machine on which the request was carried out.
Snapshot snapshotAfter(const Request& request, size_t emptyLines = 1);

/// How many empty lines follow the foreign services.
size_t emptyLinesNow();

/// Keeps the real tools, installs the stand-ins and starts a "qmgr" for the program to find. Throws outside
/// the sandbox.
void setUpMachine(const std::string& toolPath);

/// Puts the real postconf and postmap in place, or the stand-ins again.
void useRealTools(bool real);

/// The files as they are at the start.
void resetWorld();

/// The same, and the stand-ins in place.
void restoreMachine();

/// The tools that were run since then: only the commands, and with everything else that is recorded.
std::vector<std::string> toolCalls();
std::vector<std::string> toolNotes();

/// Lock files that somebody holds.
std::vector<std::string> heldLocks();

/// Runs the real `postconf -M` on master.cf as it is. Empty, or what is wrong.
std::string judgeByPostconf();

} // namespace faults
