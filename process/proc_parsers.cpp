#include "process/proc_parsers.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>

int proc_pid_fd_str_to_int(const char* name) noexcept
{
    if (*name == '\0' || (*name == '0' && name[1] != '\0'))
        return -1;
    long number = 0;
    for (; *name != '\0'; ++name) {
        if (*name < '0' || *name > '9')
            return -1;
        number = number * 10 + (*name - '0');
        if (number > INT_MAX)
            return -1;
    }
    return static_cast<int>(number);
}

namespace zorvo::process {

namespace {

bool isSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

/// Like "%99s" of scanf(3): the next word or, of a longer one, the next 99 characters. Empty at the end.
std::string_view nextWord(const std::string& text, size_t& position)
{
    constexpr size_t maxLength = 99;
    while (position < text.size() && isSpace(text[position]))
        ++position;
    const size_t start = position;
    while (position < text.size() && position - start < maxLength && !isSpace(text[position]))
        ++position;
    return std::string_view(text).substr(start, position - start);
}

/// Like "%d %d %d %d".
bool nextFourIds(const std::string& text, size_t& position, int (&ids)[4])
{
    int found[4];
    for (int& id : found) {
        const char* const start = text.c_str() + position;
        char* end = nullptr;
        id = static_cast<int>(std::strtoll(start, &end, 10));
        if (end == start)
            return false;
        position += static_cast<size_t>(end - start);
    }
    std::copy(std::begin(found), std::end(found), std::begin(ids));
    return true;
}

} // namespace

bool parseProcStat(const std::string& text, std::string& command, int& parentPid)
{
    char word[4096 + 1];
    int afterState = -1;
    if (std::sscanf(text.c_str(), "%*d (%4096s %*c%n", word, &afterState) < 1)
        return false;
    command = word;
    if (!command.empty() && command.back() == ')')
        command.pop_back();
    parentPid = -1;
    if (afterState != -1) { // strtol(3) rather than "%d", which has no answer to a number out of range
        const int error = errno;
        const char* const start = text.c_str() + afterState;
        char* end = nullptr;
        const long parent = std::strtol(start, &end, 10);
        if (end != start && parent >= INT_MIN && parent <= INT_MAX)
            parentPid = static_cast<int>(parent);
        errno = error;
    }
    return true;
}

bool parseProcStatus(const std::string& text, int (&uid)[4], int (&gid)[4])
{
    const int error = errno; // strtoll(3) may set it
    bool uidFound = false;
    bool gidFound = false;
    size_t position = 0;
    while (!uidFound || !gidFound) {
        const std::string_view word = nextWord(text, position);
        if (word.empty())
            break;
        // The process's name comes first and may imitate these; of two the later one counts.
        if (word == "Uid:")
            uidFound = nextFourIds(text, position, uid) || uidFound;
        else if (word == "Gid:")
            gidFound = nextFourIds(text, position, gid) || gidFound;
    }
    errno = error;
    return uidFound && gidFound;
}

void splitCmdline(std::string& text, std::vector<char*>& argv)
{
    argv.clear();
    for (size_t start = 0; start < text.size();) {
        argv.push_back(&text[start]);
        const size_t end = text.find('\0', start);
        start = end == std::string::npos ? text.size() : end + 1;
    }
    argv.push_back(nullptr);
}

} // namespace zorvo::process
