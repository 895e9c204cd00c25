// Tools of the tests that run programs through the plain functions: argument vectors, what a call prints,
// which descriptors are open.
#pragma once

#include "support/Capture.h"
#include "support/Child.h"
#include "support/OpenFds.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tools {

/// A null-terminated argument vector.
class Arguments {
public:
    Arguments(std::initializer_list<std::string> texts) : texts_(texts)
    {
        for (std::string& text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    explicit Arguments(std::vector<std::string> texts) : texts_(std::move(texts))
    {
        for (std::string& text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    char* const* get() { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> pointers_;
};

const char* const sh = "/bin/sh";

/// Ends a variable list.
char* const end = nullptr;

inline Arguments script(const std::string& text)
{
    return {"sh", "-c", text};
}

/// What a call returned, and what it and its children wrote on the standard streams. errno is 0 before.
struct Seen {
    int result = -12345;
    std::string out;
    std::string err;
};

inline Seen see(const std::function<int()>& call)
{
    Seen seen;
    support::Capture capture;
    errno = 0;
    seen.result = call();
    seen.out = capture.out();
    seen.err = capture.err();
    return seen;
}

inline std::string taken(char* buffer)
{
    const std::unique_ptr<char, void (*)(void*)> owner(buffer, std::free);
    return buffer == nullptr ? "(null)" : buffer;
}

/// Which of the descriptors below 1000 are open.
inline std::vector<int> openNumbers(int from = 0)
{
    std::vector<int> numbers;
    for (int fd = from; fd < 1000; ++fd)
        if (::fcntl(fd, F_GETFD) != -1)
            numbers.push_back(fd);
    return numbers;
}

/// The link text of one descriptor.
inline std::string targetOf(int fd)
{
    const auto fds = support::openFds();
    const auto found = fds.find(fd);
    return found == fds.end() ? "" : found->second;
}

inline void closeAllButStandard()
{
    for (const auto& [fd, target] : support::openFds())
        if (fd > 2)
            ::close(fd);
}

#define TEN(x) x "0", x "1", x "2", x "3", x "4", x "5", x "6", x "7", x "8", x "9"
#define HUNDRED                                                                                              \
    TEN("0"), TEN("1"), TEN("2"), TEN("3"), TEN("4"), TEN("5"), TEN("6"), TEN("7"), TEN("8"), TEN("9")

/// `count` numbers of two digits from 00 on, a line each.
inline std::string numbers(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += std::to_string(i / 10) + std::to_string(i % 10) + "\n";
    return text;
}

} // namespace tools
