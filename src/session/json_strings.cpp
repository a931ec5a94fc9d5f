// Strings that do not stand for themselves byte by byte: escapes, and every way a string can be wrong.
#include <cstring>
#include <string_view>

#include "session/json_scan.h"

namespace {

constexpr std::string_view NUL_ESCAPE = "u0000";

/// The character that a backslash and `escape` stand for; NUL when there is none.
char unescaped(char escape) {
    switch (escape) {
        case '"':
        case '\\':
        case '/':
            return escape;
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
            return '\0';
    }
}

/// Writes what the escape at `in` stands for and steps over it. SJ_OK or the error.
int copy_escape(char*& in, char*& out) {
    if (in[1] == 'u') {
        if (std::strncmp(in + 1, NUL_ESCAPE.data(), NUL_ESCAPE.size()) != 0) {
            return SJ_BAD_UNICODE;
        }
        *out++ = '\0';
        in += 1 + NUL_ESCAPE.size();
        return SJ_OK;
    }
    const char character = unescaped(in[1]);
    if (character == '\0') {
        return SJ_BAD_ESCAPE;
    }
    *out++ = character;
    in += 2;
    return SJ_OK;
}

}  // namespace

char* sj_scan::finish_text(sj_parser* parser, char* stop, text* parsed) {
    char* in = stop;
    char* out = stop;
    int error = SJ_OK;
    while (error == SJ_OK && *in != '"') {
        if ((plain_kinds[static_cast<unsigned char>(*in)] & ENDS_PLAIN) == 0) {
            *out++ = *in++;
        } else if (*in == '\\') {
            error = copy_escape(in, out);
        } else {
            error = *in == '\0' ? SJ_PREMATURE_END : SJ_BAD_CHARACTER;
        }
    }
    if (error != SJ_OK) {
        *parsed = text{};
        return fail(parser, in, error);
    }
    *out = '\0';
    // An escaped NUL ends the text early.
    parsed->length = std::strlen(parsed->begin);
    return in + 1;
}

char* sj_parse_string(sj_parser* parser) {
    sj_scan::text parsed;
    char* const end = sj_scan::parse_text(parser, parser->position, &parsed);
    if (end != nullptr) {
        parser->position = end;
    }
    return parsed.begin;
}

char* sj_parse_object_key(sj_parser* parser) {
    sj_scan::text key;
    char* const end = sj_scan::parse_key(parser, parser->position, &key);
    if (end != nullptr) {
        parser->position = end;
    }
    return key.begin;
}
