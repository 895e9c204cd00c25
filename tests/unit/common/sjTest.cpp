// The JSON stream reader: every reader on success and on failure, with the place where the cursor is left.
#include "common/sj.h"

#include "support/Child.h"
#include "support/CountingHooks.h"
#include "support/OpenFds.h"
#include "support/RequestText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

using support::CountingHooks;
using support::repeated;

/// One parser over its own copy of a text. The copy ends right after the NUL, so that a sanitizer sees any
/// read past it.
class Reader {
public:
    explicit Reader(const std::string& text, const sj_util_funcs* funcs = nullptr)
        : text_(std::make_unique<char[]>(text.size() + 1)),
          parser_((copy(text), sj_create_parser(text_.get(), funcs)))
    {
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() { sj_free_parser(parser_); }

    operator sj_parser*() { return parser_; }
    sj_parser* operator->() { return parser_; }
    long offset() const { return parser_->cursor - parser_->start; }
    char* at(long offset) { return text_.get() + offset; }

private:
    void copy(const std::string& text) { std::memcpy(text_.get(), text.c_str(), text.size() + 1); }

    std::unique_ptr<char[]> text_;
    sj_parser* parser_;
};

/// What one call left: its result, the error and the cursor.
template <class Result>
struct Outcome {
    Result result;
    int error;
    long offset;

    bool operator==(const Outcome& o) const
    {
        return result == o.result && error == o.error && offset == o.offset;
    }
    friend std::ostream& operator<<(std::ostream& out, const Outcome& o)
    {
        return out << "{result " << o.result << ", error " << o.error << ", offset " << o.offset << "}";
    }
};

template <class Result>
Outcome<Result> run(Result (*function)(sj_parser*), const std::string& text)
{
    Reader reader(text);
    const Result result = function(reader);
    return {result, reader->error, reader.offset()};
}

Outcome<int> peeked(int (*function)(const sj_parser*), const std::string& text)
{
    Reader reader(text);
    const int result = function(reader);
    return {result, reader->error, reader.offset()};
}

using Int = Outcome<int>;
using Unsigned = Outcome<unsigned>;
using Int64 = Outcome<int64_t>;
using Uint64 = Outcome<uint64_t>;

/// sj_parse_string as C text, "(null)" for no result.
Outcome<std::string> readString(const std::string& text)
{
    Reader reader(text);
    const char* const result = sj_parse_string(reader);
    return {result == nullptr ? "(null)" : result, reader->error, reader.offset()};
}
using String = Outcome<std::string>;

Outcome<std::string> readKey(const std::string& text)
{
    Reader reader(text);
    const char* const result = sj_parse_object_key(reader);
    return {result == nullptr ? "(null)" : result, reader->error, reader.offset()};
}

/// The error text of `code` with the cursor at `offset` of `text`, errno being 0.
std::string errorText(int code, const std::string& text, long offset, const char* field = nullptr)
{
    Reader reader(text);
    reader->error = code;
    reader->cursor = reader.at(offset);
    reader->field_name = field;
    errno = 0;
    return sj_parser_strerror(reader);
}

void* refuseMemory(void*, size_t)
{
    return nullptr;
}

} // namespace

// ---- creation, hooks -------------------------------------------------------------------------------------

TEST(SjCreateParser, NullTextGivesNoParser)
{
    EXPECT_EQ(nullptr, sj_create_parser(nullptr, nullptr));
}

TEST(SjCreateParser, NullTextAsksForNoMemory)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    sj_create_parser(nullptr, &funcs);
    EXPECT_TRUE(hooks.mallocSizes.empty());
}

TEST(SjCreateParser, FailedAllocationGivesNoParser)
{
    char text[] = "{}";
    sj_util_funcs funcs;
    sj_set_default_util_funcs(&funcs);
    funcs.malloc = refuseMemory;
    EXPECT_EQ(nullptr, sj_create_parser(text, &funcs));
}

TEST(SjCreateParser, StartAndCursorPointToTheText)
{
    char text[] = "{}";
    sj_parser* const parser = sj_create_parser(text, nullptr);
    EXPECT_EQ(text, parser->start);
    EXPECT_EQ(text, parser->cursor);
    sj_free_parser(parser);
}

TEST(SjCreateParser, NewParserHasNoErrorAndNoFieldName)
{
    Reader reader("x");
    EXPECT_EQ(0, reader->error);
    EXPECT_EQ(nullptr, reader->field_name);
}

TEST(SjCreateParser, NullHooksMeanTheDefaults)
{
    Reader reader("x");
    EXPECT_EQ(nullptr, reader->util_funcs.context);
    EXPECT_EQ(&sj_default_malloc, reader->util_funcs.malloc);
    EXPECT_EQ(&sj_default_realloc, reader->util_funcs.realloc);
    EXPECT_EQ(&sj_default_free, reader->util_funcs.free);
}

TEST(SjCreateParser, HooksAreCopied)
{
    CountingHooks hooks;
    sj_util_funcs funcs = hooks.funcs();
    const sj_util_funcs given = funcs;
    char text[] = "";
    sj_parser* const parser = sj_create_parser(text, &funcs);
    sj_set_default_util_funcs(&funcs);
    EXPECT_EQ(given.context, parser->util_funcs.context);
    EXPECT_EQ(given.malloc, parser->util_funcs.malloc);
    EXPECT_EQ(given.realloc, parser->util_funcs.realloc);
    EXPECT_EQ(given.free, parser->util_funcs.free);
    sj_free_parser(parser);
}

TEST(SjCreateParser, ParserIsAllocatedThroughTheMallocHook)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    char text[] = "";
    sj_parser* const parser = sj_create_parser(text, &funcs);
    EXPECT_THAT(hooks.mallocSizes, testing::ElementsAre(sizeof(sj_parser)));
    sj_free_parser(parser);
}

TEST(SjFreeParser, GivesTheParserBackThroughTheFreeHook)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    char text[] = "";
    sj_free_parser(sj_create_parser(text, &funcs));
    EXPECT_EQ(1U, hooks.freeCalls);
    EXPECT_EQ(0U, hooks.strangers);
}

TEST(SjFreeParser, IgnoresNull)
{
    sj_free_parser(nullptr);
    SUCCEED() << "a crash is the failure";
}

TEST(SjSetDefaultUtilFuncs, FillsNullContextAndTheThreeDefaults)
{
    CountingHooks hooks;
    sj_util_funcs funcs = hooks.funcs();
    sj_set_default_util_funcs(&funcs);
    EXPECT_EQ(nullptr, funcs.context);
    EXPECT_EQ(&sj_default_malloc, funcs.malloc);
    EXPECT_EQ(&sj_default_realloc, funcs.realloc);
    EXPECT_EQ(&sj_default_free, funcs.free);
}

TEST(SjDefaultHooks, ResizedBlockKeepsItsContent)
{
    void* block = sj_default_malloc(nullptr, 4);
    std::memcpy(block, "abc", 4);
    block = sj_default_realloc(nullptr, block, 100000);
    EXPECT_STREQ("abc", static_cast<char*>(block));
    sj_default_free(nullptr, block);
}

TEST(SjDefaultHooks, ReallocOfNullAllocates)
{
    void* const block = sj_default_realloc(nullptr, nullptr, 16);
    EXPECT_NE(nullptr, block);
    sj_default_free(nullptr, block);
}

