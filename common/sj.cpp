#include "common/sj.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* const messages[] = {
    "OK, no error.",
    "JSON array or object has ended.",
    "JSON document has ended prematurely. Check that all strings are properly ended.",
    "Any value is expected, but was not found.",
    "Number is expected.",
    "Number value is out of range for expected type.",
    "Invalid or unsupported number format. Check that there are no floating point numbers.",
    "String is expected.",
    "Invalid escape sequence found in string.",
    "Invalid character found in string. Check that strings do not contain control characters.",
    ("Invalid or unsupported Unicode character or escape sequence found in string. UTF8 encoded "
     "characters and '\\u' escape sequences are not supported."),
    "JSON object is expected.",
    "JSON name separator (':') is expected inside an object.",
    "JSON value separator (',') or end of object is expected.",
    ("Some required fields are missing from the JSON object. Check that input JSON document conforms to "
     "schema."),
    "JSON array is expected.",
    "JSON value separator (',') or end of array is expected.",
    "Boolean value is expected.",
    "'null' is expected.",
    "'null' is unexpected in this context. Check that input JSON document conforms to schema.",
    "Failed to allocate memory.",
    ("Encountered an object field \"%s\" not present in JSON schema. Remove excessive data from input JSON "
     "document or allow skipping unknown fields."),
    ("Encountered a duplicate field \"%s\" in a JSON object. Remove duplicates from input JSON document or "
     "disable duplicate fields check."),
    "Custom JSON value constraint failed: %s.",
};
constexpr int messageCount = static_cast<int>(sizeof messages / sizeof *messages);

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/// Whether `c` stands for itself inside a string: a 7-bit character that is not a control character, a quote
/// or a backslash.
bool isPlain(char c)
{
    return static_cast<signed char>(c) >= ' ' && c != '"' && c != '\\';
}

void setError(sj_parser* parser, int error)
{
    parser->error = error;
}

/// Stores `error` and returns it.
int fail(sj_parser* parser, int error)
{
    setError(parser, error);
    return error;
}

/// Consumes white space and then `c`. False, with only the white space consumed, where something else
/// follows.
bool accept(sj_parser* parser, char c)
{
    sj_skip_whitespace(parser);
    if (*parser->cursor != c)
        return false;
    ++parser->cursor;
    return true;
}

/// "," or the closing character of an array or object.
int parseNext(sj_parser* parser, char close, int error)
{
    if (accept(parser, ','))
        return 0;
    if (*parser->cursor == close) {
        ++parser->cursor;
        return 1;
    }
    return fail(parser, error);
}

/// Runs `convert(text, end)`, one of the strto functions, at the cursor and judges it.
template <class Number, class Convert>
Number parseInteger(sj_parser* parser, Convert convert)
{
    char* end = nullptr;
    // Only ERANGE means an overflow. Otherwise errno stays what it was: sj_parser_strerror() shows it.
    const int before = errno;
    errno = 0;
    const Number number = convert(parser->cursor, &end);
    if (end == parser->cursor) {
        errno = before;
        setError(parser, SJ_NUMBER_EXPECTED);
        return 0;
    }
    if (errno == ERANGE) {
        setError(parser, SJ_NUMBER_RANGE);
        return 0;
    }
    errno = before;
    parser->cursor = end;
    if (*end == '.' || *end == 'E' || *end == 'e')
        setError(parser, SJ_NUMBER_FORMAT);
    return number;
}

/// Moves `at` over decimal digits. False where there are none.
bool skipDigits(const char*& at)
{
    const char* const first = at;
    while (isDigit(*at))
        ++at;
    return at != first;
}

/// The character that a backslash and `escaped` stand for; 0 where that is not a simple escape.
char unescaped(char escaped)
{
    switch (escaped) {
    case '"':
    case '\\':
    case '/':
        return escaped;
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    default:
        return 0;
    }
}

/// Turns the escape at `in` into its character at `out` and moves both on. An error leaves both in place.
int unescape(char*& in, char*& out)
{
    if (in[1] == 'u') {
        if (std::strncmp(in + 2, "0000", 4) != 0)
            return SJ_BAD_UNICODE;
        // The four digits follow as ordinary characters.
        *out++ = '\0';
    } else if (const char plain = unescaped(in[1])) {
        *out++ = plain;
    } else {
        return SJ_BAD_ESCAPE;
    }
    in += 2;
    return SJ_OK;
}

/// The kinds of the arrays and objects that are open around a value being skipped, one bit for each, so that
/// deep nesting takes memory from the heap and not from the stack. The first levels need no allocation.
class Nesting {
public:
    explicit Nesting(const sj_util_funcs& funcs) : funcs_(funcs) {}
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    ~Nesting()
    {
        if (bits_ != inline_)
            funcs_.free(funcs_.context, bits_);
    }

