// Fuzz target: every reader of common/sj.h alone, on a fresh parser, against a simple recursive model.
//
// Input: one byte that chooses the reader ('A' is the first of the table below), then the text. Two letters
// after the table's are not readers: 'U' takes an error code, a byte for errno and a field name and shows the
// message; 'V' takes a number of calls, one byte for each, and a text on which it makes them all, whatever
// they return.
#include "common/sj.h"
#include "fuzz/JsonReference.h"
#include "fuzz/fuzz.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace {

using fuzz::ExactText;
using fuzz::JsonReference;

// A result as text, so that the results of all readers can be compared alike.

std::string quoted(const std::string& string)
{
    return "'" + string + "'";
}

std::string shown(char* string)
{
    return string == nullptr ? "none" : quoted(string);
}

std::string shown(const std::optional<std::string>& string)
{
    return string ? quoted(string->c_str()) : "none";
}

template <class Number>
std::string shown(Number number)
{
    return std::to_string(number);
}

/// One reader and its model; each gives its result as text.
struct Reader {
    std::string (*read)(sj_parser*);
    std::string (*model)(JsonReference&);
    bool changesText; ///< Unescapes strings in place.
};

std::string nothing()
{
    return "";
}

std::string peekAll(sj_parser* p)
{
    return shown(sj_peek_is_boolean(p)) + shown(sj_peek_is_null(p)) + shown(sj_peek_is_number(p)) +
           shown(sj_peek_is_string(p)) + shown(sj_peek_is_object(p)) + shown(sj_peek_is_array(p));
}

std::string peekAllModel(JsonReference& r)
{
    const char c = r.peek();
    const auto digit = [](bool value) { return value ? "1" : "0"; };
    return std::string(digit(c == 't' || c == 'f')) + digit(c == 'n') +
           digit(c == '-' || (c >= '0' && c <= '9')) + digit(c == '"') + digit(c == '{') + digit(c == '[');
}