TEST(SjGetDummyParser, ReadsAnEmptyText)
{
    sj_parser* const dummy = sj_get_dummy_parser(nullptr);
    EXPECT_STREQ("", dummy->start);
    EXPECT_EQ(dummy->start, dummy->cursor);
}

TEST(SjGetDummyParser, IsAlwaysTheSameObject)
{
    EXPECT_EQ(sj_get_dummy_parser(nullptr), sj_get_dummy_parser(nullptr));
}

TEST(SjGetDummyParser, EveryCallResetsErrorFieldNameAndCursor)
{
    char other[] = "other";
    sj_parser* const dummy = sj_get_dummy_parser(nullptr);
    dummy->error = 23;
    dummy->field_name = "left";
    dummy->start = other;
    dummy->cursor = other + 2;
    sj_get_dummy_parser(nullptr);
    EXPECT_EQ(0, dummy->error);
    EXPECT_EQ(nullptr, dummy->field_name);
    EXPECT_STREQ("", dummy->start);
    EXPECT_EQ(dummy->start, dummy->cursor);
}

TEST(SjGetDummyParser, TakesTheGivenHooks)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    const sj_parser* const dummy = sj_get_dummy_parser(&funcs);
    EXPECT_EQ(funcs.context, dummy->util_funcs.context);
    EXPECT_EQ(funcs.malloc, dummy->util_funcs.malloc);
    EXPECT_EQ(funcs.realloc, dummy->util_funcs.realloc);
    EXPECT_EQ(funcs.free, dummy->util_funcs.free);
}

TEST(SjGetDummyParser, NullHooksMeanTheDefaultsAgain)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    sj_get_dummy_parser(&funcs);
    const sj_parser* const dummy = sj_get_dummy_parser(nullptr);
    EXPECT_EQ(nullptr, dummy->util_funcs.context);
    EXPECT_EQ(&sj_default_malloc, dummy->util_funcs.malloc);
    EXPECT_EQ(&sj_default_realloc, dummy->util_funcs.realloc);
    EXPECT_EQ(&sj_default_free, dummy->util_funcs.free);
}

TEST(SjGetDummyParser, AsksForNoMemory)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    sj_get_dummy_parser(&funcs);
    EXPECT_TRUE(hooks.mallocSizes.empty());
}

// ---- white space -----------------------------------------------------------------------------------------

TEST(SjSkipWhitespace, PassesExactlyTheBytesOfIsspace)
{
    for (int byte = 1; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        Reader reader(std::string(1, static_cast<char>(byte)) + "x");
        sj_skip_whitespace(reader);
        EXPECT_EQ(std::isspace(byte) != 0 ? 1 : 0, reader.offset());
    }
}

TEST(SjSkipWhitespace, StopsAtTheEndOfTheText)
{
    Reader reader(" \t\r\n\v\f");
    sj_skip_whitespace(reader);
    EXPECT_EQ(6, reader.offset());
}

TEST(SjSkipWhitespace, StoresNoError)
{
    Reader reader("");
    sj_skip_whitespace(reader);
    EXPECT_EQ(0, reader->error);
}

// ---- words -----------------------------------------------------------------------------------------------

TEST(SjParseBoolean, TrueGivesOne)
{
    EXPECT_EQ((Int{1, 0, 4}), run(sj_parse_boolean, "true"));
}

TEST(SjParseBoolean, FalseGivesZeroWithoutError)
{
    EXPECT_EQ((Int{0, 0, 5}), run(sj_parse_boolean, "false"));
}

TEST(SjParseBoolean, WhitespaceBeforeTheWordIsSkipped)
{
    EXPECT_EQ((Int{1, 0, 7}), run(sj_parse_boolean, " \n\ttrue"));
}

TEST(SjParseBoolean, TextAfterTheWordIsIgnored)
{
    EXPECT_EQ((Int{1, 0, 4}), run(sj_parse_boolean, "truex"));
}

TEST(SjParseBoolean, TextAfterFalseIsIgnored)
{
    EXPECT_EQ((Int{0, 0, 5}), run(sj_parse_boolean, "false1"));
}

TEST(SjParseBoolean, AnythingElseIsError17WithTheCursorOnIt)
{
    for (const char* const text : {"", "t", "tru", "fals", "True", "FALSE", "1", "null", "\"true\""}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{0, 17, 0}), run(sj_parse_boolean, text));
    }
}

TEST(SjParseNull, NullGivesZero)
{
    EXPECT_EQ((Int{0, 0, 4}), run(sj_parse_null, "null"));
}

TEST(SjParseNull, WhitespaceBeforeTheWordIsSkipped)
{
    EXPECT_EQ((Int{0, 0, 6}), run(sj_parse_null, "\r null"));
}

TEST(SjParseNull, TextAfterTheWordIsIgnored)
{
    EXPECT_EQ((Int{0, 0, 4}), run(sj_parse_null, "nullx"));
}

TEST(SjParseNull, AnythingElseIsError18AndReturnsIt)
{
    for (const char* const text : {"", "n", "nul", "NULL", "0", "\"null\""}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{18, 18, 0}), run(sj_parse_null, text));
    }
}

// ---- integers --------------------------------------------------------------------------------------------

TEST(SjParseInt64, ReadsDecimalNumbers)
{
    EXPECT_EQ((Int64{1234567890123, 0, 13}), run(sj_parse_int64, "1234567890123"));
}

TEST(SjParseInt64, ReadsNegativeNumbers)
{
    EXPECT_EQ((Int64{-5, 0, 2}), run(sj_parse_int64, "-5"));
}

TEST(SjParseInt64, ReadsZero)
{
    EXPECT_EQ((Int64{0, 0, 1}), run(sj_parse_int64, "0"));
}

TEST(SjParseInt64, ReadsHexadecimalNumbers)
{
    EXPECT_EQ((Int64{31, 0, 4}), run(sj_parse_int64, "0x1F"));
    EXPECT_EQ((Int64{16, 0, 4}), run(sj_parse_int64, "0x10"));
    EXPECT_EQ((Int64{-255, 0, 5}), run(sj_parse_int64, "-0XfF"));
}

TEST(SjParseInt64, ReadsOctalNumbers)
{
    EXPECT_EQ((Int64{15, 0, 3}), run(sj_parse_int64, "017"));
}

TEST(SjParseInt64, OctalNumberEndsAtTheDigitEight)
{
    EXPECT_EQ((Int64{0, 0, 1}), run(sj_parse_int64, "08"));
}

TEST(SjParseInt64, HexadecimalDigitEIsNotAnExponent)
{
    EXPECT_EQ((Int64{0x1e3, 0, 5}), run(sj_parse_int64, "0x1e3"));
}

TEST(SjParseInt64, WhitespaceBeforeTheNumberIsSkipped)
{
    EXPECT_EQ((Int64{42, 0, 5}), run(sj_parse_int64, " \n\t42"));
}

TEST(SjParseInt64, StopsAfterTheLastDigit)
{
    EXPECT_EQ((Int64{42, 0, 2}), run(sj_parse_int64, "42,43"));
}

TEST(SjParseInt64, LargestValueIsAccepted)
{
    EXPECT_EQ((Int64{INT64_MAX, 0, 19}), run(sj_parse_int64, "9223372036854775807"));
}

TEST(SjParseInt64, SmallestValueIsAccepted)
{
    EXPECT_EQ((Int64{INT64_MIN, 0, 20}), run(sj_parse_int64, "-9223372036854775808"));
}