    bool empty() const { return depth_ == 0; }
    void pop() { --depth_; }

    /// False without memory.
    bool push(bool object)
    {
        if (depth_ / CHAR_BIT == size_ && !grow())
            return false;
        unsigned char& byte = bits_[depth_ / CHAR_BIT];
        const unsigned mask = 1U << (depth_ % CHAR_BIT);
        byte = static_cast<unsigned char>(object ? byte | mask : byte & ~mask);
        ++depth_;
        return true;
    }

    bool inObject() const
    {
        const size_t top = depth_ - 1;
        return (bits_[top / CHAR_BIT] >> (top % CHAR_BIT) & 1U) != 0;
    }

private:
    bool grow()
    {
        const size_t size = 2 * size_;
        void* const block = bits_ == inline_ ? funcs_.malloc(funcs_.context, size)
                                             : funcs_.realloc(funcs_.context, bits_, size);
        if (block == nullptr)
            return false;
        if (bits_ == inline_)
            std::memcpy(block, inline_, sizeof inline_);
        bits_ = static_cast<unsigned char*>(block);
        size_ = size;
        return true;
    }

    const sj_util_funcs& funcs_;
    unsigned char inline_[16] = {};
    unsigned char* bits_ = inline_;
    size_t size_ = sizeof inline_;
    size_t depth_ = 0;
};

/// Skips a string, number, boolean or null. Returns the stored error.
int skipScalar(sj_parser* parser)
{
    if (sj_peek_is_string(parser))
        sj_parse_string(parser);
    else if (sj_peek_is_number(parser))
        sj_skip_number(parser);
    else if (sj_peek_is_boolean(parser))
        sj_parse_boolean(parser);
    else if (sj_peek_is_null(parser))
        sj_parse_null(parser);
    else
        setError(parser, SJ_VALUE_EXPECTED);
    return parser->error;
}

/// What the loop of skipNested does next.
enum class Step { Value, Next, Stop };

/// Enters the array or object whose opening character was consumed, as far as its first value.
Step enter(sj_parser* parser, Nesting& open, bool object)
{
    if (object ? sj_parse_object_end_if_empty(parser) : sj_parse_array_end_if_empty(parser))
        return Step::Next;
    if (!open.push(object)) {
        setError(parser, SJ_NO_MEMORY);
        return Step::Stop;
    }
    if (parser->error != SJ_OK)
        return Step::Stop;
    if (object && (sj_parse_object_key(parser) == nullptr || parser->error != SJ_OK))
        return Step::Stop;
    return Step::Value;
}

/// After a value: on to the next one of the innermost array or object, or out of it.
Step leave(sj_parser* parser, Nesting& open)
{
    const bool object = open.inObject();
    const int next = object ? sj_parse_object_next(parser) : sj_parse_array_next(parser);
    if (next == 1) {
        open.pop();
        return Step::Next;
    }
    if (next != 0)
        return Step::Stop;
    if (object && (sj_parse_object_key(parser) == nullptr || parser->error != SJ_OK))
        return Step::Stop;
    return Step::Value;
}

/// Skips what follows an opening character already consumed, up to its closing one. Returns the stored error.
int skipNested(sj_parser* parser, bool object)
{
    Nesting open(parser->util_funcs);
    Step step = enter(parser, open, object);
    while (step != Step::Stop) {
        if (step == Step::Next) {
            if (open.empty())
                break;
            step = leave(parser, open);
        } else if (accept(parser, '{')) {
            step = enter(parser, open, true);
        } else if (accept(parser, '[')) {
            step = enter(parser, open, false);
        } else {
            step = skipScalar(parser) == SJ_OK ? Step::Next : Step::Stop;
        }
    }
    return parser->error;
}

/// Appends to a fixed buffer, cutting at its end.
template <size_t size, class... Values>
void append(char (&buffer)[size], const char* format, Values... values)
{
    const size_t used = std::strlen(buffer);
    (void)std::snprintf(buffer + used, size - used, format, values...);
}

/// Whether `format` holds a "%s" and no other "%" after it.
bool takesName(const char* format)
{
    const char* const conversion = std::strstr(format, "%s");
    return conversion != nullptr && std::strchr(conversion + 1, '%') == nullptr;
}

/// Appends `format` with its "%s" replaced by `name`.
template <size_t size>
void appendWithName(char (&buffer)[size], const char* format, const char* name)
{
    const char* const conversion = std::strstr(format, "%s");
    append(buffer, "%.*s%s%s", static_cast<int>(conversion - format), format, name, conversion + 2);
}

} // namespace

