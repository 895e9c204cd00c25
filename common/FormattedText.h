// FormattedText: a text put together with printf(3) formats, as long as it needs to be.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

namespace zorvo {

/// Grows in memory from malloc(3) beyond its first 1023 characters. Where there is no memory the text is cut,
/// so that an error can be reported even then. Keeps errno; "%m" shows what it was at construction.
class FormattedText {
public:
    FormattedText() noexcept;
    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;
    ~FormattedText();

    /// Space for `size` bytes in all, the final NUL included. False where there is no memory for it; the text
    /// is then as it was.
    [[nodiscard]] bool reserve(size_t size) noexcept;

    void append(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
    void vappend(const char* format, va_list args) noexcept __attribute__((format(printf, 2, 0)));

    /// NUL-terminated. Valid until the next change.
    const char* c_str() const noexcept { return text_; }
    std::string_view view() const noexcept { return {text_, length_}; }

private:
    int error_;
    char first_[1024];
    char* text_ = first_;
    size_t size_ = sizeof first_;
    size_t length_ = 0;
};

} // namespace zorvo
