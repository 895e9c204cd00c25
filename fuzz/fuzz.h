// What the fuzz targets share.
//
// A target is one source that defines LLVMFuzzerTestOneInput (https://llvm.org/docs/LibFuzzer.html) and
// aborts, through FUZZ_CHECK, where the code under test breaks a promise. It is linked with libFuzzer to
// search for new inputs, and with replay.cpp to run those that are kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// Set by replay.cpp: checks that are too slow for every input of a search are made for all.
inline bool everyCheck = false;

[[noreturn]] inline void fail(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}

inline std::string toString(const uint8_t* data, size_t size)
{
    return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

/// A NUL-terminated copy of `text` up to its first NUL, in a block of exactly that size, so that
/// AddressSanitizer reports any access past the end.
class ExactText {
public:
    explicit ExactText(const std::string& text)
        : size_(std::strlen(text.c_str())), block_(static_cast<char*>(std::malloc(size_ + 1)))
    {
        if (block_ == nullptr)
            std::abort();
        std::memcpy(block_, text.c_str(), size_ + 1);
    }
    ExactText(const ExactText&) = delete;
    ExactText& operator=(const ExactText&) = delete;
    ~ExactText() { std::free(block_); }

    char* begin() const { return block_; }
    char* end() const { return block_ + size_; } ///< At the NUL.
    size_t size() const { return size_; }
    bool holds(const char* pointer) const { return pointer >= block_ && pointer <= end(); }

private:
    size_t size_;
    char* block_;
};

} // namespace fuzz

/// Ends the process, which a fuzzer reports as a find, unless `condition` holds.
#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::fail(#condition, __FILE__, __LINE__))