TEST(SjParseInt64, OneAboveTheLargestValueIsError5WithTheCursorStaying)
{
    EXPECT_EQ((Int64{0, 5, 0}), run(sj_parse_int64, "9223372036854775808"));
}

TEST(SjParseInt64, OneBelowTheSmallestValueIsError5WithTheCursorStaying)
{
    EXPECT_EQ((Int64{0, 5, 0}), run(sj_parse_int64, "-9223372036854775809"));
}

TEST(SjParseInt64, NoDigitsAreError4WithTheCursorStaying)
{
    for (const char* const text : {"", "x", "-", "- 5", "\"1\"", ".5", "}"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int64{0, 4, 0}), run(sj_parse_int64, text));
    }
}

TEST(SjParseInt64, NoDigitsAfterWhitespaceLeaveTheCursorBeforeTheWhitespace)
{
    EXPECT_EQ((Int64{0, 4, 0}), run(sj_parse_int64, "  x"));
}

TEST(SjParseInt64, FractionIsError6WithTheCursorAfterTheIntegerPart)
{
    EXPECT_EQ((Int64{1, 6, 1}), run(sj_parse_int64, "1.5"));
}

TEST(SjParseInt64, ExponentIsError6WithTheCursorAfterTheIntegerPart)
{
    EXPECT_EQ((Int64{1, 6, 1}), run(sj_parse_int64, "1e3"));
    EXPECT_EQ((Int64{-12, 6, 3}), run(sj_parse_int64, "-12E3"));
}

TEST(SjParseInt64, OutOfRangeIsFoundBeforeAFraction)
{
    EXPECT_EQ((Int64{0, 5, 0}), run(sj_parse_int64, "9223372036854775808.5"));
}

TEST(SjParseInt64, EarlierRangeErrorInErrnoIsNotTakenForThisNumber)
{
    Reader reader("5");
    errno = ERANGE;
    EXPECT_EQ(5, sj_parse_int64(reader));
    EXPECT_EQ(0, reader->error);
}

TEST(SjParseInt64, NumberKeepsTheErrnoOfAnEarlierCall)
{
    Reader reader("5");
    errno = ENOENT;
    EXPECT_EQ(5, sj_parse_int64(reader));
    EXPECT_EQ(ENOENT, errno);
}

TEST(SjParseInt64, MissingNumberKeepsTheErrnoOfAnEarlierCall)
{
    Reader reader("x");
    errno = ENOENT;
    EXPECT_EQ(0, sj_parse_int64(reader));
    EXPECT_EQ(ENOENT, errno);
}

TEST(SjParseUint64, LargestValueIsAccepted)
{
    EXPECT_EQ((Uint64{UINT64_MAX, 0, 20}), run(sj_parse_uint64, "18446744073709551615"));
}

TEST(SjParseUint64, OneAboveTheLargestValueIsError5WithTheCursorStaying)
{
    EXPECT_EQ((Uint64{0, 5, 0}), run(sj_parse_uint64, "18446744073709551616"));
}

TEST(SjParseUint64, ReadsHexadecimalAndOctalNumbers)
{
    EXPECT_EQ((Uint64{16, 0, 4}), run(sj_parse_uint64, "0x10"));
    EXPECT_EQ((Uint64{15, 0, 3}), run(sj_parse_uint64, "017"));
}

TEST(SjParseUint64, WhitespaceBeforeTheNumberIsSkipped)
{
    EXPECT_EQ((Uint64{42, 0, 5}), run(sj_parse_uint64, " \n\t42"));
}

TEST(SjParseUint64, MinusIsError6)
{
    EXPECT_EQ((Uint64{0, 6, 0}), run(sj_parse_uint64, "-5"));
    EXPECT_EQ((Uint64{0, 6, 0}), run(sj_parse_uint64, "-0"));
}

TEST(SjParseUint64, MinusAfterWhitespaceIsError6)
{
    Reader reader(" \t-5");
    EXPECT_EQ(0U, sj_parse_uint64(reader));
    EXPECT_EQ(6, reader->error);
}

TEST(SjParseUint64, NoDigitsAreError4WithTheCursorStaying)
{
    for (const char* const text : {"", "x", ".5", "\"1\""}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Uint64{0, 4, 0}), run(sj_parse_uint64, text));
    }
}

TEST(SjParseUint64, FractionIsError6WithTheCursorAfterTheIntegerPart)
{
    EXPECT_EQ((Uint64{12, 6, 2}), run(sj_parse_uint64, "12.5"));
}

TEST(SjParseUint64, ExponentIsError6WithTheCursorAfterTheIntegerPart)
{
    EXPECT_EQ((Uint64{1, 6, 1}), run(sj_parse_uint64, "1E3"));
}

TEST(SjParseUint64, EarlierRangeErrorInErrnoIsNotTakenForThisNumber)
{
    Reader reader("5");
    errno = ERANGE;
    EXPECT_EQ(5U, sj_parse_uint64(reader));
    EXPECT_EQ(0, reader->error);
}

TEST(SjParseUint64, NumberKeepsTheErrnoOfAnEarlierCall)
{
    Reader reader("5");
    errno = ENOENT;
    EXPECT_EQ(5U, sj_parse_uint64(reader));
    EXPECT_EQ(ENOENT, errno);
}

TEST(SjParseInt, NumberKeepsTheErrorOfAnEarlierReader)
{
    Reader reader("5");
    reader->error = 7;
    EXPECT_EQ(5, sj_parse_int(reader));
    EXPECT_EQ(7, reader->error);
}

TEST(SjParseUint, NumberKeepsTheErrorOfAnEarlierReader)
{
    Reader reader("5");
    reader->error = 7;
    EXPECT_EQ(5U, sj_parse_uint(reader));
    EXPECT_EQ(7, reader->error);
}

TEST(SjParseInt, LargestValueIsAccepted)
{
    EXPECT_EQ((Int{INT_MAX, 0, 10}), run(sj_parse_int, "2147483647"));
}

TEST(SjParseInt, SmallestValueIsAccepted)
{
    EXPECT_EQ((Int{INT_MIN, 0, 11}), run(sj_parse_int, "-2147483648"));
}

TEST(SjParseInt, OneAboveTheLargestValueIsError5)
{
    EXPECT_EQ((Int{0, 5, 0}), run(sj_parse_int, "2147483648"));
}

TEST(SjParseInt, OneBelowTheSmallestValueIsError5)
{
    EXPECT_EQ((Int{0, 5, 0}), run(sj_parse_int, "-2147483649"));
}

TEST(SjParseInt, Above64BitsIsError5)
{
    EXPECT_EQ((Int{0, 5, 0}), run(sj_parse_int, "9223372036854775808"));
}

TEST(SjParseInt, FractionIsError6WithTheCursorPutBack)
{
    EXPECT_EQ((Int{0, 6, 0}), run(sj_parse_int, "1.5"));
}

TEST(SjParseInt, ExponentIsError6WithTheCursorPutBack)
{
    EXPECT_EQ((Int{0, 6, 0}), run(sj_parse_int, "1e3"));
}

TEST(SjParseInt, OutOfRangeAfterWhitespacePutsTheCursorBackBeforeTheWhitespace)
{
    EXPECT_EQ((Int{0, 5, 0}), run(sj_parse_int, "  2147483648"));
}

TEST(SjParseInt, NoDigitsAreError4)
{
    EXPECT_EQ((Int{0, 4, 0}), run(sj_parse_int, "x"));
}

