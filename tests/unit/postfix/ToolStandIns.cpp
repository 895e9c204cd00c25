#include "unit/postfix/ToolStandIns.h"

#include "support/HeldLock.h"
#include "support/Mounts.h"
#include "support/OpenFds.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace support {

namespace {

const char* const stateVariable = "ZORVO_TEST_STAND_INS";

// Files of the state directory hold fields: "TAG LENGTH\n" and LENGTH bytes each.
using Fields = std::vector<std::pair<std::string, std::string>>;

std::string encode(const Fields& fields)
{
    std::string text;
    for (const auto& [tag, value] : fields)
        text += tag + ' ' + std::to_string(value.size()) + '\n' + value;
    return text;
}

Fields decode(const std::string& text)
{
    Fields fields;
    for (size_t at = 0; at < text.size();) {
        const size_t blank = text.find(' ', at);
        const size_t lineEnd = text.find('\n', blank);
        const size_t size = std::stoul(text.substr(blank + 1, lineEnd - blank - 1));
        fields.emplace_back(text.substr(at, blank - at), text.substr(lineEnd + 1, size));
        at = lineEnd + 1 + size;
    }
    return fields;
}

std::string numbered(const std::string& stem, int number)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%06d", number);
    return stem + digits;
}

void writeAll(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put == -1 && errno == EINTR)
            continue;
        if (put == -1)
            return;
        done += static_cast<size_t>(put);
    }
}

std::string seen(const std::string& path)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0)
        return "absent";
    return std::to_string(status.st_mode & 07777U) + ' ' + (S_ISREG(status.st_mode) ? readFile(path) : "");
}

// The answer for this run: the first one-time answer that fits, else the last lasting one.
Fields chooseAnswer(const std::string& state, const std::string& program,
                    const std::vector<std::string>& args)
{
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(state))
        if (entry.path().filename().string().compare(0, 7, "answer.") == 0)
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    Fields chosen;
    for (const std::string& file : files) {
        const Fields answer = decode(readFile(file));
        std::vector<std::string> wanted;
        bool anyArguments = true;
        bool once = false;
        bool fits = true;
        for (const auto& [tag, value] : answer) {
            if (tag == "program")
                fits = value == program;
            else if (tag == "once")
                once = true;
            else if (tag == "arguments")
                anyArguments = false;
            else if (tag == "argument")
                wanted.push_back(value);
        }
        if (!fits || (!anyArguments && wanted != args))
            continue;
        chosen = answer;
        if (once) {
            ::unlink(file.c_str());
            break;
        }
    }
    return chosen;
}

// What the test learns about this run: the arguments, the files and locks it asked about, the input.
Fields observe(const std::string& state, const std::string& program, const std::vector<std::string>& argv)
{
    Fields record{{"program", program}};
    for (const std::string& arg : argv)
        record.emplace_back("argument", arg);
    for (const auto& [tag, value] : decode(readFile(state + "/watched"))) {
        if (tag == "file")
            record.emplace_back("file", value + '\n' + seen(value));
        else
            record.emplace_back("lock", value + '\n' + (isLocked(value) ? "held" : "free"));
    }
    return record;
}

// Prints, writes and ends as the answer says.
[[noreturn]] void giveAnswer(const Fields& answer)
{
    int exitCode = 0;
    int signal = 0;
    for (const auto& [tag, value] : answer) {
        if (tag == "out")
            writeAll(1, value);
        else if (tag == "err")
            writeAll(2, value);
        else if (tag == "exit")
            exitCode = std::stoi(value);
        else if (tag == "signal")
            signal = std::stoi(value);
        else if (tag == "write")
            writeFile(value.substr(0, value.find('\n')), value.substr(value.find('\n') + 1));
    }
    if (signal != 0)
        dieOf(signal);
    ::_exit(exitCode);
}

[[noreturn]] void actAsTool(const std::string& program, const std::vector<std::string>& argv)
{
    const char* const stateName = std::getenv(stateVariable);
    if (stateName == nullptr) {
        writeAll(2, "stand-in: the environment is not the test's\n");
        ::_exit(99);
    }
    const std::string state = stateName;
    int call = -1;
    for (int number = 0; call == -1; ++number)
        call =
            ::open(numbered(state + "/call.", number).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);

    const std::vector<std::string> args(argv.empty() ? argv.begin() : argv.begin() + 1, argv.end());
    const Fields answer = chooseAnswer(state, program, args);
    Fields record = observe(state, program, argv);
    const bool ignoresInput = std::any_of(answer.begin(), answer.end(),
                                          [](const auto& field) { return field.first == "ignores-input"; });
    if (program == postmapPath && readsInput(args) && !ignoresInput)
        record.emplace_back("input", readAll(0));
    writeAll(call, encode(record));
    ::close(call);
    giveAnswer(answer);
}

// Runs before main and before the tests are registered; glibc passes main's arguments.
__attribute__((constructor)) void takeStandInRole(int argc, char** argv, char** /*environment*/)
{
    const char* const executed = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));
    const std::string program = executed == nullptr ? "" : executed;
    for (const char* const tool : {postconfPath, postmapPath, serviceScriptPath, registerServicePath})
        if (program == tool)
            actAsTool(program, std::vector<std::string>(argv, argv + argc));
}

} // namespace

ToolAnswer ToolAnswer::prints(const std::string& text)
{
    ToolAnswer answer;
    answer.out = text;
    return answer;
}

