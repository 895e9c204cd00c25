// Traceback: the call stack at the moment of construction, for exceptions that want to carry one.
#pragma once

#include <iosfwd>
#include <string_view>

namespace zorvo {

/// Derive an exception class from Traceback besides its std::exception base, and reportException prints
/// the stack behind the exception's text. Not an exception by itself. Copyable.
class Traceback {
public:
    static constexpr int maxFrames = 11;

    /// Captures at most maxFrames return addresses (backtrace(3)); the first `skip` of them are not printed.
    /// A failed allocation inside backtrace(3) ends the process.
    explicit Traceback(unsigned long skip) noexcept;
    Traceback(const Traceback& other) noexcept;
    Traceback& operator=(const Traceback& other) noexcept;
    virtual ~Traceback();

    /// Prints "Traceback:" and a line a frame with readable names, or "Traceback addresses:" and the bare
    /// addresses where no symbol table can be had or no frame is left after the skipped ones.
    friend std::ostream& operator<<(std::ostream& out, const Traceback& trace);

private:
    void resolveSymbols() const noexcept;

    void* frames_[maxFrames];
    unsigned long count_;
    unsigned long skip_;
    mutable char** symbols_; ///< From backtrace_symbols(3), one malloc'd block; made by the first print.
};

std::ostream& operator<<(std::ostream& out, const Traceback& trace);

/// Writes the readable name that `symbol` stands for to `out`; `symbol` itself where it cannot be demangled
/// or memory is short, so that a lack of memory can be reported, too. Throws only what `out` throws.
void printDemangled(std::ostream& out, std::string_view symbol);

} // namespace zorvo