TEST(SjParseInt, ReadsHexadecimalNumbersAfterWhitespace)
{
    EXPECT_EQ((Int{16, 0, 5}), run(sj_parse_int, " 0x10"));
}

TEST(SjParseUint, LargestValueIsAccepted)
{
    EXPECT_EQ((Unsigned{4294967295U, 0, 10}), run(sj_parse_uint, "4294967295"));
}

TEST(SjParseUint, OneAboveTheLargestValueIsError5)
{
    EXPECT_EQ((Unsigned{0, 5, 0}), run(sj_parse_uint, "4294967296"));
}

TEST(SjParseUint, Above64BitsIsError5)
{
    EXPECT_EQ((Unsigned{0, 5, 0}), run(sj_parse_uint, "18446744073709551616"));
}

TEST(SjParseUint, MinusAfterWhitespaceIsError6WithTheCursorPutBackBeforeTheWhitespace)
{
    EXPECT_EQ((Unsigned{0, 6, 0}), run(sj_parse_uint, "  -5"));
}

TEST(SjParseUint, OutOfRangeAfterWhitespacePutsTheCursorBackBeforeTheWhitespace)
{
    EXPECT_EQ((Unsigned{0, 5, 0}), run(sj_parse_uint, "  4294967296"));
}

TEST(SjParseUint, FractionIsError6WithTheCursorPutBack)
{
    EXPECT_EQ((Unsigned{0, 6, 0}), run(sj_parse_uint, "1.5"));
}

TEST(SjParseUint, NoDigitsAreError4)
{
    EXPECT_EQ((Unsigned{0, 4, 0}), run(sj_parse_uint, "x"));
}

TEST(SjParseUint, ReadsHexadecimalNumbersAfterWhitespace)
{
    EXPECT_EQ((Unsigned{16, 0, 5}), run(sj_parse_uint, " 0x10"));
}

// ---- numbers that are skipped ----------------------------------------------------------------------------

TEST(SjSkipNumber, PassesWholeNumbers)
{
    for (const char* const text : {"0", "7", "-7", "00012", "123456789012345678901234567890", "1.5", "-0.25",
                                   "1e3", "1E3", "1e+3", "1e-3", "-1.5E-10", "1.0e0"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{0, 0, static_cast<long>(std::strlen(text))}), run(sj_skip_number, text));
    }
}

TEST(SjSkipNumber, DigitsBeforeTheFractionMayBeMissing)
{
    EXPECT_EQ((Int{0, 0, 3}), run(sj_skip_number, "-.5"));
}

TEST(SjSkipNumber, DigitsBeforeTheExponentMayBeMissing)
{
    EXPECT_EQ((Int{0, 0, 3}), run(sj_skip_number, "-e5"));
}

TEST(SjSkipNumber, LoneMinusPasses)
{
    EXPECT_EQ((Int{0, 0, 1}), run(sj_skip_number, "-"));
}

TEST(SjSkipNumber, WhitespaceBeforeTheNumberIsSkipped)
{
    EXPECT_EQ((Int{0, 0, 6}), run(sj_skip_number, " \n 1.5"));
}

TEST(SjSkipNumber, StopsAfterTheNumber)
{
    EXPECT_EQ((Int{0, 0, 3}), run(sj_skip_number, "1.5.5"));
    EXPECT_EQ((Int{0, 0, 3}), run(sj_skip_number, "1e5e5"));
    EXPECT_EQ((Int{0, 0, 1}), run(sj_skip_number, "0x1F"));
    EXPECT_EQ((Int{0, 0, 2}), run(sj_skip_number, "-1-1"));
}

TEST(SjSkipNumber, FractionWithoutDigitsIsError6WithTheCursorOnTheFirstCharacter)
{
    for (const char* const text : {"1.", "1.x", "1.e5", "-1.", "."}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{6, 6, 0}), run(sj_skip_number, text));
    }
}

TEST(SjSkipNumber, ExponentWithoutDigitsIsError6WithTheCursorOnTheFirstCharacter)
{
    for (const char* const text : {"1e", "1E", "1e+", "1e-", "1ex", "1.5e", "-1e+x", "1e+-5"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{6, 6, 0}), run(sj_skip_number, text));
    }
}

TEST(SjSkipNumber, RejectedNumberAfterWhitespaceLeavesTheCursorOnItsSign)
{
    EXPECT_EQ((Int{6, 6, 2}), run(sj_skip_number, "  -1.x"));
}

// ---- strings ---------------------------------------------------------------------------------------------

TEST(SjParseString, GivesTheTextBetweenTheQuotes)
{
    EXPECT_EQ((String{"abc", 0, 5}), readString("\"abc\""));
}

TEST(SjParseString, EmptyStringIsAString)
{
    EXPECT_EQ((String{"", 0, 2}), readString("\"\""));
}

TEST(SjParseString, WhitespaceBeforeTheQuoteIsSkipped)
{
    EXPECT_EQ((String{"abc", 0, 8}), readString(" \n\t\"abc\""));
}

TEST(SjParseString, BlanksInsideBelongToTheString)
{
    EXPECT_EQ((String{" a b ", 0, 7}), readString("\" a b \""));
}

TEST(SjParseString, ResultPointsAfterTheOpeningQuote)
{
    Reader reader(" \"abc\"");
    EXPECT_EQ(reader.at(2), sj_parse_string(reader));
}

TEST(SjParseString, TextAfterTheClosingQuoteIsNotChanged)
{
    Reader reader("\"a\\n\\nb\",\"next\"");
    sj_parse_string(reader);
    EXPECT_STREQ(",\"next\"", reader->cursor);
}

TEST(SjParseString, EveryByteIsAcceptedOrRejectedByItsValue)
{
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const auto character = static_cast<char>(byte);
        const std::string inside = std::string("a") + character + "b";
        const String outcome = readString("\"" + inside + "\"");
        if (byte == 0)
            EXPECT_EQ((String{"(null)", 2, 2}), outcome);
        else if (byte == '"')
            EXPECT_EQ((String{"a", 0, 3}), outcome);
        else if (byte == '\\')
            EXPECT_EQ((String{"a\b", 0, 5}), outcome); // an escape with the letter that follows
        else if (byte < 32 || byte > 127)
            EXPECT_EQ((String{"(null)", 9, 2}), outcome);
        else
            EXPECT_EQ((String{inside, 0, 5}), outcome);
    }
}

TEST(SjParseString, EveryEscapeIsDecodedOrRejectedByItsCharacter)
{
    const std::string known = "\"\\/bfnrt";
    const std::string meaning = "\"\\/\b\f\n\r\t";
    for (int byte = 1; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const auto character = static_cast<char>(byte);
        const String outcome = readString(std::string("\"x\\") + character + "y\"");
        const size_t index = known.find(character);
        if (index != std::string::npos)
            EXPECT_EQ((String{std::string("x") + meaning[index] + "y", 0, 6}), outcome);
        else
            EXPECT_EQ((String{"(null)", byte == 'u' ? 10 : 8, 2}), outcome);
    }
}

TEST(SjParseString, SeveralEscapesInOneString)
{
    EXPECT_EQ((String{"\"\\/\b\f\n\r\t", 0, 18}), readString("\"\\\"\\\\\\/\\b\\f\\n\\r\\t\""));
}

TEST(SjParseString, EscapedNulInTheMiddleIsFollowedByItsFourDigits)
{
    Reader reader("\"a\\u0000b\"!");
    const char* const result = sj_parse_string(reader);
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(std::string("a\0"
                          "0000b\0",
                          8),
              std::string(result, 8));
}

