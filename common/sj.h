// sj: a pull-style JSON reader over a text in memory.
//
// The caller asks, token by token, for what its schema expects next. There is no document tree: strings are
// unescaped inside the caller's buffer, which the reader therefore changes, and returned as pointers into it.
// Failures are stored in the parser's error field: stop at the first one and show sj_parser_strerror().
// The reader takes a subset of JSON: integers (no fractions, except in values that are skipped), no \u escape
// except \u0000, and only 7-bit characters inside strings. Nothing here throws or prints.
//
//     sj_parser* p = sj_create_parser(text, nullptr);
//     if (sj_parse_object_start(p) == 0) ...
//     sj_free_parser(p);
#pragma once

#include <cstddef>
#include <cstdint>

/// Allocator hooks; `context` is passed to each as it is.
struct sj_util_funcs {
    void* context;
    void* (*malloc)(void* context, size_t size);
    void* (*realloc)(void* context, void* block, size_t size);
    void (*free)(void* context, void* block);
};

/// Values of sj_parser::error.
enum sj_error {
    SJ_OK = 0,
    SJ_ENDED = 1,
    SJ_PREMATURE_END = 2,
    SJ_VALUE_EXPECTED = 3,
    SJ_NUMBER_EXPECTED = 4,
    SJ_NUMBER_RANGE = 5,
    SJ_NUMBER_FORMAT = 6,
    SJ_STRING_EXPECTED = 7,
    SJ_BAD_ESCAPE = 8,
    SJ_BAD_CHARACTER = 9,
    SJ_BAD_UNICODE = 10,
    SJ_OBJECT_EXPECTED = 11,
    SJ_NAME_SEPARATOR_EXPECTED = 12,
    SJ_OBJECT_SEPARATOR_EXPECTED = 13,
    SJ_FIELDS_MISSING = 14,
    SJ_ARRAY_EXPECTED = 15,
    SJ_ARRAY_SEPARATOR_EXPECTED = 16,
    SJ_BOOLEAN_EXPECTED = 17,
    SJ_NULL_EXPECTED = 18,
    SJ_NULL_UNEXPECTED = 19,
    SJ_NO_MEMORY = 20,
    SJ_UNKNOWN_FIELD = 21,
    SJ_DUPLICATE_FIELD = 22,
    SJ_CONSTRAINT_FAILED = 23
};

/// One reader over one text. The text belongs to the caller and outlives the parser.
struct sj_parser {
    char* start;            ///< Beginning of the text; error offsets count from here.
    char* cursor;           ///< Next unread character.
    const char* field_name; ///< Quoted by errors 21 to 23; null: "N/A".
    int error;              ///< sj_error.
    sj_util_funcs util_funcs;
};

/// malloc(3), realloc(3) and free(3) as hooks.
void* sj_default_malloc(void* context, size_t size);
void* sj_default_realloc(void* context, void* block, size_t size);
void sj_default_free(void* context, void* block);

/// Fills `funcs` with a null context and the three defaults.
void sj_set_default_util_funcs(sj_util_funcs* funcs);

/// A new parser over `text` (NUL-terminated, changed by reading), allocated through `funcs` (null: defaults;
/// copied). Null when `text` is null or the allocation fails. To be given to sj_free_parser.
sj_parser* sj_create_parser(char* text, const sj_util_funcs* funcs);

/// Releases the parser, not the text. Null is ignored.
void sj_free_parser(sj_parser* parser);

/// The one static parser over an empty text, reset by every call, for code that needs a parser but reads
/// nothing. Not to be freed.
sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs);

/// Moves the cursor over characters for which isspace(3) holds.
void sj_skip_whitespace(sj_parser* parser);

/// 1 for "true", 0 for "false" and, with error 17, for anything else. What follows the word is not looked at.
int sj_parse_boolean(sj_parser* parser);

/// 0 for "null", else 18, which is also stored.
int sj_parse_null(sj_parser* parser);

/// The integer at the cursor, in C notation (0x1F and 017 are hexadecimal and octal, strtoll(3) base 0).
/// Error 4 without digits and error 5 out of range leave the cursor where it is; error 6 means that a
/// fraction or an exponent follows, with the cursor after the integer part, or that an unsigned number begins
/// with "-". The result is 0 after an error, except that error 6 after an integer part yields that part.
/// errno is ERANGE after error 5, and otherwise what it was.
int64_t sj_parse_int64(sj_parser* parser);
uint64_t sj_parse_uint64(sj_parser* parser);

/// As above for 32 bits; after any error the cursor is where it was and the result is 0.
int sj_parse_int(sj_parser* parser);
unsigned sj_parse_uint(sj_parser* parser);

/// Skips a number, fractions and exponents included. 0, or 6 with the cursor on the number's first character.
int sj_skip_number(sj_parser* parser);

/// The string at the cursor, unescaped in place and NUL-terminated; points into the text and lives as long as
/// it. Null after errors 2 and 7 to 10. An escaped NUL ends the string for any C function that reads it.
char* sj_parse_string(sj_parser* parser);

/// 0 with "{" consumed, else 11, which is also stored.
int sj_parse_object_start(sj_parser* parser);

/// A member's name, with the ":" after it consumed. Null where there is no string. Without a ":" error 12,
/// and the name is returned all the same.
char* sj_parse_object_key(sj_parser* parser);

/// 0 after "," (more members follow), 1 after "}", else 13, which is also stored.
int sj_parse_object_next(sj_parser* parser);

/// 1 with "}" consumed, else 0 with only white space consumed. Stores no error.
int sj_parse_object_end_if_empty(sj_parser* parser);

/// The same three with "[", "]" and errors 15 and 16.
int sj_parse_array_start(sj_parser* parser);
int sj_parse_array_next(sj_parser* parser);
int sj_parse_array_end_if_empty(sj_parser* parser);

/// 1 when the character at the cursor can begin such a value, else 0. White space is not skipped.
int sj_peek_is_boolean(const sj_parser* parser);
int sj_peek_is_null(const sj_parser* parser);
int sj_peek_is_number(const sj_parser* parser);
int sj_peek_is_string(const sj_parser* parser);
int sj_peek_is_object(const sj_parser* parser);
int sj_peek_is_array(const sj_parser* parser);

/// Skip one value of any kind, an object, or an array, with everything inside. Time and memory are linear in
/// the text and the stack is constant however deep the nesting; error 20 where the hooks give no memory for
/// it. Return the parser's error field.
int sj_skip_value(sj_parser* parser);
int sj_skip_object(sj_parser* parser);
int sj_skip_array(sj_parser* parser);

/// The text of the current error with its offset and character, and with the system error where errno is not
/// 0 at this moment. In one static buffer of 1024 bytes: the next call overwrites it.
char* sj_parser_strerror(const sj_parser* parser);
