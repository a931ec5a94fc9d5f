// The parser's inner steps, inline for the document reader: it takes some thirty of them for each mailname. A step gets
// a position and returns the one behind what it read, so that the position can stay in a register; null after an error,
// which is then in the parser together with its place.
// Not a contract: other floors include json_parser.h.
#pragma once

#include <array>
#include <cctype>
#include <cstddef>

#include "session/json_parser.h"

namespace sj_scan {

/// A parsed string: NUL-terminated inside the input, with the length that strlen(3) gives. Null after an error.
struct text {
    char* begin = nullptr;
    std::size_t length = 0;
};

/// isspace(3) of the current locale; ASCII is settled without a call, and what usually stands here with one comparison.
inline bool is_space(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > ' ' && byte < 0x80) {
        return false;
    }
    return byte == ' ' || (byte >= '\t' && byte <= '\r') || (byte >= 0x80 && std::isspace(byte) != 0);
}

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline char* skip_space(char* at) {
    while (is_space(*at)) {
        ++at;
    }
    return at;
}

inline char* fail(sj_parser* parser, char* at, int error) {
    parser->position = at;
    parser->error = error;
    return nullptr;
}

/// Steps over `character`; `error` when another one stands there.
inline char* expect(sj_parser* parser, char* at, char character, int error) {
    at = skip_space(at);
    return *at == character ? at + 1 : fail(parser, at, error);
}

/// Steps over a comma, or over the closing bracket, which clears `more`.
inline char* next(sj_parser* parser, char* at, char closing, int error, bool* more) {
    at = skip_space(at);
    if (*at == ',') {
        return at + 1;
    }
    *more = false;
    return *at == closing ? at + 1 : fail(parser, at, error);
}

/// What is known of each byte. The first bit is the parser's; a caller that looks at each byte of a string anyway may
/// have a table of its own with more.
using byte_kinds = std::array<unsigned char, 256>;

/// Does not stand for itself in a string: the quote, the backslash, and all but the ASCII bytes from the blank on.
inline constexpr unsigned char ENDS_PLAIN = 1;

inline constexpr byte_kinds plain_kinds = [] {
    byte_kinds kinds{};
    for (std::size_t byte = 0; byte < kinds.size(); ++byte) {
        const bool plain = byte >= ' ' && byte < 0x80 && byte != '"' && byte != '\\';
        kinds[byte] = plain ? 0 : ENDS_PLAIN;
    }
    return kinds;
}();

/// Goes on with a string at the first byte that does not stand for itself, `stop`.
char* finish_text(sj_parser* parser, char* stop, text* parsed);

/// Parses a string. `seen` gets the kinds of the bytes that stand for themselves up to the first that does not; when
/// that is not the closing quote, the bit ENDS_PLAIN too.
inline char* parse_text(sj_parser* parser, char* at, const byte_kinds& kinds, text* parsed, unsigned* seen) {
    at = skip_space(at);
    if (*at != '"') {
        return fail(parser, at, *at == '\0' ? SJ_PREMATURE_END : SJ_NO_STRING);
    }
    parsed->begin = ++at;
    unsigned all = 0;
    unsigned kind = kinds[static_cast<unsigned char>(*at)];
    while ((kind & ENDS_PLAIN) == 0) {
        all |= kind;
        kind = kinds[static_cast<unsigned char>(*++at)];
    }
    if (*at != '"') {
        *seen = all | ENDS_PLAIN;
        return finish_text(parser, at, parsed);
    }
    *seen = all;
    *at = '\0';
    parsed->length = static_cast<std::size_t>(at - parsed->begin);
    return at + 1;
}

inline char* parse_text(sj_parser* parser, char* at, text* parsed) {
    unsigned seen = 0;
    return parse_text(parser, at, plain_kinds, parsed, &seen);
}

/// A string and the colon after it. A missing colon is an error, but the key is there.
inline char* parse_key(sj_parser* parser, char* at, text* key) {
    at = parse_text(parser, at, key);
    return at != nullptr ? expect(parser, at, ':', SJ_NO_NAME_SEPARATOR) : nullptr;
}

// For the operations of the contract, which work on the parser's own position.

inline void skip_space(sj_parser* parser) {
    parser->position = skip_space(parser->position);
}

/// Sets the error where the parser stands, and returns it.
inline int fail(sj_parser* parser, int error) {
    parser->error = error;
    return error;
}

}  // namespace sj_scan