TEST(SjParseString, EscapedNulIsNotAnError)
{
    EXPECT_EQ((String{"a", 0, 10}), readString("\"a\\u0000b\""));
}

TEST(SjParseString, EveryOtherUnicodeEscapeIsError10OnTheBackslash)
{
    for (const char* const text : {"\"\\u00e9\"", "\"\\u0001\"", "\"\\u1000\"", "\"\\u0100\"", "\"\\u0010\"",
                                   "\"\\u000g\"", "\"\\u\"", "\"\\u000\"", "\"\\u 000\""}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((String{"(null)", 10, 1}), readString(text));
    }
}

TEST(SjParseString, UnicodeEscapeCutShortByTheEndIsError10OnTheBackslash)
{
    for (const char* const text : {"\"a\\u", "\"a\\u0", "\"a\\u00", "\"a\\u000"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((String{"(null)", 10, 2}), readString(text));
    }
}

TEST(SjParseString, CapitalUnicodeEscapeIsError8)
{
    EXPECT_EQ((String{"(null)", 8, 1}), readString("\"\\U0000\""));
}

TEST(SjParseString, BackslashDirectlyBeforeTheEndIsError8OnTheBackslash)
{
    EXPECT_EQ((String{"(null)", 8, 4}), readString("\"abc\\"));
}

TEST(SjParseString, Utf8LetterIsError9OnItsFirstByte)
{
    EXPECT_EQ((String{"(null)", 9, 2}), readString("\"a\xc3\xa9\""));
}

TEST(SjParseString, UnterminatedStringIsError2OnTheEnd)
{
    EXPECT_EQ((String{"(null)", 2, 4}), readString("\"abc"));
}

TEST(SjParseString, LoneQuoteIsError2OnTheEnd)
{
    EXPECT_EQ((String{"(null)", 2, 1}), readString("\""));
}

TEST(SjParseString, EndOfTextIsError2)
{
    EXPECT_EQ((String{"(null)", 2, 0}), readString(""));
}

TEST(SjParseString, EndOfTextAfterWhitespaceIsError2)
{
    EXPECT_EQ((String{"(null)", 2, 2}), readString(" \n"));
}

TEST(SjParseString, AnythingElseIsError7)
{
    for (const char* const text : {"a", "'a'", "1", "null", "{", "[", "\\\"", "\xc3"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((String{"(null)", 7, 0}), readString(text));
    }
}

TEST(SjParseString, AnythingElseAfterWhitespaceLeavesTheCursorOnIt)
{
    EXPECT_EQ((String{"(null)", 7, 2}), readString("  x"));
}

// ---- objects ---------------------------------------------------------------------------------------------

TEST(SjParseObjectStart, ConsumesTheBrace)
{
    EXPECT_EQ((Int{0, 0, 1}), run(sj_parse_object_start, "{\"a\":1}"));
}

TEST(SjParseObjectStart, WhitespaceBeforeTheBraceIsSkipped)
{
    EXPECT_EQ((Int{0, 0, 4}), run(sj_parse_object_start, " \r\n{ }"));
}

TEST(SjParseObjectStart, AnythingElseIsError11)
{
    for (const char* const text : {"", "}", "[", "\"{\"", "x"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{11, 11, 0}), run(sj_parse_object_start, text));
    }
}

TEST(SjParseObjectStart, AnythingElseAfterWhitespaceLeavesTheCursorOnIt)
{
    EXPECT_EQ((Int{11, 11, 2}), run(sj_parse_object_start, "  ["));
}

TEST(SjParseObjectKey, GivesTheNameAndConsumesTheColon)
{
    EXPECT_EQ((String{"key", 0, 6}), readKey("\"key\":1"));
}

TEST(SjParseObjectKey, WhitespaceAroundTheNameIsSkipped)
{
    EXPECT_EQ((String{"key", 0, 10}), readKey("\n \"key\" \t: 1"));
}

TEST(SjParseObjectKey, MissingColonIsError12AndTheNameIsGivenAllTheSame)
{
    EXPECT_EQ((String{"key", 12, 5}), readKey("\"key\"1"));
}

TEST(SjParseObjectKey, MissingColonAfterWhitespaceLeavesTheCursorOnWhatIsThere)
{
    EXPECT_EQ((String{"key", 12, 7}), readKey("\"key\"  1"));
}

TEST(SjParseObjectKey, EndOfTextInPlaceOfTheColonIsError12)
{
    EXPECT_EQ((String{"key", 12, 5}), readKey("\"key\""));
}

TEST(SjParseObjectKey, KeyThatIsNotAStringGivesNoName)
{
    EXPECT_EQ((String{"(null)", 7, 1}), readKey(" key:1"));
}

TEST(SjParseObjectKey, EndOfTextIsError2)
{
    EXPECT_EQ((String{"(null)", 2, 1}), readKey(" "));
}

TEST(SjParseObjectKey, BrokenStringGivesItsError)
{
    EXPECT_EQ((String{"(null)", 8, 1}), readKey("\"\\x\":1"));
}

TEST(SjParseObjectNext, CommaMeansMore)
{
    EXPECT_EQ((Int{0, 0, 2}), run(sj_parse_object_next, " ,}"));
}

TEST(SjParseObjectNext, BraceMeansTheEnd)
{
    EXPECT_EQ((Int{1, 0, 2}), run(sj_parse_object_next, "\n},"));
}

TEST(SjParseObjectNext, AnythingElseIsError13)
{
    for (const char* const text : {"", "]", ":", "\"a\"", "{", "x"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{13, 13, 0}), run(sj_parse_object_next, text));
    }
}

TEST(SjParseObjectEndIfEmpty, BraceIsConsumed)
{
    EXPECT_EQ((Int{1, 0, 1}), run(sj_parse_object_end_if_empty, "}x"));
}

TEST(SjParseObjectEndIfEmpty, BlanksMayStandBeforeTheBrace)
{
    EXPECT_EQ((Int{1, 0, 4}), run(sj_parse_object_end_if_empty, " \t\n}"));
}

TEST(SjParseObjectEndIfEmpty, AnythingElseIsLeftWithoutError)
{
    for (const char* const text : {"", "]", "\"a\":1}", ",", "{"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{0, 0, 0}), run(sj_parse_object_end_if_empty, text));
    }
}

// ---- arrays ----------------------------------------------------------------------------------------------

TEST(SjParseArrayStart, ConsumesTheBracket)
{
    EXPECT_EQ((Int{0, 0, 1}), run(sj_parse_array_start, "[1]"));
}

TEST(SjParseArrayStart, WhitespaceBeforeTheBracketIsSkipped)
{
    EXPECT_EQ((Int{0, 0, 4}), run(sj_parse_array_start, " \r\n[ ]"));
}

TEST(SjParseArrayStart, AnythingElseIsError15)
{
    for (const char* const text : {"", "]", "{", "\"[\"", "x"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{15, 15, 0}), run(sj_parse_array_start, text));
    }
}

TEST(SjParseArrayNext, CommaMeansMore)
{
    EXPECT_EQ((Int{0, 0, 2}), run(sj_parse_array_next, " ,]"));
}

TEST(SjParseArrayNext, BracketMeansTheEnd)
{
    EXPECT_EQ((Int{1, 0, 2}), run(sj_parse_array_next, "\n],"));
}

