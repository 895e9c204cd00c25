#include "fuzz/JsonReference.h"

#include <climits>

namespace fuzz {

namespace {

constexpr unsigned maxDepth = 1000;

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Value of a digit in any base up to 16; 16 for what is none.
int digitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 16;
}

} // namespace

/// An integer in C notation: where it ends, and its value, cut to somewhat more than 64 bits.
struct JsonReference::Integer {
    size_t end;
    WideInteger value;
};

int JsonReference::fail(int code)
{
    error = code;
    return code;
}

void JsonReference::skip_whitespace()
{
    while (isSpace(peek()))
        ++cursor;
}

bool JsonReference::accept(char c)
{
    skip_whitespace();
    if (peek() != c)
        return false;
    ++cursor;
    return true;
}

bool JsonReference::acceptWord(const char* word)
{
    const std::string expected(word);
    if (text_.compare(cursor, expected.size(), expected) != 0)
        return false;
    cursor += expected.size();
    return true;
}

int JsonReference::parse_boolean()
{
    skip_whitespace();
    if (acceptWord("true"))
        return 1;
    if (!acceptWord("false"))
        error = 17;
    return 0;
}

int JsonReference::parse_null()
{
    skip_whitespace();
    return acceptWord("null") ? 0 : fail(18);
}

JsonReference::Integer JsonReference::readInteger(size_t position) const
{
    const size_t first = position;
    while (isSpace(at(position)))
        ++position;
    const bool negative = at(position) == '-';
    if (negative || at(position) == '+')
        ++position;
    int base = 10;
    if (at(position) == '0') {
        const bool hexadecimal =
            (at(position + 1) == 'x' || at(position + 1) == 'X') && digitValue(at(position + 2)) < 16;
        base = hexadecimal ? 16 : 8;
        position += hexadecimal ? 2 : 0;
    }
    const WideInteger limit = static_cast<WideInteger>(1) << 100;
    WideInteger value = 0;
    bool any = false;
    for (; digitValue(at(position)) < base; ++position) {
        any = true;
        if (value < limit)
            value = value * base + digitValue(at(position));
    }
    return any ? Integer{position, negative ? -value : value} : Integer{first, 0};
}

template <class Number>
Number JsonReference::takeInteger(WideInteger low, WideInteger high)
{
    const Integer integer = readInteger(cursor);
    if (integer.end == cursor) {
        error = 4;
        return 0;
    }
    if (integer.value < low || integer.value > high) {
        error = 5;
        return 0;
    }
    cursor = integer.end;
    if (peek() == '.' || peek() == 'e' || peek() == 'E')
        error = 6;
    return static_cast<Number>(integer.value);
}

int64_t JsonReference::parse_int64()
{
    return takeInteger<int64_t>(INT64_MIN, INT64_MAX);
}

uint64_t JsonReference::parse_uint64()
{
    skip_whitespace();
    if (peek() == '-') {
        error = 6;
        return 0;
    }
    return takeInteger<uint64_t>(0, UINT64_MAX);
}

int JsonReference::parse_int()
{
    const size_t before = cursor;
    const int64_t number = parse_int64();
    if (error == 0 && (number < INT32_MIN || number > INT32_MAX))
        error = 5;
    if (error == 0)
        return static_cast<int>(number);
    cursor = before;
    return 0;
}

unsigned JsonReference::parse_uint()
{
    const size_t before = cursor;
    const uint64_t number = parse_uint64();
    if (error == 0 && number > UINT32_MAX)
        error = 5;
    if (error == 0)
        return static_cast<unsigned>(number);
    cursor = before;
    return 0;
}

int JsonReference::skip_number()
{
    skip_whitespace();
    size_t position = cursor;
    const auto digits = [&] {
        const size_t first = position;
        while (digitValue(at(position)) < 10)
            ++position;
        return position != first;
    };
    position += at(position) == '-' ? 1 : 0;
    digits();
    if (at(position) == '.') {
        ++position;
        if (!digits())
            return fail(6);
    }
    if (at(position) == 'e' || at(position) == 'E') {
        ++position;
        position += at(position) == '+' || at(position) == '-' ? 1 : 0;
        if (!digits())
            return fail(6);
    }
    cursor = position;
    return 0;
}

std::optional<std::string> JsonReference::parse_string()
{
    skip_whitespace();
    if (peek() != '"') {
        error = peek() == '\0' ? 2 : 7;
        return std::nullopt;
    }
    const std::string escapes = "\"\\/bfnrt";
    const std::string meanings = "\"\\/\b\f\n\r\t";
    std::string result;
    for (++cursor; peek() != '"'; ++cursor) {
        const char c = peek();
        if (c == '\\') {
            const char escaped = at(cursor + 1);
            const size_t index = escaped == '\0' ? std::string::npos : escapes.find(escaped);
            if (index != std::string::npos) {
                result += meanings[index];
            } else if (escaped == 'u' && text_.compare(cursor + 2, 4, "0000") == 0) {
                result += '\0';
            } else {
                error = escaped == 'u' ? 10 : 8;
                return std::nullopt;
            }
            ++cursor;
        } else if (c == '\0') {
            error = 2;
            return std::nullopt;
        } else if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 127) {
            error = 9;
            return std::nullopt;
        } else {
            result += c;
        }
    }
    ++cursor;
    return result;
}

std::optional<std::string> JsonReference::parse_object_key()
{
    std::optional<std::string> key = parse_string();
    if (key && !accept(':'))
        error = 12;
    return key;
}

int JsonReference::start(char open, int code)
{
    return accept(open) ? 0 : fail(code);
}

int JsonReference::next(char close, int code)
{
    if (accept(','))
        return 0;
    return accept(close) ? 1 : fail(code);
}

bool JsonReference::enter()
{
    tooDeep_ = tooDeep_ || depth_ == maxDepth;
    return !tooDeep_;
}

int JsonReference::skip_value()
{
    skip_whitespace();
    const char c = peek();
    if (c == '"')
        parse_string();
    else if (c == '-' || digitValue(c) < 10)
        skip_number();
    else if (c == '[')
        skip_array();
    else if (c == '{')
        skip_object();
    else if (c == 't' || c == 'f')
        parse_boolean();
    else if (c == 'n')
        parse_null();
    else
        error = 3;
    return error;
}

int JsonReference::skip_object()
{
    if (!enter() || parse_object_start() != 0 || parse_object_end_if_empty() != 0)
        return error;
    ++depth_;
    do {
        if (!parse_object_key() || error != 0 || skip_value() != 0)
            break;
    } while (!tooDeep_ && parse_object_next() == 0);
    --depth_;
    return error;
}

int JsonReference::skip_array()
{
    if (!enter() || parse_array_start() != 0 || parse_array_end_if_empty() != 0)
        return error;
    ++depth_;
    do {
        if (skip_value() != 0)
            break;
    } while (!tooDeep_ && parse_array_next() == 0);
    --depth_;
    return error;
}

} // namespace fuzz