void* sj_default_malloc(void*, size_t size)
{
    return std::malloc(size);
}

void* sj_default_realloc(void*, void* block, size_t size)
{
    return std::realloc(block, size);
}

void sj_default_free(void*, void* block)
{
    std::free(block);
}

void sj_set_default_util_funcs(sj_util_funcs* funcs)
{
    funcs->context = nullptr;
    funcs->malloc = sj_default_malloc;
    funcs->realloc = sj_default_realloc;
    funcs->free = sj_default_free;
}

namespace {

void initParser(sj_parser* parser, char* text, const sj_util_funcs& funcs)
{
    parser->start = text;
    parser->cursor = text;
    parser->field_name = nullptr;
    parser->error = SJ_OK;
    parser->util_funcs = funcs;
}

sj_util_funcs orDefaults(const sj_util_funcs* funcs)
{
    if (funcs != nullptr)
        return *funcs;
    sj_util_funcs defaults;
    sj_set_default_util_funcs(&defaults);
    return defaults;
}

} // namespace

sj_parser* sj_create_parser(char* text, const sj_util_funcs* funcs)
{
    if (text == nullptr)
        return nullptr;
    const sj_util_funcs hooks = orDefaults(funcs);
    auto* const parser = static_cast<sj_parser*>(hooks.malloc(hooks.context, sizeof(sj_parser)));
    if (parser != nullptr)
        initParser(parser, text, hooks);
    return parser;
}

void sj_free_parser(sj_parser* parser)
{
    if (parser == nullptr)
        return;
    const sj_util_funcs hooks = parser->util_funcs;
    hooks.free(hooks.context, parser);
}

sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs)
{
    static char text[1];
    static sj_parser parser;
    text[0] = '\0';
    initParser(&parser, text, orDefaults(funcs));
    return &parser;
}

void sj_skip_whitespace(sj_parser* parser)
{
    while (std::isspace(static_cast<unsigned char>(*parser->cursor)) != 0)
        ++parser->cursor;
}

int sj_parse_boolean(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    if (std::strncmp(parser->cursor, "true", 4) == 0) {
        parser->cursor += 4;
        return 1;
    }
    if (std::strncmp(parser->cursor, "false", 5) == 0)
        parser->cursor += 5;
    else
        setError(parser, SJ_BOOLEAN_EXPECTED);
    return 0;
}

int sj_parse_null(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    if (std::strncmp(parser->cursor, "null", 4) != 0)
        return fail(parser, SJ_NULL_EXPECTED);
    parser->cursor += 4;
    return 0;
}

int64_t sj_parse_int64(sj_parser* parser)
{
    return parseInteger<int64_t>(parser,
                                 [](const char* text, char** end) { return std::strtoll(text, end, 0); });
}

uint64_t sj_parse_uint64(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    if (*parser->cursor == '-') {
        setError(parser, SJ_NUMBER_FORMAT);
        return 0;
    }
    return parseInteger<uint64_t>(parser,
                                  [](const char* text, char** end) { return std::strtoull(text, end, 0); });
}

namespace {

/// `read` (one of the 64-bit readers) narrowed to [low, high]; puts the cursor back after any error.
template <class Narrow, class Wide>
Narrow parseNarrow(sj_parser* parser, Wide (*read)(sj_parser*), Wide low, Wide high)
{
    char* const cursor = parser->cursor;
    const int before = parser->error;
    parser->error = SJ_OK;
    const Wide number = read(parser);
    if (parser->error == SJ_OK && (number < low || number > high))
        parser->error = SJ_NUMBER_RANGE;
    if (parser->error != SJ_OK) {
        parser->cursor = cursor;
        return 0;
    }
    parser->error = before;
    return static_cast<Narrow>(number);
}

} // namespace

int sj_parse_int(sj_parser* parser)
{
    return parseNarrow<int, int64_t>(parser, sj_parse_int64, INT32_MIN, INT32_MAX);
}

unsigned sj_parse_uint(sj_parser* parser)
{
    return parseNarrow<unsigned, uint64_t>(parser, sj_parse_uint64, 0, UINT32_MAX);
}

int sj_skip_number(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    const char* at = parser->cursor;
    if (*at == '-')
        ++at;
    skipDigits(at);
    if (*at == '.' && !skipDigits(++at))
        return fail(parser, SJ_NUMBER_FORMAT);
    if (*at == 'e' || *at == 'E') {
        ++at;
        if (*at == '+' || *at == '-')
            ++at;
        if (!skipDigits(at))
            return fail(parser, SJ_NUMBER_FORMAT);
    }
    parser->cursor += at - parser->cursor;
    return 0;
}

