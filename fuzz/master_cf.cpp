// Fuzz target: master.cf read (postfix/MasterCfParser.h), edited, stored and read again
// (postfix/ModuleManager.h).
//
// Input: the file. It is read from memory and compared with a model; now and then, and for every kept input,
// it also goes through real files. Those need what scripts/sandbox provides: /run/sandbox, and
// /run/lock/files for the lock.
#include "fuzz/fuzz.h"
#include "postfix/MasterCfParser.h"
#include "postfix/ModuleManager.h"
#include "postfix/PostfixError.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

namespace {

namespace fs = std::filesystem;
using zorvo::mail::postfix::MasterCfContent;
using zorvo::mail::postfix::ModuleInfo;
using zorvo::mail::postfix::ModuleType;

using Key = std::pair<std::string, ModuleType>;
using Lines = std::vector<std::string>;

bool same(const ModuleInfo& one, const ModuleInfo& other)
{
    return one.name == other.name && one.type == other.type &&
           one.privateMode.value == other.privateMode.value &&
           one.unprivileged.value == other.unprivileged.value && one.chroot.value == other.chroot.value &&
           one.wakeup == other.wakeup && one.wakeupIfUsed == other.wakeupIfUsed &&
           one.maxProc == other.maxProc && one.command == other.command;
}

bool same(const std::vector<ModuleInfo>& one, const std::vector<ModuleInfo>& other)
{
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](const ModuleInfo& a, const ModuleInfo& b) { return same(a, b); });
}

/// The grammar once more, as a walk over the text that knows nothing of Spirit.
class Model {
public:
    explicit Model(const std::string& text) : text_(text)
    {
        do
            readLine();
        while (accept('\n'));
    }

    size_t stop() const { return position_; }
    bool full() const { return position_ == text_.size(); }
    const Lines& lines() const { return lines_; }
    const Lines& linesWithoutServices() const { return otherLines_; }
    bool hasRepeatedService() const { return repeated_; }

    std::vector<ModuleInfo> services() const
    {
        std::vector<ModuleInfo> result;
        for (const auto& service : services_)
            result.push_back(service.second);
        return result;
    }

private:
    int peek() const { return position_ < text_.size() ? static_cast<unsigned char>(text_[position_]) : -1; }
    bool accept(char c)
    {
        if (peek() != static_cast<unsigned char>(c))
            return false;
        ++position_;
        return true;
    }
    bool acceptWord(const std::string& word)
    {
        if (text_.compare(position_, word.size(), word) != 0)
            return false;
        position_ += word.size();
        return true;
    }
    size_t skipBlanks()
    {
        const size_t before = position_;
        while (accept(' ') || accept('\t') || accept('\r')) {
        }
        return position_ - before;
    }
    void skipComment()
    {
        if (peek() == '#')
            position_ = std::min(text_.find('\n', position_), text_.size());
    }

    /// What may separate two columns or words: blanks, and whole lines of blanks and comments as long as
    /// a line with a blank in front follows.
    void skipSeparator()
    {
        skipBlanks();
        skipComment();
        const size_t endOfLine = position_;
        size_t continuation = std::string::npos;
        while (accept('\n')) {
            if (skipBlanks() != 0)
                continuation = position_;
            else
                continuation = std::string::npos;
            const size_t here = position_;
            skipComment();
            if (peek() != '\n') {
                position_ = here;
                break;
            }
        }
        position_ = continuation != std::string::npos ? continuation : endOfLine;
    }

    bool readName(std::string& name)
    {
        while (std::islower(peek()) != 0 || std::isdigit(peek()) != 0 || peek() == '-' || peek() == '_' ||
               peek() == ':' || peek() == '.')
            name += text_[position_++];
        return !name.empty();
    }

    bool readType(ModuleType& type)
    {
        // The longer word first.
        const std::pair<const char*, ModuleType> types[] = {{"unix-dgram", ModuleType::UnixDgram},
                                                            {"unix", ModuleType::Unix},
                                                            {"inet", ModuleType::Inet},
                                                            {"fifo", ModuleType::Fifo},
                                                            {"pass", ModuleType::Pass}};
        const auto found = std::find_if(std::begin(types), std::end(types),
                                        [&](const auto& candidate) { return acceptWord(candidate.first); });
        if (found != std::end(types))
            type = found->second;
        return found != std::end(types);
    }

    bool readYesNo(boost::logic::tribool& value)
    {
        if (accept('y'))
            value = true;
        else if (accept('n'))
            value = false;
        else
            return accept('-');
        return true;
    }

