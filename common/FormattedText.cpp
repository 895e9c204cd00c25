#include "common/FormattedText.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zorvo {

FormattedText::FormattedText() noexcept : error_(errno)
{
    *first_ = '\0';
}

FormattedText::~FormattedText()
{
    if (text_ != first_)
        std::free(text_);
}

bool FormattedText::reserve(size_t size) noexcept
{
    if (size <= size_)
        return true;
    const bool isFirst = text_ == first_;
    auto* const larger = static_cast<char*>(std::realloc(isFirst ? nullptr : text_, size));
    errno = error_;
    if (larger == nullptr)
        return false;
    if (isFirst)
        std::memcpy(larger, first_, length_ + 1);
    text_ = larger;
    size_ = size;
    return true;
}

void FormattedText::vappend(const char* format, va_list args) noexcept
{
    va_list again;
    va_copy(again, args);
    errno = error_;
    int length = std::vsnprintf(text_ + length_, size_ - length_, format, args);
    if (length > 0 && length_ + static_cast<size_t>(length) >= size_ &&
        reserve(length_ + static_cast<size_t>(length) + 1))
        length = std::vsnprintf(text_ + length_, size_ - length_, format, again);
    va_end(again);
    if (length > 0)
        length_ = std::min(length_ + static_cast<size_t>(length), size_ - 1);
    text_[length_] = '\0';
    errno = error_;
}

void FormattedText::append(const char* format, ...) noexcept
{
    va_list args;
    va_start(args, format);
    vappend(format, args);
    va_end(args);
}

} // namespace zorvo
