// A pull parser for JSON documents of objects, arrays, strings and integers. It works in place: strings are unescaped
// inside the text that it is given. The first error stays in the parser; operations never clear it.
#pragma once

#include <cstddef>
#include <cstdint>

/// How a parser and its users get memory.
struct sj_util_funcs {
    void* user_data;
    void* (*allocate)(void* user_data, std::size_t size);
    void* (*reallocate)(void* user_data, void* pointer, std::size_t size);
    void (*free)(void* user_data, void* pointer);
};

struct sj_parser {
    char* start;
    char* position;
    const char* detail;  ///< fills "%s" of an error message; null: "N/A"
    int error;
    sj_util_funcs funcs;
};

enum sj_error : int {
    SJ_OK = 0,
    SJ_ENDED = 1,
    SJ_PREMATURE_END = 2,
    SJ_NO_VALUE = 3,
    SJ_NO_NUMBER = 4,
    SJ_NUMBER_RANGE = 5,
    SJ_NUMBER_FORMAT = 6,
    SJ_NO_STRING = 7,
    SJ_BAD_ESCAPE = 8,
    SJ_BAD_CHARACTER = 9,
    SJ_BAD_UNICODE = 10,
    SJ_NO_OBJECT = 11,
    SJ_NO_NAME_SEPARATOR = 12,
    SJ_NO_OBJECT_SEPARATOR = 13,
    SJ_MISSING_FIELDS = 14,
    SJ_NO_ARRAY = 15,
    SJ_NO_ARRAY_SEPARATOR = 16,
    SJ_NO_BOOLEAN = 17,
    SJ_NO_NULL = 18,
    SJ_UNEXPECTED_NULL = 19,
    SJ_NO_MEMORY = 20,
    SJ_UNKNOWN_FIELD = 21,
    SJ_DUPLICATE_FIELD = 22,
    SJ_CONSTRAINT = 23
};

/// malloc(3), realloc(3) and free(3), without user data. A block that is large enough already is left as it is.
void sj_set_default_util_funcs(sj_util_funcs* funcs);
/// Null for a null text or no memory. `text` must be writable and outlive every string read from it; null `funcs`
/// means the default ones.
sj_parser* sj_create_parser(char* text, const sj_util_funcs* funcs);
void sj_free_parser(sj_parser* parser);
/// One static parser over an empty text, reset by each call.
sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs);
/// The error with its offset; a static buffer of 1024 bytes, overwritten by each call.
const char* sj_parser_strerror(const sj_parser* parser);

// Pull operations: white space is skipped first.
int sj_parse_null(sj_parser* parser);
int sj_parse_boolean(sj_parser* parser);
std::int64_t sj_parse_int64(sj_parser* parser);
std::uint64_t sj_parse_uint64(sj_parser* parser);
std::int32_t sj_parse_int(sj_parser* parser);
std::uint32_t sj_parse_uint(sj_parser* parser);
char* sj_parse_string(sj_parser* parser);      ///< unescaped text inside the input; null on error
int sj_parse_object_start(sj_parser* parser);  ///< 0 or the error
char* sj_parse_object_key(sj_parser* parser);
int sj_parse_object_next(sj_parser* parser);  ///< 0 after ",", 1 after "}", else the error
int sj_parse_object_end_if_empty(sj_parser* parser);
int sj_parse_array_start(sj_parser* parser);
int sj_parse_array_next(sj_parser* parser);
int sj_parse_array_end_if_empty(sj_parser* parser);
int sj_skip_value(sj_parser* parser);
int sj_skip_number(sj_parser* parser);
int sj_skip_array(sj_parser* parser);
int sj_skip_object(sj_parser* parser);

// Peek operations: what the character at the position could begin. 1 or 0.
int sj_peek_is_null(const sj_parser* parser);
int sj_peek_is_boolean(const sj_parser* parser);
int sj_peek_is_number(const sj_parser* parser);
int sj_peek_is_string(const sj_parser* parser);
int sj_peek_is_object(const sj_parser* parser);
int sj_peek_is_array(const sj_parser* parser);
