// A quick stand-in of postconf, postmap and the service script that keeps state: it edits main.cf, merges
// records into the table's database file (as text, sorted) and restarts nothing. Which of the three it is
// follows from the name it was run by. It notes each of its runs, in one line, in /run/sandbox/log.
//
// The thousands of runs of the sweeps are what it is for: linked statically, it starts in half a millisecond.
#include "log.h"
#include "support/FixedPaths.h"
#include "support/OpenFds.h"
#include "support/TableFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using faults::toolLogPath;
using support::configDirectory;
using support::mainCfPath;

std::string self;

[[noreturn]] void fatal(const std::string& text)
{
    const std::string line = self + ": fatal: " + text + ": " + strerror(errno) + '\n';
    (void)!write(STDERR_FILENO, line.data(), line.size());
    _exit(1);
}

std::string readAll(int fd, const std::string& name)
{
    std::string text;
    char chunk[16384];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<size_t>(got));
    if (got == -1)
        fatal("read " + name);
    return text;
}

std::string readFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd == -1)
        fatal("open " + path);
    const std::string text = readAll(fd, path);
    close(fd);
    return text;
}

void replaceFile(const std::string& path, const std::string& text)
{
    const std::string temporary = path + ".tmp";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd == -1)
        fatal("open " + temporary);
    for (size_t done = 0; done < text.size();) {
        const ssize_t put = write(fd, text.data() + done, text.size() - done);
        if (put == -1) {
            const int error = errno;
            unlink(temporary.c_str());
            errno = error;
            fatal("write " + temporary);
        }
        done += static_cast<size_t>(put);
    }
    if (close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0)
        fatal("rename " + temporary);
}

// The descriptors above 2, as "NUMBER=TARGET,...", and this process's signal masks.
std::string surroundings()
{
    std::string text;
    for (const auto& [fd, target] : support::openFds())
        if (fd > STDERR_FILENO)
            text += std::to_string(fd) + '=' + target + ',';
    const std::string status = readFile("/proc/self/status");
    for (const char* const name : {"SigBlk", "SigIgn"}) {
        const size_t at = status.find('\n' + std::string(name) + ":\t") + strlen(name) + 3;
        text += ' ' + status.substr(at, status.find('\n', at) - at);
    }
    return text;
}

void note(char* argv[])
{
    std::string line;
    for (char** word = argv; *word != nullptr; ++word)
        line += (word == argv ? "" : " ") + std::string(*word);
    line += '\t' + surroundings() + '\n';
    const int fd = open(toolLogPath, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd == -1 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fatal("note the run");
    close(fd);
}

// main.cf without the parameter, with `line` at its end.
void editParameter(const std::string& name, const std::string& line)
{
    const std::string text = readFile(mainCfPath);
    std::string edited;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        const std::string old = text.substr(begin, end - begin);
        if (old.compare(0, name.size() + 3, name + " = ") != 0)
            edited += old;
        begin = end;
    }
    replaceFile(mainCfPath, edited + line);
}

int postconf(const std::vector<std::string>& words)
{
    if (words.size() == 2 && words[0] == "-h" && words[1] == "config_directory") {
        puts(configDirectory);
        return fflush(stdout) == 0 ? 0 : 1;
    }
    if (words.size() == 2 && words[0] == "-X") {
        editParameter(words[1], "");
        return 0;
    }
    if (words.size() == 2 && words[0] == "-e") {
        const size_t equals = words[1].find('=');
        const std::string name = words[1].substr(0, equals);
        editParameter(name, name + " = " + words[1].substr(equals + 1) + '\n');
        return 0;
    }
    return 64;
}

void addRecords(const std::string& text, std::map<std::string, std::string>& records)
{
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        const size_t blank = line.find(' ');
        if (blank != std::string::npos)
            records[line.substr(0, blank)] = line.substr(blank + 1);
        begin = end + 1;
    }
}

int postmap(const std::vector<std::string>& words)
{
    const bool merge = words.size() == 3 && words[1] == "-i";
    if (words.size() < 2 || words[0] != "-r" || (words.size() == 3 && !merge))
        return 64;
    const std::string source = support::sourceOf(words.back());
    const std::string database = support::databaseOf(words.back());
    std::map<std::string, std::string> records;
    if (merge) {
        if (access(database.c_str(), F_OK) == 0)
            addRecords(readFile(database), records);
        addRecords(readAll(STDIN_FILENO, "standard input"), records);
    } else {
        addRecords(readFile(source), records);
    }
    std::string text;
    for (const auto& [key, value] : records)
        text += key + ' ' + value + '\n';
    replaceFile(database, text);
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    self = argv[0];
    self.erase(0, self.rfind('/') + 1);
    note(argv);
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (self == "postconf")
        return postconf(words);
    if (self == "postmap")
        return postmap(words);
    return words == std::vector<std::string>{"postfix", "restart"} ? 0 : 64;
}