char* sj_parse_string(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    if (*parser->cursor != '"') {
        setError(parser, *parser->cursor == '\0' ? SJ_PREMATURE_END : SJ_STRING_EXPECTED);
        return nullptr;
    }
    char* const text = parser->cursor + 1;
    char* in = text;
    while (isPlain(*in))
        ++in;
    char* out = in; // stays back from `in` after the first escape
    int error = SJ_OK;
    while (*in != '"' && error == SJ_OK) {
        if (*in == '\\')
            error = unescape(in, out);
        else if (isPlain(*in))
            *out++ = *in++;
        else
            error = *in == '\0' ? SJ_PREMATURE_END : SJ_BAD_CHARACTER;
    }
    parser->cursor = in;
    if (error != SJ_OK) {
        setError(parser, error);
        return nullptr;
    }
    ++parser->cursor;
    *out = '\0';
    return text;
}

int sj_parse_object_start(sj_parser* parser)
{
    return accept(parser, '{') ? 0 : fail(parser, SJ_OBJECT_EXPECTED);
}

char* sj_parse_object_key(sj_parser* parser)
{
    char* const key = sj_parse_string(parser);
    if (key != nullptr && !accept(parser, ':'))
        setError(parser, SJ_NAME_SEPARATOR_EXPECTED);
    return key;
}

int sj_parse_object_next(sj_parser* parser)
{
    return parseNext(parser, '}', SJ_OBJECT_SEPARATOR_EXPECTED);
}

int sj_parse_object_end_if_empty(sj_parser* parser)
{
    return accept(parser, '}') ? 1 : 0;
}

int sj_parse_array_start(sj_parser* parser)
{
    return accept(parser, '[') ? 0 : fail(parser, SJ_ARRAY_EXPECTED);
}

int sj_parse_array_next(sj_parser* parser)
{
    return parseNext(parser, ']', SJ_ARRAY_SEPARATOR_EXPECTED);
}

int sj_parse_array_end_if_empty(sj_parser* parser)
{
    return accept(parser, ']') ? 1 : 0;
}

int sj_peek_is_boolean(const sj_parser* parser)
{
    return *parser->cursor == 't' || *parser->cursor == 'f' ? 1 : 0;
}

int sj_peek_is_null(const sj_parser* parser)
{
    return *parser->cursor == 'n' ? 1 : 0;
}

int sj_peek_is_number(const sj_parser* parser)
{
    return *parser->cursor == '-' || isDigit(*parser->cursor) ? 1 : 0;
}

int sj_peek_is_string(const sj_parser* parser)
{
    return *parser->cursor == '"' ? 1 : 0;
}

int sj_peek_is_object(const sj_parser* parser)
{
    return *parser->cursor == '{' ? 1 : 0;
}

int sj_peek_is_array(const sj_parser* parser)
{
    return *parser->cursor == '[' ? 1 : 0;
}

int sj_skip_value(sj_parser* parser)
{
    sj_skip_whitespace(parser);
    if (sj_peek_is_object(parser))
        return sj_skip_object(parser);
    if (sj_peek_is_array(parser))
        return sj_skip_array(parser);
    return skipScalar(parser);
}

int sj_skip_object(sj_parser* parser)
{
    return sj_parse_object_start(parser) == 0 ? skipNested(parser, true) : parser->error;
}

int sj_skip_array(sj_parser* parser)
{
    return sj_parse_array_start(parser) == 0 ? skipNested(parser, false) : parser->error;
}

char* sj_parser_strerror(const sj_parser* parser)
{
    static char buffer[1024];
    const int systemError = errno;
    const int error = parser->error;
    const char* const message = error >= 0 && error < messageCount ? messages[error] : "unknown error code";
    buffer[0] = '\0';
    if (error == SJ_OK) {
        append(buffer, "%s", message);
        return buffer;
    }
    if (error >= SJ_UNKNOWN_FIELD && error <= SJ_CONSTRAINT_FAILED && takesName(message))
        appendWithName(buffer, message, parser->field_name != nullptr ? parser->field_name : "N/A");
    else
        append(buffer, "%s", message);

    append(buffer, " Error occured at offset %zu", static_cast<size_t>(parser->cursor - parser->start));
    const auto byte = static_cast<unsigned char>(*parser->cursor);
    if (byte >= 32 && byte <= 126)
        append(buffer, ", character '%c'. ", byte);
    else
        append(buffer, ", character '\\x%.02x'. ", byte);
    if (systemError != 0)
        append(buffer, "Also system error occured: %s (%d).", std::strerror(systemError), systemError);
    errno = systemError;
    return buffer;
}
