// Fuzz target: the texts of /proc (process/proc_parsers.h) and the names in /proc/self/fd, against simple
// models.
//
// Input: one byte that chooses the text by its two low bits ('s' stat, 'u' status, 'l' cmdline, 'f' the name
// of a descriptor), then the text.
#include "process/proc_parsers.h"
#include "fuzz/fuzz.h"

#include <algorithm>
#include <climits>
#include <optional>
#include <vector>

namespace {

__extension__ typedef __int128 WideInteger;

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// A walk over a text. At its end it sees NULs.
class Walk {
public:
    explicit Walk(const std::string& text) : text_(text) {}

    char peek() const { return position_ < text_.size() ? text_[position_] : '\0'; }
    bool atEnd() const { return position_ >= text_.size(); }
    char take() { return text_[position_++]; }
    bool takeIf(char c)
    {
        if (atEnd() || peek() != c)
            return false;
        ++position_;
        return true;
    }
    void skipSpace()
    {
        while (!atEnd() && isSpace(peek()))
            ++position_;
    }

    /// The next characters that are not white space, at most `limit`.
    std::string takeWord(size_t limit)
    {
        skipSpace();
        std::string word;
        while (word.size() < limit && !atEnd() && !isSpace(peek()))
            word += take();
        return word;
    }

    /// A decimal number after white space, cut to 64 bits; nothing, and nothing taken, where there is none.
    std::optional<long long> takeNumber()
    {
        const size_t before = position_;
        skipSpace();
        const bool negative = peek() == '-';
        if (negative || peek() == '+')
            ++position_;
        const size_t first = position_;
        WideInteger value = 0;
        while (peek() >= '0' && peek() <= '9')
            value = std::min<WideInteger>(value * 10 + (take() - '0'), static_cast<WideInteger>(1) << 80);
        if (position_ == first) {
            position_ = before;
            return std::nullopt;
        }
        value = negative ? -value : value;
        return static_cast<long long>(std::clamp<WideInteger>(value, LLONG_MIN, LLONG_MAX));
    }

private:
    const std::string& text_;
    size_t position_ = 0;
};

/// "PID (NAME) STATE PARENT ..."
struct Stat {
    std::string command;
    int parentPid;
};

std::optional<Stat> modelStat(const std::string& bytes)
{
    const std::string text = bytes.c_str(); // read as a C string
    Walk walk(text);
    if (!walk.takeNumber())
        return std::nullopt;
    walk.skipSpace();
    if (!walk.takeIf('('))
        return std::nullopt;
    Stat stat{walk.takeWord(4096), -1};
    if (stat.command.empty())
        return std::nullopt;
    if (stat.command.back() == ')')
        stat.command.pop_back();
    walk.skipSpace();
    if (!walk.atEnd()) {
        walk.take();
        const std::optional<long long> parent = walk.takeNumber();
        if (parent && *parent >= INT_MIN && *parent <= INT_MAX)
            stat.parentPid = static_cast<int>(*parent);
    }
    return stat;
}

void checkStat(const std::string& text)
{
    std::string command = "before";
    int parentPid = -7;
    const bool found = zorvo::process::parseProcStat(text, command, parentPid);
    const std::optional<Stat> expected = modelStat(text);
    FUZZ_CHECK(found == expected.has_value());
    FUZZ_CHECK(command == (expected ? expected->command : "before"));
    FUZZ_CHECK(parentPid == (expected ? expected->parentPid : -7));
}

/// Four ids, all or none of them taken over.
bool takeIds(Walk& walk, std::vector<int>& ids)
{
    std::vector<int> found;
    while (found.size() < 4) {
        const std::optional<long long> number = walk.takeNumber();
        if (!number)
            return false;
        found.push_back(static_cast<int>(*number));
    }
    ids = found;
    return true;
}

void checkStatus(const std::string& text)
{
    std::vector<int> uids(4, 7);
    std::vector<int> gids(4, 7);
    bool uidFound = false;
    bool gidFound = false;
    Walk walk(text);
    while (!uidFound || !gidFound) {
        const std::string word = walk.takeWord(99);
        if (word.empty())
            break;
        if (word == "Uid:")
            uidFound = takeIds(walk, uids) || uidFound;
        else if (word == "Gid:")
            gidFound = takeIds(walk, gids) || gidFound;
    }

    int uid[4] = {7, 7, 7, 7};
    int gid[4] = {7, 7, 7, 7};
    FUZZ_CHECK(zorvo::process::parseProcStatus(text, uid, gid) == (uidFound && gidFound));
    FUZZ_CHECK(std::equal(uids.begin(), uids.end(), uid));
    FUZZ_CHECK(std::equal(gids.begin(), gids.end(), gid));
}

void checkCmdline(const std::string& bytes)
{
    std::vector<std::string> expected;
    std::string argument;
    for (const char c : bytes) {
        if (c != '\0') {
            argument += c;
            continue;
        }
        expected.push_back(argument);
        argument.clear();
    }
    if (!argument.empty())
        expected.push_back(argument);

    std::string text = bytes;
    std::vector<char*> argv{nullptr, nullptr}; // of the process before
    zorvo::process::splitCmdline(text, argv);
    FUZZ_CHECK(text == bytes);
    FUZZ_CHECK(argv.size() == expected.size() + 1);
    FUZZ_CHECK(argv.back() == nullptr);
    for (size_t i = 0; i < expected.size(); ++i) {
        FUZZ_CHECK(argv[i] >= text.data() && argv[i] <= text.data() + text.size());
        FUZZ_CHECK(expected[i] == argv[i]);
    }
}

void checkDescriptorName(const std::string& bytes)
{
    const fuzz::ExactText name(bytes);
    const std::string text = name.begin();
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const bool plain = digits && (text[0] != '0' || text.size() == 1) && text.size() <= 10;
    const long long value = plain ? std::stoll(text) : LLONG_MAX;
    FUZZ_CHECK(proc_pid_fd_str_to_int(name.begin()) == (value <= INT_MAX ? static_cast<int>(value) : -1));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const std::string text = fuzz::toString(data + 1, size - 1);
    switch (data[0] & 3U) {
    case 's' & 3U:
        checkStat(text);
        break;
    case 'u' & 3U:
        checkStatus(text);
        break;
    case 'f' & 3U:
        checkDescriptorName(text);
        break;
    default:
        checkCmdline(text);
    }
    return 0;
}