    bool readNumber(int32_t& number)
    {
        if (accept('-'))
            return true;
        uint64_t value = 0;
        const size_t before = position_;
        while (std::isdigit(peek()) != 0) {
            value = value * 10 + static_cast<uint64_t>(peek() - '0');
            if (value > UINT32_MAX)
                return false;
            ++position_;
        }
        if (position_ == before)
            return false;
        number = static_cast<int32_t>(static_cast<uint32_t>(value));
        return true;
    }

    bool readWakeup(ModuleInfo& service)
    {
        const bool digit = peek() != '-';
        if (!readNumber(service.wakeup))
            return false;
        if (digit && accept('?'))
            service.wakeupIfUsed = true;
        return true;
    }

    bool readWord(std::list<std::string>& words)
    {
        std::string word;
        while (peek() > ' ' && peek() < 0x7f && peek() != '#')
            word += text_[position_++];
        if (!word.empty())
            words.push_back(word);
        return !word.empty();
    }

    bool readCommand(std::list<std::string>& words)
    {
        size_t afterWord = position_;
        while (readWord(words)) {
            afterWord = position_;
            skipSeparator();
        }
        position_ = afterWord;
        return !words.empty();
    }

    bool readService(ModuleInfo& service)
    {
        const auto separated = [this](bool read) {
            if (read)
                skipSeparator();
            return read;
        };
        const bool read = separated(readName(service.name)) && separated(readType(service.type)) &&
                          separated(readYesNo(service.privateMode)) &&
                          separated(readYesNo(service.unprivileged)) &&
                          separated(readYesNo(service.chroot)) && separated(readWakeup(service)) &&
                          separated(readNumber(service.maxProc)) && readCommand(service.command);
        if (read)
            skipBlanks();
        return read;
    }

    void readLine()
    {
        const size_t begin = position_;
        ModuleInfo service;
        if (readService(service)) {
            addService(service, text_.substr(begin, position_ - begin));
            return;
        }
        position_ = begin;
        skipBlanks();
        skipComment();
        lines_.push_back(text_.substr(begin, position_ - begin));
        otherLines_.push_back(lines_.back());
    }

    void addService(const ModuleInfo& service, const std::string& text)
    {
        const Key key(service.name, service.type);
        services_[key] = service;
        const auto place = places_.find(key);
        if (place != places_.end()) {
            repeated_ = true;
            lines_[place->second] = text;
            return;
        }
        places_[key] = lines_.size();
        lines_.push_back(text);
    }

    const std::string& text_;
    size_t position_ = 0;
    Lines lines_;
    Lines otherLines_;
    std::map<Key, ModuleInfo> services_;
    std::map<Key, size_t> places_;
    bool repeated_ = false;
};

Lines linesOf(const MasterCfContent& content)
{
    return Lines(content.rawLines().begin(), content.rawLines().end());
}

Lines withoutEmptyEnd(Lines lines)
{
    while (!lines.empty() && lines.back().empty())
        lines.pop_back();
    return lines;
}

