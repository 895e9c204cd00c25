// ToolStandIns: recording stand-ins for the programs that postfix/ runs.
//
// This test program itself is put at a tool's path: by a bind mount in a mount namespace of the test's own,
// or by a copy where scripts/sandbox had to do without namespaces. Started under such a path it does not run
// tests: before main it writes down its argument vector, its standard input and the state of the files and
// locks a test asked about, then prints and ends as the test told it to. Without an answer a stand-in prints
// nothing and exits with 0.
#pragma once

#include "support/ScratchDir.h"
#include "support/ToolRuns.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// What a stand-in does.
struct ToolAnswer {
    std::string out;
    std::string err;
    int exitCode = 0;
    int signal = 0;         ///< Other than 0: the stand-in kills itself with it.
    bool readsInput = true; ///< False: standard input is left alone. It is read only where postmap reads it.
    std::vector<std::pair<std::string, std::string>> writes; ///< Files to write: path and content.

    static ToolAnswer prints(const std::string& text);
    /// As postconf(1) answers the question for its directory.
    static ToolAnswer directory(const std::string& path = configDirectory);
    static ToolAnswer fails(int code, const std::string& errorOutput);
    static ToolAnswer dies(int signal, const std::string& errorOutput);
};

/// A file as a stand-in saw it.
struct SeenFile {
    unsigned mode;
    std::string content;

    bool operator==(const SeenFile& other) const { return mode == other.mode && content == other.content; }
};

/// One run of a stand-in.
struct ToolCall {
    std::string program; ///< The path that was executed.
    std::vector<std::string> argv;
    std::string input;
    std::map<std::string, std::optional<SeenFile>> files; ///< Watched files; empty: absent.
    std::map<std::string, bool> lockHeld;                 ///< Probed lock files.
};

class ToolStandIns {
public:
    ToolStandIns();
    ToolStandIns(const ToolStandIns&) = delete;
    ToolStandIns& operator=(const ToolStandIns&) = delete;
    ~ToolStandIns();

    /// Puts the recording stand-in at `program`.
    void replace(const std::string& program);

    /// Puts a file that cannot be executed at `program`.
    void breakTool(const std::string& program);

    /// From now on `program` answers so; with `arguments`, only when run with exactly these.
    void answer(const std::string& program, const ToolAnswer& answer);
    void answer(const std::string& program, const std::vector<std::string>& arguments,
                const ToolAnswer& answer);

    /// The next run that no earlier answer of this kind serves answers so. Goes before the lasting answers.
    void answerOnce(const std::string& program, const ToolAnswer& answer);

    /// Each later call records this file's mode and content.
    void watchFile(const std::string& path);

    /// Each later call records whether somebody holds the flock(2) on this file.
    void probeLock(const std::string& path);

    /// All runs so far, in order.
    std::vector<ToolCall> calls() const;

    /// Argument vectors of all runs so far, in order.
    std::vector<std::vector<std::string>> commandLines() const;

    /// Forgets the runs so far.
    void forget();

private:
    void cover(const std::string& program, const std::string& source);
    void uncover();
    void addAnswer(const std::string& program, const std::vector<std::string>* arguments, bool once,
                   const ToolAnswer& answer);

    ScratchDir state_;
    bool mounts_;
    std::vector<std::string> covered_; ///< Oldest first.
    int answers_ = 0;
};

} // namespace support