TEST(SjParseArrayNext, AnythingElseIsError16)
{
    for (const char* const text : {"", "}", ":", "1", "[", "x"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{16, 16, 0}), run(sj_parse_array_next, text));
    }
}

TEST(SjParseArrayEndIfEmpty, BracketIsConsumed)
{
    EXPECT_EQ((Int{1, 0, 1}), run(sj_parse_array_end_if_empty, "]x"));
}

TEST(SjParseArrayEndIfEmpty, BlanksMayStandBeforeTheBracket)
{
    EXPECT_EQ((Int{1, 0, 4}), run(sj_parse_array_end_if_empty, " \t\n]"));
}

TEST(SjParseArrayEndIfEmpty, AnythingElseIsLeftWithoutError)
{
    for (const char* const text : {"", "}", "1]", ",", "["}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{0, 0, 0}), run(sj_parse_array_end_if_empty, text));
    }
}

// ---- peeking ---------------------------------------------------------------------------------------------

struct Peek {
    const char* name;
    int (*function)(const sj_parser*);
    const char* characters;
};

class SjPeek : public testing::TestWithParam<Peek> {};

TEST_P(SjPeek, KnowsItsFirstCharactersAmongAllBytes)
{
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const bool expected = byte != 0 && std::strchr(GetParam().characters, byte) != nullptr;
        EXPECT_EQ((Int{expected ? 1 : 0, 0, 0}),
                  peeked(GetParam().function, std::string(1, static_cast<char>(byte))));
    }
}

TEST_P(SjPeek, SkipsNoWhitespace)
{
    EXPECT_EQ((Int{0, 0, 0}), peeked(GetParam().function, std::string(" ") + GetParam().characters[0]));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SjPeek,
    testing::Values(Peek{"Boolean", sj_peek_is_boolean, "tf"}, Peek{"Null", sj_peek_is_null, "n"},
                    Peek{"Number", sj_peek_is_number, "-0123456789"}, Peek{"String", sj_peek_is_string, "\""},
                    Peek{"Object", sj_peek_is_object, "{"}, Peek{"Array", sj_peek_is_array, "["}),
    [](const auto& peek) { return std::string(peek.param.name); });

// ---- skipping --------------------------------------------------------------------------------------------

TEST(SjSkipValue, PassesOneValueOfEachKind)
{
    for (const char* const text : {"\"a\\n\"", "0", "-7", "1.5", "-1.5e-10", "true", "false", "null", "[]",
                                   "[ ]", "{}", "{ \n}", "[1]", "[1, 2.5 ,\"x\",null,true,false,[],{}]",
                                   "{\"a\":1}", "{ \"a\" : [ { \"b\" : [ [ ] ] } ] , \"c\":{}}",
                                   "[[[[]]],{\"a\":{\"a\":{}}}]", "{\"\":\"\",\"\":\"\"}"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ((Int{0, 0, static_cast<long>(std::strlen(text))}),
                  run(sj_skip_value, std::string(text) + ",\"next\""));
    }
}

TEST(SjSkipValue, WhitespaceBeforeTheValueIsSkipped)
{
    EXPECT_EQ((Int{0, 0, 5}), run(sj_skip_value, " \n\t[]"));
}

TEST(SjSkipValue, WhitespaceAfterTheValueIsLeft)
{
    EXPECT_EQ((Int{0, 0, 2}), run(sj_skip_value, "[] "));
}

TEST(SjSkipValue, EveryOtherFirstByteIsError3)
{
    for (int byte = 0; byte < 256; ++byte) {
        if ((byte != 0 && std::strchr("\"-0123456789[{tfn", byte) != nullptr) || std::isspace(byte) != 0)
            continue;
        SCOPED_TRACE(byte);
        EXPECT_EQ((Int{3, 3, 0}), run(sj_skip_value, std::string(1, static_cast<char>(byte)) + "1"));
    }
}

TEST(SjSkipValue, EndOfTextAfterWhitespaceIsError3)
{
    EXPECT_EQ((Int{3, 3, 2}), run(sj_skip_value, "  "));
}

TEST(SjSkipValue, BrokenWordsGiveTheErrorOfTheirKind)
{
    EXPECT_EQ((Int{17, 17, 0}), run(sj_skip_value, "tru"));
    EXPECT_EQ((Int{17, 17, 0}), run(sj_skip_value, "fALSE"));
    EXPECT_EQ((Int{18, 18, 0}), run(sj_skip_value, "nul"));
}

TEST(SjSkipValue, BrokenNumberGivesError6OnItsSign)
{
    EXPECT_EQ((Int{6, 6, 1}), run(sj_skip_value, " -1.x"));
}

TEST(SjSkipValue, BrokenStringsGiveTheirErrors)
{
    EXPECT_EQ((Int{2, 2, 2}), run(sj_skip_value, "\"a"));
    EXPECT_EQ((Int{8, 8, 1}), run(sj_skip_value, "\"\\x\""));
    EXPECT_EQ((Int{9, 9, 1}), run(sj_skip_value, "\"\xc3\xa9\""));
    EXPECT_EQ((Int{10, 10, 1}), run(sj_skip_value, "\"\\u00e9\""));
}

TEST(SjSkipArray, PassesTheWholeArray)
{
    EXPECT_EQ((Int{0, 0, 13}), run(sj_skip_array, " [1,[2,[3]] ]]"));
}

TEST(SjSkipArray, AnythingElseIsError15)
{
    EXPECT_EQ((Int{15, 15, 0}), run(sj_skip_array, "{}"));
    EXPECT_EQ((Int{15, 15, 0}), run(sj_skip_array, ""));
}

TEST(SjSkipArray, MissingCommaIsError16OnTheSecondElement)
{
    EXPECT_EQ((Int{16, 16, 3}), run(sj_skip_array, "[1 2]"));
}

TEST(SjSkipArray, MissingElementIsError3)
{
    EXPECT_EQ((Int{3, 3, 1}), run(sj_skip_array, "[,1]"));
    EXPECT_EQ((Int{3, 3, 3}), run(sj_skip_array, "[1,]"));
}

TEST(SjSkipArray, EndOfTextAfterAnElementIsError16)
{
    EXPECT_EQ((Int{16, 16, 2}), run(sj_skip_array, "[1"));
}

TEST(SjSkipArray, EndOfTextInPlaceOfAnElementIsError3)
{
    EXPECT_EQ((Int{3, 3, 1}), run(sj_skip_array, "["));
    EXPECT_EQ((Int{3, 3, 3}), run(sj_skip_array, "[1,"));
}

TEST(SjSkipArray, WrongClosingBraceIsError16)
{
    EXPECT_EQ((Int{16, 16, 2}), run(sj_skip_array, "[1}"));
    EXPECT_EQ((Int{13, 13, 7}), run(sj_skip_array, "[{\"a\":1]"));
}

TEST(SjSkipArray, ErrorOfAnInnerElementStopsAtThatElement)
{
    EXPECT_EQ((Int{17, 17, 5}), run(sj_skip_array, "[[1,[tru]],2]"));
}

TEST(SjSkipObject, PassesTheWholeObject)
{
    EXPECT_EQ((Int{0, 0, 22}), run(sj_skip_object, " {\"a\":{\"b\":[]},\"c\":1 }}"));
}

TEST(SjSkipObject, AnythingElseIsError11)
{
    EXPECT_EQ((Int{11, 11, 0}), run(sj_skip_object, "[]"));
    EXPECT_EQ((Int{11, 11, 0}), run(sj_skip_object, ""));
}

TEST(SjSkipObject, NameThatIsNotAStringIsError7)
{
    EXPECT_EQ((Int{7, 7, 1}), run(sj_skip_object, "{1:2}"));
}

TEST(SjSkipObject, MissingColonStopsAtOnce)
{
    EXPECT_EQ((Int{12, 12, 5}), run(sj_skip_object, "{\"a\" 1}"));
}

TEST(SjSkipObject, MissingValueIsError3)
{
    EXPECT_EQ((Int{3, 3, 5}), run(sj_skip_object, "{\"a\":}"));
}

TEST(SjSkipObject, MissingCommaIsError13OnTheSecondName)
{
    EXPECT_EQ((Int{13, 13, 7}), run(sj_skip_object, "{\"a\":1 \"b\":2}"));
}

TEST(SjSkipObject, CommaBeforeTheClosingBraceIsError7)
{
    EXPECT_EQ((Int{7, 7, 7}), run(sj_skip_object, "{\"a\":1,}"));
}

TEST(SjSkipObject, EndOfTextAfterAValueIsError13)
{
    EXPECT_EQ((Int{13, 13, 6}), run(sj_skip_object, "{\"a\":1"));
}

TEST(SjSkipObject, EndOfTextInPlaceOfANameIsError2)
{
    EXPECT_EQ((Int{2, 2, 1}), run(sj_skip_object, "{"));
    EXPECT_EQ((Int{2, 2, 7}), run(sj_skip_object, "{\"a\":1,"));
}

TEST(SjSkipObject, WrongClosingBracketIsError13)
{
    EXPECT_EQ((Int{13, 13, 6}), run(sj_skip_object, "{\"a\":1]"));
    EXPECT_EQ((Int{16, 16, 7}), run(sj_skip_object, "{\"a\":[1}"));
}

TEST(SjSkipObject, ErrorOfAnInnerMemberStopsAtThatMember)
{
    EXPECT_EQ((Int{12, 12, 14}), run(sj_skip_object, "{\"a\":[1,{\"b\"  1}]}"));
}

// ---- deep nesting ----------------------------------------------------------------------------------------

namespace {

constexpr size_t deep = 10000000;

/// Skips `text` in a child whose stack may not grow beyond 512 KiB. The child exits with 0 when the outcome
/// is as given and everything asked from the hooks was given back; a stack overflow kills it.
support::ChildResult skipWithSmallStack(const std::string& text, int error, long offset)
{
    return support::runInChild([&] {
        const rlimit stack{512 * 1024, 512 * 1024};
        if (::setrlimit(RLIMIT_STACK, &stack) != 0)
            return 10;
        CountingHooks hooks;
        const sj_util_funcs funcs = hooks.funcs();
        {
            Reader reader(text, &funcs);
            if (sj_skip_value(reader) != error)
                return 1;
            if (reader.offset() != offset)
                return 2;
        }
        return hooks.liveBlocks() == 0 && hooks.strangers == 0 ? 0 : 3;
    });
}

} // namespace

TEST(SjSkipValue, TenMillionNestedArraysNeedNoStack)
{
    const std::string text = std::string(deep, '[') + std::string(deep, ']');
    EXPECT_EQ(0, skipWithSmallStack(text, 0, static_cast<long>(text.size())).status);
}

TEST(SjSkipValue, TenMillionNestedObjectsNeedNoStack)
{
    const std::string text = repeated("{\"\":", deep) + "0" + std::string(deep, '}');
    EXPECT_EQ(0, skipWithSmallStack(text, 0, static_cast<long>(text.size())).status);
}

TEST(SjSkipValue, ArraysAndObjectsNestedInTurnNeedNoStack)
{
    const std::string text = repeated("[{\"\":", deep / 2) + "[]" + repeated("}]", deep / 2);
    EXPECT_EQ(0, skipWithSmallStack(text, 0, static_cast<long>(text.size())).status);
}

TEST(SjSkipValue, TenMillionArraysThatAreNeverClosedAreError3AtTheEnd)
{
    EXPECT_EQ(0, skipWithSmallStack(std::string(deep, '['), 3, static_cast<long>(deep)).status);
}

TEST(SjSkipValue, DeepMismatchIsFoundAtItsPlace)
{
    const std::string text = repeated("[{\"\":", deep / 2) + "1" + repeated("]}", deep / 2);
    EXPECT_EQ(0, skipWithSmallStack(text, 13, static_cast<long>(deep / 2 * 5 + 1)).status);
}

TEST(SjSkipValue, MemoryOfDeepNestingIsLinearInTheText)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    const std::string text = std::string(deep, '[') + std::string(deep, ']');
    Reader reader(text, &funcs);
    ASSERT_EQ(0, sj_skip_value(reader));
    EXPECT_LE(hooks.peakBytes(), 16 * text.size());
}

