// Records: what passes between the tests and the stand-ins of Postfix's tools, as files.
//
// A test leaves answers in answerDirectory; every run of a stand-in leaves one call in callDirectory. A
// record is a sequence of fields, each "LENGTH:" and as many bytes, so a field can hold any byte.
#pragma once

#include "support/HeldLock.h"
#include "support/ScratchDir.h"
#include "support/ToolRuns.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace contract {

constexpr char answerDirectory[] = "/run/sandbox/answers";
constexpr char callDirectory[] = "/run/sandbox/calls";

using support::Command;
using support::isLocked;
using support::listing;
using support::readFile;

/// One file as somebody saw it. Absent: mode 0.
struct FileState {
    unsigned mode = 0;
    std::string bytes;

    bool operator==(const FileState& other) const { return mode == other.mode && bytes == other.bytes; }
};

/// What a stand-in answers, and to which run. Where nothing is said it is silent, reads its standard input
/// when the arguments say that records or keys come there, and exits with status 0.
struct Answer {
    Answer() = default;
    explicit Answer(Command to) : command(std::move(to)) {}

    /// Only for the nth run of this command, the first being 1.
    Answer& onRun(int n) { return occurrence = n, *this; }
    Answer& prints(const std::string& text) { return out = text, *this; }
    Answer& complains(const std::string& text) { return err = text, *this; }
    Answer& exits(int status) { return exitStatus = status, *this; }
    /// Dies by this signal instead of exiting.
    Answer& diesBy(int number) { return signal = number, *this; }
    /// Ends without having touched its standard input.
    Answer& leavesInput() { return leaveInput = 1, *this; }
    /// Leaves a process behind that keeps the outputs open until it is killed.
    Answer& leavesDaemon() { return leaveDaemon = 1, *this; }
    /// Gives a file this content before it ends.
    Answer& replaces(const std::string& path, const std::string& bytes)
    {
        return replacePath = path, replaceBytes = bytes, *this;
    }

    Command command;
    int occurrence = 0;
    std::string out;
    std::string err;
    int exitStatus = 0;
    int signal = 0;
    int leaveInput = 0;
    int leaveDaemon = 0;
    std::string replacePath;
    std::string replaceBytes;
};

/// One run of a stand-in.
struct Call {
    std::string program; ///< The path that was given to exec.
    Command command;
    int pid = 0;
    int session = 0;
    int processGroup = 0;
    int daemon = 0;    ///< Pid of the process left behind, or 0.
    int inputRead = 0; ///< Whether standard input was read to its end.
    std::string input;
    std::vector<std::string> environment;
    std::string workingDirectory;
    unsigned umask = 0;
    uint64_t blockedSignals = 0; ///< Bit N-1 stands for signal N, as in /proc/PID/status.
    uint64_t ignoredSignals = 0;
    std::vector<std::string> standardDescriptors; ///< What 0, 1 and 2 are, as in /proc/PID/fd.
    std::vector<std::string> furtherDescriptors;  ///< "NUMBER TARGET" of the open descriptors above 2.
    std::vector<std::string> heldLocks;           ///< Names in /run/lock/files that somebody has locked.
    std::vector<std::string> postfixListing;      ///< Names in /etc/postfix.
    std::vector<std::string> spoolListing;        ///< Names in /var/spool/postfix/zorvo.
    FileState masterCf;                           ///< /etc/postfix/master.cf.
    FileState tableSource;                        ///< /var/spool/postfix/zorvo/sdd_transport_maps.
};

std::string toText(const Answer& answer);
std::string toText(const Call& call);

/// The opposite. Throws std::runtime_error where the text is not such a record.
Answer answerFromText(const std::string& text);
Call callFromText(const std::string& text);

/// All records of a directory in the order in which they were written.
std::vector<std::string> readRecords(const char* directory);

/// Adds a record to a directory.
void writeRecord(const char* directory, const std::string& text);

/// Writes a file whole, with mode 0644 when it is new, whatever the umask. Throws std::runtime_error when
/// that fails.
void writeWhole(const std::string& path, const std::string& bytes);

/// A file's permissions and bytes.
FileState stateOf(const std::string& path);

} // namespace contract
