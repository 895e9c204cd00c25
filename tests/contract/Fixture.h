// Fixture: runs the whole program in a small world of its own and shows what it did.
//
// Every test starts with nothing in /etc/postfix, /var/spool/postfix, /run/lock/files and /usr/local/maru
// except stand-ins of postconf, postmap and the service script at their paths, a small master.cf, and a
// running "qmgr" whose parent is named in Postfix's pid file. All this is done to the real paths:
// scripts/sandbox has to make them private first.
#pragma once

#include "standin/Records.h"
#include "support/LockFiles.h"
#include "support/RequestText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace contract {

constexpr char inputPath[] = "/run/sandbox/input";

// The system's fixed places, the locks on them, and the tool runs that a run is made of.
using namespace support;

/// The first and the last parameter that a run removes.
extern const Command removeFirstParameter;
extern const Command removeLastParameter;

/// The locks held while a tool makes the change that `lock` protects, as its stand-in sees them.
std::vector<std::string> heldWith(const std::string& lock);

/// The master.cf that a test starts with.
extern const char plainServices[];

/// How a run ended: raw wait status and everything on both output streams.
struct End {
    int waitStatus = 0;
    std::string out;
    std::string err;

    bool operator==(const End& other) const
    {
        return waitStatus == other.waitStatus && out == other.out && err == other.err;
    }
    bool operator!=(const End& other) const { return !(*this == other); }
};
std::ostream& operator<<(std::ostream& stream, const End& end);

/// Status 0 without output.
End success();

/// Status 1 and "Fatal error: DESCRIPTION" once on each stream, after `earlier` on each.
End failure(const std::string& description, const std::string& earlier = std::string());

/// failure() for a request that cannot be parsed, with the reader's text.
End badRequest(const std::string& reason);

/// One ended run of the program.
struct Outcome {
    End end;
    int pid = 0;
    std::vector<Call> calls; ///< The tools that this run ran, in order.
    int leftProcesses = 0;   ///< Children that this run left behind, ended or not; daemons do not count.

    std::vector<Command> commands() const;

    /// What the runs of `addRecord` got on standard input.
    std::vector<std::string> records() const;

    /// The first run of that command. Throws std::out_of_range when there was none.
    const Call& call(const Command& command) const;
};

/// One run of the program, with a pipe, empty unless pipe() fills it, as standard input; with no signal
/// ignored or blocked.
class Program {
public:
    /// Of zorvo-smtp-bind, or of the program at `path`.
    explicit Program(std::vector<std::string> arguments, const std::string& path = ZORVO_PROGRAM);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    // Standard input with these bytes, as...
    Program& pipe(const std::string& bytes);
    Program& file(const std::string& bytes); ///< ...the regular file at inputPath.
    Program& socket(const std::string& bytes);
    Program& terminal(const std::string& bytes);

    /// Standard input: whatever is at this path.
    Program& device(const std::string& path);

    /// The environment, in place of this process's.
    Program& environment(std::vector<std::string> variables);

    /// Called in the child right before the program is executed.
    Program& before(std::function<void()> action);

    /// Starts it; returns its pid. What goes into the pipe is written by finish().
    pid_t start();

    /// Waits for the end of the run; ends it by force when nothing comes from it for a minute.
    Outcome finish();

    Outcome run();

    /// How far the program, or a tool it ran, has read in the file given with file().
    off_t inputPosition() const;

private:
    [[noreturn]] void _execute(int out, int err);
    void _transfer();

    std::vector<std::string> arguments_;
    std::vector<std::string> variables_;
    bool inheritVariables_ = true;
    std::function<void()> before_;
    std::string toWrite_;
    int input_ = -1;  ///< The program's standard input.
    int feeder_ = -1; ///< The end at which it is fed.
    int output_ = -1; ///< The ends at which its output arrives.
    int error_ = -1;
    Outcome outcome_;
    size_t callsBefore_ = 0;
};

/// Everything below the directories that the program may change: path, then type, mode, inode and bytes, so
/// that a file that was merely replaced differs, too.
using World = std::map<std::string, std::string>;

World world();

/// Makes a stand-in answer so from now on.
void answer(const Answer& answer);

void writeMasterCf(const std::string& bytes);
std::string masterCf();

Outcome runDomainIp(const std::vector<Binding>& domains);
Outcome runDomainName(const std::vector<Binding>& domains);

/// A run that binds all traffic to 192.0.2.1.
Outcome runExplicitIp();

class ContractTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// From now on no "qmgr" is to be found.
    static void stopMailServer();
};

} // namespace contract
