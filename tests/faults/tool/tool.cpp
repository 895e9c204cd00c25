// A quick stand-in of postconf, postmap and the service script that keeps state: it edits main.cf, merges
// records into the table's database file (as text, sorted) and restarts nothing. Which of the three it is
// follows from the name it was run by. It notes each of its runs, in one line, in /run/sandbox/log.
//
// The thousands of runs of the sweeps are what it is for: linked statically, it starts in half a millisecond.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const char* const mainCf = "/etc/postfix/main.cf";
const char* const logFile = "/run/sandbox/log";

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
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr)
        fatal("open /proc/self/fd");
    std::vector<int> numbers;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(directory))
            numbers.push_back(atoi(entry->d_name));
    closedir(directory);
    std::sort(numbers.begin(), numbers.end());
    for (const int fd : numbers) {
        if (fd <= STDERR_FILENO)
            continue;
        char target[256];
        const ssize_t length =
            readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
        text += std::to_string(fd) + '=' + std::string(target, length > 0 ? static_cast<size_t>(length) : 0) +
                ',';
    }
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
    const int fd = open(logFile, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd == -1 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fatal("note the run");
    close(fd);
}

// main.cf without the parameter, with `line` at its end.
void editParameter(const std::string& name, const std::string& line)
{
    const std::string text = readFile(mainCf);
    std::string edited;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        const std::string old = text.substr(begin, end - begin);
        if (old.compare(0, name.size() + 3, name + " = ") != 0)
            edited += old;
        begin = end;
    }
    replaceFile(mainCf, edited + line);
}

int postconf(const std::vector<std::string>& words)
{
    if (words.size() == 2 && words[0] == "-h" && words[1] == "config_directory") {
        puts("/etc/postfix");
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
    const std::string source = words.back().substr(words.back().find(':') + 1);
    const std::string database = source + ".db";
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