// Whoever moves a growing block copies it: the sum of all requests bounds the bytes that are moved.
TEST(SjSkipValue, WorkOfDeepNestingIsLinearInTheText)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    const std::string text = std::string(deep, '[') + std::string(deep, ']');
    Reader reader(text, &funcs);
    ASSERT_EQ(0, sj_skip_value(reader));
    EXPECT_LE(hooks.requestedBytes(), 32 * text.size());
}

TEST(SjSkipValue, RefusedMemoryIsError20)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    Reader reader(std::string(1000000, '[') + std::string(1000000, ']'), &funcs);
    hooks.grantOnly(0);
    EXPECT_EQ(20, sj_skip_value(reader));
    EXPECT_EQ(20, reader->error);
}

TEST(SjSkipValue, MemoryRefusedLaterIsGivenBackAllTheSame)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    {
        Reader reader(std::string(1000000, '[') + std::string(1000000, ']'), &funcs);
        hooks.grantOnly(1);
        ASSERT_EQ(20, sj_skip_value(reader));
    }
    EXPECT_EQ(0U, hooks.liveBlocks());
    EXPECT_EQ(0U, hooks.strangers);
}

TEST(SjSkipValue, MemoryOfOrdinaryNestingIsGivenBack)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    {
        Reader reader("[[{\"a\":[{}]}]]", &funcs);
        ASSERT_EQ(0, sj_skip_value(reader));
    }
    EXPECT_EQ(0U, hooks.liveBlocks());
    EXPECT_EQ(0U, hooks.strangers);
}

// ---- error texts -----------------------------------------------------------------------------------------

struct Message {
    int code;
    const char* text;
};

class SjParserStrerrorMessage : public testing::TestWithParam<Message> {};

TEST_P(SjParserStrerrorMessage, IsFollowedByOffsetAndCharacter)
{
    EXPECT_EQ(std::string(GetParam().text) + " Error occured at offset 2, character 'c'. ",
              errorText(GetParam().code, "abcd", 2));
}

