// Numbers: conversion as strtoll(3) does it with base 0, and skipping by the grammar of RFC 8259.
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "session/json_scan.h"

using sj_scan::fail;
using sj_scan::is_digit;
using sj_scan::skip_space;

namespace {

/// Digits that any number of 64 bits has room for.
constexpr std::ptrdiff_t SAFE_DIGITS = 18;

/// The usual case without the library: a plain decimal number, for which base 0 means base 10. False, and nothing is
/// read, for every other text.
template <typename Value>
bool read_decimal(sj_parser* parser, Value* value) {
    const char* at = parser->position;
    const bool negative = *at == '-';
    at += negative ? 1 : 0;
    if (*at == '0' || !is_digit(*at)) {
        return false;
    }
    const char* const digits = at;
    Value number = 0;
    for (; is_digit(*at) && at - digits < SAFE_DIGITS; ++at) {
        number = number * 10 + static_cast<Value>(*at - '0');
    }
    if (is_digit(*at) || *at == '.' || *at == 'e' || *at == 'E') {
        return false;
    }
    *value = negative ? 0 - number : number;
    parser->position += at - parser->position;
    return true;
}

/// Converts the number at the position and steps over it. The error of this call alone, or SJ_OK.
template <typename Value>
int read_number(sj_parser* parser, Value (*convert)(const char*, char**, int), Value* value) {
    if (read_decimal(parser, value)) {
        return SJ_OK;
    }
    // errno is part of the error text: only a failing conversion may leave a mark there.
    const int errno_before = errno;
    errno = 0;
    char* end = nullptr;
    *value = convert(parser->position, &end, 0);
    const bool out_of_range = errno == ERANGE;
    if (!out_of_range) {
        errno = errno_before;
    }
    if (end == parser->position) {
        return fail(parser, SJ_NO_NUMBER);
    }
    if (out_of_range) {
        return fail(parser, SJ_NUMBER_RANGE);
    }
    parser->position = end;
    if (*end == '.' || *end == 'e' || *end == 'E') {
        return fail(parser, SJ_NUMBER_FORMAT);
    }
    return SJ_OK;
}

int read_signed(sj_parser* parser, long long* value) {
    skip_space(parser);
    return read_number(parser, &std::strtoll, value);
}

int read_unsigned(sj_parser* parser, unsigned long long* value) {
    skip_space(parser);
    *value = 0;
    if (*parser->position == '-') {
        return fail(parser, SJ_NUMBER_FORMAT);
    }
    return read_number(parser, &std::strtoull, value);
}

/// Reads with `read` what must lie in the range of `Narrow`; puts the position back on any error.
template <typename Narrow, typename Wide>
Narrow read_narrow(sj_parser* parser, int (*read)(sj_parser*, Wide*)) {
    char* const before = parser->position;
    Wide value = 0;
    int error = read(parser, &value);
    const bool fits = std::in_range<Narrow>(value);
    if (error == SJ_OK && !fits) {
        error = fail(parser, SJ_NUMBER_RANGE);
    }
    if (error != SJ_OK) {
        parser->position = before;
    }
    return fits ? static_cast<Narrow>(value) : Narrow{0};
}

/// Steps over digits; false when there are none.
bool skip_digits(sj_parser* parser) {
    if (!is_digit(*parser->position)) {
        return false;
    }
    while (is_digit(*parser->position)) {
        ++parser->position;
    }
    return true;
}

}  // namespace

std::int64_t sj_parse_int64(sj_parser* parser) {
    long long value = 0;
    read_signed(parser, &value);
    return value;
}

std::uint64_t sj_parse_uint64(sj_parser* parser) {
    unsigned long long value = 0;
    read_unsigned(parser, &value);
    return value;
}

std::int32_t sj_parse_int(sj_parser* parser) {
    return read_narrow<std::int32_t>(parser, &read_signed);
}

std::uint32_t sj_parse_uint(sj_parser* parser) {
    return read_narrow<std::uint32_t>(parser, &read_unsigned);
}

int sj_skip_number(sj_parser* parser) {
    skip_space(parser);
    char* const before = parser->position;
    if (*parser->position == '-') {
        ++parser->position;
    }
    if (!skip_digits(parser)) {
        parser->position = before;
        return fail(parser, SJ_NO_NUMBER);
    }
    if (*parser->position == '.') {
        ++parser->position;
        if (!skip_digits(parser)) {
            return fail(parser, SJ_NUMBER_FORMAT);
        }
    }
    if (*parser->position == 'e' || *parser->position == 'E') {
        ++parser->position;
        if (*parser->position == '+' || *parser->position == '-') {
            ++parser->position;
        }
        if (!skip_digits(parser)) {
            return fail(parser, SJ_NUMBER_FORMAT);
        }
    }
    return parser->error;
}