std::string withoutEmptyEnd(const std::string& text)
{
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

/// The file that these lines are stored as.
std::string fileOf(const Lines& lines)
{
    const Lines kept = withoutEmptyEnd(lines);
    std::string text;
    for (const std::string& line : kept.empty() ? lines : kept)
        text += line + "\n";
    return text;
}

/// Reads `text` from memory. Returns the position where reading stopped.
size_t read(const std::string& text, MasterCfContent& content)
{
    const zorvo::mail::postfix::MasterCfParser grammar(content);
    const std::vector<char> exact(text.begin(), text.end());
    const char* const begin = exact.data();
    const auto result = zorvo::parser::classic::parse(begin, begin + exact.size(), grammar);
    FUZZ_CHECK(result.full == (result.hit && result.stop == begin + exact.size()));
    return static_cast<size_t>(result.stop - begin);
}

/// A service written anew is read as what it was; numbers that no file can hold are left out.
void checkCanonicalLine(const ModuleInfo& service)
{
    if (service.wakeup < -1 || service.maxProc < -1)
        return;
    const std::string line = formatServiceLine(service);
    MasterCfContent content;
    FUZZ_CHECK(read(line, content) == line.size());
    FUZZ_CHECK(linesOf(content) == Lines{line});
    ModuleInfo expected = service;
    expected.wakeupIfUsed = service.wakeupIfUsed && service.wakeup != -1;
    FUZZ_CHECK(same(content.modules(), {expected}));
}

/// Takes all services out, one by one, and puts them back after what remains.
void checkEdits(MasterCfContent& content, const Model& model)
{
    const std::vector<ModuleInfo> services = content.modules();
    Lines expected = model.linesWithoutServices();
    for (const ModuleInfo& service : services) {
        FUZZ_CHECK(content.hasModule(service.name, service.type));
        FUZZ_CHECK(same({content.getModule(service.name, service.type).first}, {service}));
        FUZZ_CHECK(content.removeModule(service.name, service.type));
        FUZZ_CHECK(!content.hasModule(service.name, service.type));
        FUZZ_CHECK(!content.removeModule(service.name, service.type));
    }
    FUZZ_CHECK(linesOf(content) == expected);
    FUZZ_CHECK(content.modules().empty());
    for (const ModuleInfo& service : services) {
        expected.push_back(formatServiceLine(service));
        content.addModule(service, expected.back());
    }
    FUZZ_CHECK(linesOf(content) == expected);
    FUZZ_CHECK(same(content.modules(), services));
}

void checkRoundTrip(const std::string& text, const MasterCfContent& first, const Model& model)
{
    const std::string stored = fileOf(linesOf(first));
    if (!model.hasRepeatedService())
        FUZZ_CHECK(withoutEmptyEnd(stored) == withoutEmptyEnd(text));
    MasterCfContent second;
    FUZZ_CHECK(read(stored, second) == stored.size());
    FUZZ_CHECK(same(second.modules(), first.modules()));
    FUZZ_CHECK(withoutEmptyEnd(linesOf(second)) == withoutEmptyEnd(linesOf(first)));
    if (!withoutEmptyEnd(stored).empty())
        FUZZ_CHECK(fileOf(linesOf(second)) == stored);
}

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    FUZZ_CHECK(file.is_open());
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Loads a file; returns the message of the failure, if any.
std::string load(const fs::path& path, MasterCfContent& content)
{
    try {
        zorvo::mail::postfix::ModuleManager::loadMasterCf(path, content);
        return "";
    } catch (const zorvo::mail::postfix::PostfixConfigurationError& e) {
        return e.what();
    }
}

std::string expectedMessage(const std::string& text, const fs::path& path, const Model& model)
{
    if (text.empty())
        return "unable to open " + path.string();
    if (model.full())
        return "";
    const std::string near =
        text.substr(model.stop(), std::min(text.find('\n', model.stop()), text.size()) - model.stop());
    const std::string message = "unable to parse " + path.string() + ": syntax error at position " +
                                std::to_string(model.stop()) + " near '" + near + "'";
    return message.c_str(); // a NUL cuts it
}

void checkFiles(const std::string& text, const Model& model)
{
    const fs::path directory = "/run/sandbox/fuzz";
    const fs::path path = directory / "master.cf";
    fs::create_directory(directory);
    std::ofstream(path, std::ios::binary) << text;
    MasterCfContent content;
    const std::string message = load(path, content);
    FUZZ_CHECK(message == expectedMessage(text, path, model));
    if (message.empty()) {
        fs::permissions(path, fs::perms::all);
        zorvo::mail::postfix::ModuleManager::storeMasterCf(path, content);
        FUZZ_CHECK(readFile(path) == fileOf(model.lines()));
        FUZZ_CHECK(fs::status(path).permissions() == static_cast<fs::perms>(0644));
    } else {
        FUZZ_CHECK(readFile(path) == text);
    }
    FUZZ_CHECK(std::distance(fs::directory_iterator(directory), fs::directory_iterator()) == 1);
}

/// Whether this input is one of those that go through files: about one of 256.
bool throughFiles(const std::string& text)
{
    return fuzz::everyCheck || std::hash<std::string>()(text) % 256 == 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (!fs::is_directory("/run/sandbox") || !fs::is_directory("/run/lock/files")) {
        std::fprintf(stderr, "master_cf: run it through scripts/sandbox\n");
        std::exit(1);
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = fuzz::toString(data, size);
    const Model model(text);
    if (throughFiles(text))
        checkFiles(text, model);
    if (text.empty())
        return 0;

    MasterCfContent content;
    const size_t stop = read(text, content);
    FUZZ_CHECK(stop == model.stop());
    if (!model.full())
        return 0;
    FUZZ_CHECK(linesOf(content) == model.lines());
    FUZZ_CHECK(same(content.modules(), model.services()));
    for (const ModuleInfo& service : content.modules())
        checkCanonicalLine(service);
    checkRoundTrip(text, content, model);
    checkEdits(content, model);
    return 0;
}