ToolAnswer ToolAnswer::directory(const std::string& path)
{
    return prints(path + '\n');
}

ToolAnswer ToolAnswer::fails(int code, const std::string& errorOutput)
{
    ToolAnswer answer;
    answer.exitCode = code;
    answer.err = errorOutput;
    return answer;
}

ToolAnswer ToolAnswer::dies(int signal, const std::string& errorOutput)
{
    ToolAnswer answer;
    answer.signal = signal;
    answer.err = errorOutput;
    return answer;
}

ToolStandIns::ToolStandIns() : mounts_(canMount())
{
    if (mounts_ && !makeMountsPrivate())
        throw std::runtime_error("cannot have a mount namespace");
    ::setenv(stateVariable, state_.path().c_str(), 1);
    writeFile(state_.file("watched"), "");
}

ToolStandIns::~ToolStandIns()
{
    while (!covered_.empty())
        uncover();
    ::unsetenv(stateVariable);
}

void ToolStandIns::cover(const std::string& program, const std::string& source)
{
    if (::access(program.c_str(), F_OK) != 0)
        writeFile(program, "");
    if (mounts_) {
        if (::mount(source.c_str(), program.c_str(), nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error("bind mount over " + program + ": " + std::strerror(errno));
    } else {
        std::filesystem::copy_file(program,
                                   state_.file(numbered("original.", static_cast<int>(covered_.size()))));
        std::filesystem::remove(program);
        std::filesystem::copy_file(source, program);
    }
    covered_.push_back(program);
}

void ToolStandIns::uncover()
{
    const std::string program = covered_.back();
    covered_.pop_back();
    if (mounts_) {
        ::umount2(program.c_str(), MNT_DETACH);
        return;
    }
    std::error_code ignored;
    std::filesystem::remove(program, ignored);
    std::filesystem::copy_file(state_.file(numbered("original.", static_cast<int>(covered_.size()))), program,
                               ignored);
}

void ToolStandIns::replace(const std::string& program)
{
    cover(program, std::filesystem::read_symlink("/proc/self/exe").string());
}

void ToolStandIns::breakTool(const std::string& program)
{
    const std::string source = state_.file("not-executable");
    writeFile(source, "");
    ::chmod(source.c_str(), 0644);
    cover(program, source);
}

void ToolStandIns::addAnswer(const std::string& program, const std::vector<std::string>* arguments, bool once,
                             const ToolAnswer& answer)
{
    Fields fields{{"program", program},
                  {"out", answer.out},
                  {"err", answer.err},
                  {"exit", std::to_string(answer.exitCode)},
                  {"signal", std::to_string(answer.signal)}};
    if (once)
        fields.emplace_back("once", "");
    if (!answer.readsInput)
        fields.emplace_back("ignores-input", "");
    for (const auto& [path, content] : answer.writes)
        fields.emplace_back("write", path + '\n' + content);
    if (arguments != nullptr) {
        fields.emplace_back("arguments", "");
        for (const std::string& argument : *arguments)
            fields.emplace_back("argument", argument);
    }
    writeFile(numbered(state_.file("answer."), answers_++), encode(fields));
}

void ToolStandIns::answer(const std::string& program, const ToolAnswer& answer)
{
    addAnswer(program, nullptr, false, answer);
}

void ToolStandIns::answer(const std::string& program, const std::vector<std::string>& arguments,
                          const ToolAnswer& answer)
{
    addAnswer(program, &arguments, false, answer);
}

void ToolStandIns::answerOnce(const std::string& program, const ToolAnswer& answer)
{
    addAnswer(program, nullptr, true, answer);
}

void ToolStandIns::watchFile(const std::string& path)
{
    writeFile(state_.file("watched"), readFile(state_.file("watched")) + encode({{"file", path}}));
}

void ToolStandIns::probeLock(const std::string& path)
{
    writeFile(state_.file("watched"), readFile(state_.file("watched")) + encode({{"lock", path}}));
}

std::vector<ToolCall> ToolStandIns::calls() const
{
    std::vector<ToolCall> result;
    for (const std::string& name : state_.names()) {
        if (name.compare(0, 5, "call.") != 0)
            continue;
        ToolCall call;
        for (const auto& [tag, value] : decode(readFile(state_.file(name)))) {
            const size_t lineEnd = value.find('\n');
            const std::string subject = value.substr(0, lineEnd);
            const std::string state = lineEnd == std::string::npos ? "" : value.substr(lineEnd + 1);
            if (tag == "program")
                call.program = value;
            else if (tag == "argument")
                call.argv.push_back(value);
            else if (tag == "input")
                call.input = value;
            else if (tag == "lock")
                call.lockHeld[subject] = state == "held";
            else if (tag == "file" && state == "absent")
                call.files[subject] = std::nullopt;
            else if (tag == "file")
                call.files[subject] =
                    SeenFile{static_cast<unsigned>(std::stoul(state)), state.substr(state.find(' ') + 1)};
        }
        result.push_back(call);
    }
    return result;
}

std::vector<std::vector<std::string>> ToolStandIns::commandLines() const
{
    std::vector<std::vector<std::string>> result;
    for (const ToolCall& call : calls())
        result.push_back(call.argv);
    return result;
}

void ToolStandIns::forget()
{
    for (const std::string& name : state_.names())
        if (name.compare(0, 5, "call.") == 0)
            ::unlink(state_.file(name).c_str());
}

} // namespace support
