// writeText: the one way in which text for the user is put on a standard stream.
//
//     writeText(std::cerr, {e.what(), "\n"});
//
// What is printed may be the last word of a run: it goes out at once, in as few writes as possible so that
// lines of several processes stay whole, is continued after an interruption, which stdio is not, and is
// given up silently on any other error.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <iosfwd>
#include <string_view>

namespace zorvo {

/// Flushes `stream` and writes at most eight pieces, one after the other, straight to its descriptor. A
/// stream without a descriptor (a memory stream) gets them through stdio. Keeps errno.
void writeText(std::FILE* stream, std::initializer_list<std::string_view> pieces) noexcept;

/// The same for std::cout, std::cerr and std::clog, after a flush of the stream they are tied to. A stream
/// that does not stand over stdio gets the pieces through its own buffer, unflushed, and sets its state;
/// a stream that is not good gets nothing.
void writeText(std::ostream& stream, std::initializer_list<std::string_view> pieces);

/// A printf(3)-formatted text. Cut to 1023 characters where there is no memory for a longer one.
class FormattedText {
public:
    /// The errno of the moment is what "%m" shows, and is kept. Leaves `args` usable for va_end(3) only.
    FormattedText(const char* format, va_list args) noexcept __attribute__((format(printf, 2, 0)));
    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;
    ~FormattedText();

    /// Valid as long as this object lives.
    std::string_view view() const noexcept { return text_; }

private:
    char small_[1024];
    char* large_ = nullptr;
    std::string_view text_;
};

/// Formats and writes.
void writeFormatted(std::FILE* stream, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

} // namespace zorvo
