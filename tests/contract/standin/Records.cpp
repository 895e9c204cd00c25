#include "standin/Records.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace contract {

namespace {

class Writer {
public:
    void field(const std::string& bytes) { text_ += std::to_string(bytes.size()) + ':' + bytes; }
    template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
    void field(Number number)
    {
        field(std::to_string(number));
    }
    void field(const std::vector<std::string>& list)
    {
        field(list.size());
        for (const std::string& element : list)
            field(element);
    }
    void field(const FileState& file)
    {
        field(file.mode);
        field(file.bytes);
    }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

class Reader {
public:
    explicit Reader(const std::string& text) : text_(text) {}

    void field(std::string& bytes)
    {
        const size_t colon = text_.find(':', at_);
        if (colon == std::string::npos)
            throw std::runtime_error("record without a field at " + std::to_string(at_));
        const size_t size = std::stoul(text_.substr(at_, colon - at_));
        if (text_.size() - colon - 1 < size)
            throw std::runtime_error("record cut short");
        bytes = text_.substr(colon + 1, size);
        at_ = colon + 1 + size;
    }
    template <class Number, class = std::enable_if_t<std::is_arithmetic_v<Number>>>
    void field(Number& number)
    {
        std::string digits;
        field(digits);
        if constexpr (std::is_signed_v<Number>)
            number = static_cast<Number>(std::stoll(digits));
        else
            number = static_cast<Number>(std::stoull(digits));
    }
    void field(std::vector<std::string>& list)
    {
        size_t size = 0;
        field(size);
        list.resize(size);
        for (std::string& element : list)
            field(element);
    }
    void field(FileState& file)
    {
        field(file.mode);
        field(file.bytes);
    }

private:
    const std::string& text_;
    size_t at_ = 0;
};

// The fields in the order of the record, for both directions.
template <class Archive, class AnswerType>
void answerFields(Archive& archive, AnswerType& answer)
{
    archive.field(answer.command);
    archive.field(answer.occurrence);
    archive.field(answer.out);
    archive.field(answer.err);
    archive.field(answer.exitStatus);
    archive.field(answer.signal);
    archive.field(answer.leaveInput);
    archive.field(answer.leaveDaemon);
    archive.field(answer.replacePath);
    archive.field(answer.replaceBytes);
}

template <class Archive, class CallType>
void callFields(Archive& archive, CallType& call)
{
    archive.field(call.program);
    archive.field(call.command);
    archive.field(call.pid);
    archive.field(call.session);
    archive.field(call.processGroup);
    archive.field(call.daemon);
    archive.field(call.inputRead);
    archive.field(call.input);
    archive.field(call.environment);
    archive.field(call.workingDirectory);
    archive.field(call.umask);
    archive.field(call.blockedSignals);
    archive.field(call.ignoredSignals);
    archive.field(call.standardDescriptors);
    archive.field(call.furtherDescriptors);
    archive.field(call.heldLocks);
    archive.field(call.postfixListing);
    archive.field(call.spoolListing);
    archive.field(call.masterCf);
    archive.field(call.tableSource);
}

} // namespace

std::string toText(const Answer& answer)
{
    Writer writer;
    answerFields(writer, answer);
    return writer.text();
}

std::string toText(const Call& call)
{
    Writer writer;
    callFields(writer, call);
    return writer.text();
}

Answer answerFromText(const std::string& text)
{
    Answer answer;
    Reader reader(text);
    answerFields(reader, answer);
    return answer;
}

Call callFromText(const std::string& text)
{
    Call call;
    Reader reader(text);
    callFields(reader, call);
    return call;
}

std::vector<std::string> readRecords(const char* directory)
{
    std::vector<std::string> records;
    for (const std::string& name : listing(directory))
        records.push_back(readFile(std::string(directory) + '/' + name));
    return records;
}

void writeRecord(const char* directory, const std::string& text)
{
    char name[16];
    snprintf(name, sizeof name, "/%06zu", listing(directory).size());
    writeWhole(directory + std::string(name), text);
}

void writeWhole(const std::string& path, const std::string& bytes)
{
    const bool isNew = access(path.c_str(), F_OK) != 0;
    support::writeFile(path, bytes);
    if (isNew)
        std::filesystem::permissions(path, std::filesystem::perms(0644));
}

FileState stateOf(const std::string& path)
{
    FileState state;
    struct stat info;
    if (lstat(path.c_str(), &info) == 0) {
        state.mode = info.st_mode & 07777;
        if (S_ISREG(info.st_mode))
            state.bytes = readFile(path);
    }
    return state;
}

} // namespace contract
