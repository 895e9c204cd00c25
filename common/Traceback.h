// Traceback: the call stack at the moment of construction, for exceptions that want to carry one.
#pragma once

#include <array>
#include <iosfwd>
#include <memory>
#include <string_view>

namespace zorvo {

/// Derive an exception class from Traceback besides its std::exception base, and reportException prints
/// the stack after the exception's text. Not an exception by itself. Copyable.
class Traceback {
public:
    static constexpr int maxFrames = 11;

    /// Captures at most maxFrames return addresses (backtrace(3)); the first `skip` of them are not printed.
    /// A failed allocation inside backtrace(3) ends the process.
    explicit Traceback(unsigned long skip) noexcept;
    Traceback(const Traceback& other) noexcept;
    Traceback& operator=(const Traceback& other) noexcept;
    virtual ~Traceback() = default;

    /// Prints "Traceback:" and a line with readable names for each frame; or "Traceback addresses:" and the
    /// bare addresses where there is no symbol table, or no frame after the skipped ones.
    friend std::ostream& operator<<(std::ostream& out, const Traceback& trace);

private:
    struct Free {
        void operator()(char** block) const noexcept;
    };

    std::array<void*, maxFrames> frames_{};
    unsigned long count_;
    unsigned long skip_;
    mutable std::unique_ptr<char*, Free> symbols_; ///< From backtrace_symbols(3); made by the first print.
};

std::ostream& operator<<(std::ostream& out, const Traceback& trace);

/// Writes the readable name that `symbol` stands for to `out`; `symbol` itself where it cannot be demangled
/// or memory is short, so that even a lack of memory can be reported. Throws only what `out` throws.
void printDemangled(std::ostream& out, std::string_view symbol);

} // namespace zorvo