INSTANTIATE_TEST_SUITE_P(
    Codes, SjParserStrerrorMessage,
    testing::Values(
        Message{1, "JSON array or object has ended."},
        Message{2, "JSON document has ended prematurely. Check that all strings are properly ended."},
        Message{3, "Any value is expected, but was not found."}, Message{4, "Number is expected."},
        Message{5, "Number value is out of range for expected type."},
        Message{6, "Invalid or unsupported number format. Check that there are no floating point numbers."},
        Message{7, "String is expected."}, Message{8, "Invalid escape sequence found in string."},
        Message{9,
                "Invalid character found in string. Check that strings do not contain control characters."},
        Message{10,
                "Invalid or unsupported Unicode character or escape sequence found in string. UTF8 encoded "
                "characters and '\\u' escape sequences are not supported."},
        Message{11, "JSON object is expected."},
        Message{12, "JSON name separator (':') is expected inside an object."},
        Message{13, "JSON value separator (',') or end of object is expected."},
        Message{14, "Some required fields are missing from the JSON object. Check that input JSON document "
                    "conforms to schema."},
        Message{15, "JSON array is expected."},
        Message{16, "JSON value separator (',') or end of array is expected."},
        Message{17, "Boolean value is expected."}, Message{18, "'null' is expected."},
        Message{19,
                "'null' is unexpected in this context. Check that input JSON document conforms to schema."},
        Message{20, "Failed to allocate memory."},
        Message{21,
                "Encountered an object field \"N/A\" not present in JSON schema. Remove excessive data from "
                "input JSON document or allow skipping unknown fields."},
        Message{22,
                "Encountered a duplicate field \"N/A\" in a JSON object. Remove duplicates from input JSON "
                "document or disable duplicate fields check."},
        Message{23, "Custom JSON value constraint failed: N/A."}, Message{24, "unknown error code"},
        Message{1000, "unknown error code"}, Message{-1, "unknown error code"}),
    [](const auto& message) {
        return message.param.code < 0 ? std::string("Negative") : "Code" + std::to_string(message.param.code);
    });

TEST(SjParserStrerror, FreshParserHasNoError)
{
    Reader reader("abc");
    errno = 0;
    EXPECT_STREQ("OK, no error.", sj_parser_strerror(reader));
}

TEST(SjParserStrerror, NoErrorIsTheWholeTextEvenWithASystemError)
{
    Reader reader("abc");
    errno = ENOENT;
    EXPECT_STREQ("OK, no error.", sj_parser_strerror(reader));
}

TEST(SjParserStrerror, MissingColonQuotesOffsetAndDigit)
{
    Reader reader("\"key\"1");
    sj_parse_object_key(reader);
    errno = 0;
    EXPECT_STREQ(
        "JSON name separator (':') is expected inside an object. Error occured at offset 5, character '1'. ",
        sj_parser_strerror(reader));
}

TEST(SjParserStrerror, UnknownFieldIsNamed)
{
    EXPECT_EQ(
        "Encountered an object field \"color\" not present in JSON schema. Remove excessive data from input "
        "JSON document or allow skipping unknown fields. Error occured at offset 0, character 'a'. ",
        errorText(21, "a", 0, "color"));
}

TEST(SjParserStrerror, DuplicateFieldIsNamed)
{
    EXPECT_EQ("Encountered a duplicate field \"color\" in a JSON object. Remove duplicates from input JSON "
              "document "
              "or disable duplicate fields check. Error occured at offset 0, character 'a'. ",
              errorText(22, "a", 0, "color"));
}

TEST(SjParserStrerror, ConstraintIsNamed)
{
    EXPECT_EQ("Custom JSON value constraint failed: color. Error occured at offset 0, character 'a'. ",
              errorText(23, "a", 0, "color"));
}

TEST(SjParserStrerror, PercentSignsOfAFieldNameAreText)
{
    EXPECT_EQ("Custom JSON value constraint failed: 100%s%n%d. Error occured at offset 0, character 'a'. ",
              errorText(23, "a", 0, "100%s%n%d"));
}

TEST(SjParserStrerror, FieldNameIsNotQuotedByOtherErrors)
{
    EXPECT_EQ("String is expected. Error occured at offset 0, character 'a'. ",
              errorText(7, "a", 0, "color"));
}

TEST(SjParserStrerror, EveryByteIsShownAsItselfOrAsTwoHexDigits)
{
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        char shown[8];
        std::snprintf(shown, sizeof shown, byte >= 32 && byte <= 126 ? "%c" : "\\x%02x", byte);
        EXPECT_EQ(std::string("String is expected. Error occured at offset 1, character '") + shown + "'. ",
                  errorText(7, std::string("a") + static_cast<char>(byte), 1));
    }
}

TEST(SjParserStrerror, OffsetIsCountedFromTheStartOfTheText)
{
    EXPECT_EQ("String is expected. Error occured at offset 1234567, character 'b'. ",
              errorText(7, std::string(1234567, 'a') + "b", 1234567));
}

TEST(SjParserStrerror, SystemErrorOfAnEarlierCallIsAppended)
{
    Reader reader("abc");
    sj_parse_string(reader);
    errno = ENOENT;
    EXPECT_STREQ(
        "String is expected. Error occured at offset 0, character 'a'. Also system error occured: No such "
        "file or directory (2).",
        sj_parser_strerror(reader));
}

TEST(SjParserStrerror, SystemErrorIsAppendedToEveryCode)
{
    for (int code = 1; code <= 24; ++code) {
        SCOPED_TRACE(code);
        const std::string without = errorText(code, "a", 0);
        Reader reader("a");
        reader->error = code;
        errno = EACCES;
        EXPECT_EQ(without + "Also system error occured: Permission denied (13).", sj_parser_strerror(reader));
    }
}

TEST(SjParserStrerror, NumbersThatWereReadBeforeLeaveTheSystemErrorOfAnEarlierCall)
{
    Reader reader("5x");
    errno = EACCES;
    sj_parse_int(reader);
    sj_parse_uint64(reader);
    EXPECT_STREQ(
        "Number is expected. Error occured at offset 1, character 'x'. Also system error occured: Permission "
        "denied (13).",
        sj_parser_strerror(reader));
}

TEST(SjParserStrerror, NumbersThatWereReadBeforeLeaveNoSystemError)
{
    Reader reader("5x");
    errno = 0;
    sj_parse_int(reader);
    sj_parse_uint64(reader);
    EXPECT_STREQ("Number is expected. Error occured at offset 1, character 'x'. ",
                 sj_parser_strerror(reader));
}

TEST(SjParserStrerror, NumberOutOfRangeIsASystemErrorToo)
{
    Reader reader("9223372036854775808");
    errno = 0;
    sj_parse_int64(reader);
    EXPECT_STREQ(
        "Number value is out of range for expected type. Error occured at offset 0, character '9'. Also "
        "system error occured: Numerical result out of range (34).",
        sj_parser_strerror(reader));
}

TEST(SjParserStrerror, NextCallOverwritesTheText)
{
    Reader reader("a");
    reader->error = 7;
    const char* const first = sj_parser_strerror(reader);
    reader->error = 0;
    EXPECT_EQ(first, sj_parser_strerror(reader));
    EXPECT_STREQ("OK, no error.", first);
}

TEST(SjParserStrerror, TextIsCutAt1023BytesWhereverThatFalls)
{
    for (size_t length = 700; length <= 1100; ++length) {
        SCOPED_TRACE(length);
        const std::string field(length, 'f');
        Reader reader("a");
        reader->error = 23;
        reader->field_name = field.c_str();
        errno = ENOENT;
        const std::string whole =
            "Custom JSON value constraint failed: " + field +
            ". Error occured at offset 0, character 'a'. Also system error occured: No such "
            "file or directory (2).";
        EXPECT_EQ(whole.substr(0, 1023), sj_parser_strerror(reader));
    }
}

TEST(SjParserStrerror, TextBeforeTheFieldNameMayFillTheBufferToo)
{
    const std::string field(100000, 'f');
    EXPECT_EQ(("Encountered an object field \"" + field).substr(0, 1023),
              errorText(21, "a", 0, field.c_str()));
}
