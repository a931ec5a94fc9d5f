// What the parser's files share beyond its contract.
#pragma once

#include <array>
#include <cerrno>

#include "session/json_parser.h"

/// isspace(3) of the "C" locale, which the programs run in.
inline bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline void skip_space(sj_parser* parser) {
    while (is_space(*parser->position)) {
        ++parser->position;
    }
}

/// Sets the error where the parser stands, and returns it.
inline int fail(sj_parser* parser, int error) {
    parser->error = error;
    return error;
}

/// Converts the number at the position, as strtoll(3) does with base 0, and steps over it.
template <typename Value>
Value convert_number(sj_parser* parser, Value (*convert)(const char*, char**, int)) {
    // errno is part of the error text: only a failing conversion may leave a mark there.
    const int errno_before = errno;
    errno = 0;
    char* end = nullptr;
    const Value value = convert(parser->position, &end, 0);
    if (end == parser->position) {
        fail(parser, SJ_NO_NUMBER);
    } else if (errno == ERANGE) {
        fail(parser, SJ_NUMBER_RANGE);
        return value;
    } else {
        parser->position = end;
        if (*end == '.' || *end == 'e' || *end == 'E') {
            fail(parser, SJ_NUMBER_FORMAT);
        }
    }
    errno = errno_before;
    return value;
}

/// What is known of each byte. The first bit is the parser's; a caller that looks at each byte of a string anyway may
/// have a table of its own with more.
using byte_kinds = std::array<unsigned char, 256>;

/// Does not stand for itself in a string: the quote, the backslash, and all but the ASCII bytes from the blank on.
inline constexpr unsigned char kEndsPlain = 1;

inline constexpr byte_kinds kPlainKinds = [] {
    byte_kinds kinds{};
    for (std::size_t byte = 0; byte < kinds.size(); ++byte) {
        const bool plain = byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\';
        kinds[byte] = plain ? 0 : kEndsPlain;
    }
    return kinds;
}();

/// sj_parse_string. `seen` gets the kinds of the bytes that stand for themselves up to the first that does not; when
/// that is not the closing quote, the bit kEndsPlain too.
char* parse_text(sj_parser* parser, const byte_kinds& kinds, unsigned* seen);