// Versions of clang-format lay out a list in a macro in different ways.
// clang-format off
#define READER(name, changesText)                                                                            \
    {[](sj_parser* p) { return shown(sj_##name(p)); }, [](JsonReference& r) { return shown(r.name()); },     \
     changesText}
// clang-format on

const Reader readers[] = {
    {[](sj_parser* p) { return sj_skip_whitespace(p), nothing(); },
     [](JsonReference& r) { return r.skip_whitespace(), nothing(); }, false}, // A
    READER(parse_boolean, false),
    READER(parse_null, false),
    READER(parse_int64, false),
    READER(parse_uint64, false),
    READER(parse_int, false),
    READER(parse_uint, false),
    READER(skip_number, false), // H
    READER(parse_string, true),
    READER(parse_object_start, false),
    READER(parse_object_key, true),
    READER(parse_object_next, false),
    READER(parse_object_end_if_empty, false),
    READER(parse_array_start, false),
    READER(parse_array_next, false),
    READER(parse_array_end_if_empty, false), // P
    {peekAll, peekAllModel, false},
    READER(skip_value, true),
    READER(skip_object, true),
    READER(skip_array, true), // T
};
constexpr size_t readerCount = sizeof readers / sizeof *readers;

sj_parser parserOver(const ExactText& text)
{
    sj_util_funcs funcs;
    sj_set_default_util_funcs(&funcs);
    return {text.begin(), text.begin(), nullptr, 0, funcs};
}

/// The sentences that follow the message of every error.
std::string sentencesAfterMessage(const sj_parser& parser, int systemError)
{
    const auto byte = static_cast<unsigned char>(*parser.cursor);
    char text[64];
    std::snprintf(text, sizeof text, byte >= 32 && byte <= 126 ? "'%c'" : "'\\x%02x'", byte);
    std::string expected = " Error occured at offset " + std::to_string(parser.cursor - parser.start) +
                           ", character " + text + ". ";
    if (systemError != 0)
        expected += "Also system error occured: " + std::string(std::strerror(systemError)) + " (" +
                    std::to_string(systemError) + ").";
    return expected;
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string message(const sj_parser& parser, int systemError)
{
    errno = systemError;
    const std::string text = sj_parser_strerror(&parser);
    FUZZ_CHECK(errno == systemError);
    FUZZ_CHECK(text.size() < 1024);
    return text;
}

void checkMessages(const sj_parser& parser)
{
    for (const int systemError : {0, ENOSPC}) {
        const std::string text = message(parser, systemError);
        if (parser.error == 0)
            FUZZ_CHECK(text == "OK, no error.");
        else
            FUZZ_CHECK(endsWith(text, sentencesAfterMessage(parser, systemError)));
    }
}

/// What the message of an error that quotes a field is to begin with.
std::string messageWithField(int error, const std::string& field)
{
    switch (error) {
    case SJ_UNKNOWN_FIELD:
        return "Encountered an object field \"" + field +
               "\" not present in JSON schema. Remove excessive data from input JSON document or allow "
               "skipping unknown fields.";
    case SJ_DUPLICATE_FIELD:
        return "Encountered a duplicate field \"" + field +
               "\" in a JSON object. Remove duplicates from input JSON document or disable duplicate fields "
               "check.";
    default:
        return "Custom JSON value constraint failed: " + field + ".";
    }
}

void checkMessageOf(const std::string& input)
{
    if (input.size() < 2)
        return;
    const ExactText field(input.substr(2));
    const ExactText text(input);
    sj_parser parser = parserOver(text);
    parser.error = static_cast<signed char>(input[0]);
    parser.field_name = field.size() == 0 ? nullptr : field.begin();
    const int systemError = static_cast<unsigned char>(input[1]);
    const std::string shownMessage = message(parser, systemError);
    if (parser.error < 0 || parser.error > SJ_CONSTRAINT_FAILED) {
        FUZZ_CHECK(shownMessage == "unknown error code" + sentencesAfterMessage(parser, systemError));
    } else if (parser.error >= SJ_UNKNOWN_FIELD) {
        const std::string name = field.size() == 0 ? "N/A" : std::string(field.begin());
        const std::string whole =
            messageWithField(parser.error, name) + sentencesAfterMessage(parser, systemError);
        FUZZ_CHECK(shownMessage == whole.substr(0, 1023));
    }
}

/// Many calls on one parser: nothing except the text may be touched, whatever went wrong before.
void callInSequence(const std::string& input)
{
    if (input.empty())
        return;
    const size_t calls = std::min<size_t>(static_cast<unsigned char>(input[0]), input.size() - 1);
    const ExactText text(input.substr(1 + calls));
    sj_parser parser = parserOver(text);
    for (size_t i = 0; i < calls; ++i) {
        const char* const before = parser.cursor;
        readers[static_cast<unsigned char>(input[1 + i]) % readerCount].read(&parser);
        FUZZ_CHECK(text.holds(parser.cursor));
        FUZZ_CHECK(parser.cursor >= before);
        FUZZ_CHECK(parser.error >= 0 && parser.error <= SJ_CONSTRAINT_FAILED);
    }
    checkMessages(parser);
}

void compare(const Reader& reader, const std::string& input)
{
    const ExactText text(input);
    const std::string original(text.begin());
    sj_parser parser = parserOver(text);
    const std::string result = reader.read(&parser);
    FUZZ_CHECK(text.holds(parser.cursor));
    FUZZ_CHECK(parser.start == text.begin());
    const auto offset = static_cast<size_t>(parser.cursor - parser.start);
    if (reader.changesText)
        FUZZ_CHECK(original.compare(offset, std::string::npos, parser.cursor) == 0);
    else
        FUZZ_CHECK(original == text.begin());
    checkMessages(parser);

    JsonReference model(input);
    const std::string expected = reader.model(model);
    if (model.tooDeep())
        return;
    FUZZ_CHECK(parser.error == model.error);
    FUZZ_CHECK(offset == model.cursor);
    FUZZ_CHECK(result == expected);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const size_t choice = static_cast<unsigned char>(data[0] - 'A') % (readerCount + 2);
    const std::string rest = fuzz::toString(data + 1, size - 1);
    if (choice < readerCount)
        compare(readers[choice], rest);
    else if (choice == readerCount) // U
        checkMessageOf(rest);
    else // V
        callInSequence(rest);
    return 0;
}
