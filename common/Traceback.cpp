#include "common/Traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string_view>

namespace zorvo {

namespace {

using MallocText = std::unique_ptr<char, void (*)(void*)>;

/// "program(_ZN3fooEv+0x1a) [0x4011f6]" with the symbol between "(" and "+" made readable.
void printFrame(std::ostream& out, std::string_view line)
{
    const size_t open = line.find('(');
    const size_t plus = open == std::string_view::npos ? open : line.find('+', open);
    if (plus == std::string_view::npos) {
        out << line;
        return;
    }
    out << line.substr(0, open + 1);
    printDemangled(out, line.substr(open + 1, plus - open - 1));
    out << line.substr(plus);
}

} // namespace

void printDemangled(std::ostream& out, std::string_view symbol)
{
    const MallocText name(::strndup(symbol.data(), symbol.size()), std::free);
    int status = -1;
    const MallocText readable(name ? abi::__cxa_demangle(name.get(), nullptr, nullptr, &status) : nullptr,
                              std::free);
    out << (readable ? std::string_view(readable.get()) : symbol);
}

Traceback::Traceback(unsigned long skip) noexcept
    : count_(static_cast<unsigned long>(std::max(0, ::backtrace(frames_.data(), maxFrames)))),
      skip_(std::min(skip, count_))
{
}

// The symbol table is not copied: the copy makes its own when it is printed.
Traceback::Traceback(const Traceback& other) noexcept
    : frames_(other.frames_), count_(other.count_), skip_(other.skip_)
{
}

Traceback& Traceback::operator=(const Traceback& other) noexcept
{
    if (this != &other) {
        frames_ = other.frames_;
        count_ = other.count_;
        skip_ = other.skip_;
        symbols_.reset();
    }
    return *this;
}

void Traceback::Free::operator()(char** block) const noexcept
{
    std::free(block); // the names are in the same block
}

std::ostream& operator<<(std::ostream& out, const Traceback& trace)
{
    if (!trace.symbols_)
        trace.symbols_.reset(::backtrace_symbols(trace.frames_.data(), static_cast<int>(trace.count_)));
    if (trace.symbols_ && trace.skip_ < trace.count_) {
        out << "Traceback:\n";
        for (unsigned long i = trace.skip_; i < trace.count_; ++i) {
            out << '\t';
            printFrame(out, trace.symbols_.get()[i]);
            out << std::endl;
        }
    } else {
        out << "Traceback addresses:\n";
        for (unsigned long i = trace.skip_; i < trace.count_; ++i)
            out << '\t' << trace.frames_[i] << '\n';
    }
    return out;
}

} // namespace zorvo
