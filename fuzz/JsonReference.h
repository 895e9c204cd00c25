// JsonReference: the JSON reader of common/sj.h written again in the simplest way: recursive, over a text
// that it does not change, and with integers of 128 bits. The fuzz targets compare the two.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace fuzz {

/// Holds any sum or product that is met here.
__extension__ typedef __int128 WideInteger;

/// One reader over one text. Its functions have the names of those of sj.h, and do the same to `cursor` and
/// `error` as those do to the parser's.
class JsonReference {
public:
    /// `text` counts up to its first NUL.
    explicit JsonReference(const std::string& text) : text_(text.c_str()) {}

    size_t cursor = 0;
    int error = 0;

    void skip_whitespace();
    int parse_boolean();
    int parse_null();
    int64_t parse_int64();
    uint64_t parse_uint64();
    int parse_int();
    unsigned parse_uint();
    int skip_number();
    std::optional<std::string> parse_string();
    int parse_object_start() { return start('{', 11); }
    std::optional<std::string> parse_object_key();
    int parse_object_next() { return next('}', 13); }
    int parse_object_end_if_empty() { return accept('}') ? 1 : 0; }
    int parse_array_start() { return start('[', 15); }
    int parse_array_next() { return next(']', 16); }
    int parse_array_end_if_empty() { return accept(']') ? 1 : 0; }
    int skip_value();
    int skip_object();
    int skip_array();

    /// The character at the cursor; NUL at the end.
    char peek() const { return at(cursor); }

    /// The nesting was too deep for a recursion; do not rely on anything else then.
    bool tooDeep() const { return tooDeep_; }

private:
    struct Integer;

    char at(size_t position) const { return position < text_.size() ? text_[position] : '\0'; }
    bool accept(char c);
    bool acceptWord(const char* word);
    int start(char open, int code);
    int next(char close, int code);
    int fail(int code);
    Integer readInteger(size_t position) const;
    template <class Number>
    Number takeInteger(WideInteger low, WideInteger high);
    bool enter();

    std::string text_;
    unsigned depth_ = 0;
    bool tooDeep_ = false;
};

} // namespace fuzz
