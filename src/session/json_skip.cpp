// Skipping of values. Containers are open in a list of one bit each instead of on the stack: a document of a million
// brackets is skipped like any other.
#include <new>
#include <vector>

#include "session/json_parser.h"
#include "session/json_scan.h"

namespace {

/// The containers that are open around the position, innermost last; true for an object.
using OpenContainers = std::vector<bool>;

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

void skip_scalar(sj_parser* parser) {
    switch (*parser->position) {
        case '"':
            sj_parse_string(parser);
            break;
        case 't':
        case 'f':
            sj_parse_boolean(parser);
            break;
        case 'n':
            sj_parse_null(parser);
            break;
        default:
            if (sj_peek_is_number(parser) != 0) {
                sj_skip_number(parser);
            } else {
                fail(parser, SJ_NO_VALUE);
            }
            break;
    }
}

/// Begins one more member of the innermost container. False, and nothing is read, when an error stands.
bool begin_member(sj_parser* parser, const OpenContainers& open) {
    if (parser->error != SJ_OK) {
        return false;
    }
    if (open.back()) {
        sj_parse_object_key(parser);
    }
    return true;
}

int skip_separator(sj_parser* parser, const OpenContainers& open) {
    return open.back() ? sj_parse_object_next(parser) : sj_parse_array_next(parser);
}

/// Skips the value at the position and what it contains.
/// Kept: an error stops a container only before its next member. After a value that could not be skipped its separator
/// is still read, and a missing separator's error replaces the value's.
void skip(sj_parser* parser) {
    OpenContainers open;
    do {
        skip_space(parser);
        const bool object = sj_peek_is_object(parser) != 0;
        if (object || sj_peek_is_array(parser) != 0) {
            ++parser->position;
            const auto end_if_empty = object ? &sj_parse_object_end_if_empty : &sj_parse_array_end_if_empty;
            if (end_if_empty(parser) == 0) {
                open.push_back(object);
                if (begin_member(parser, open)) {
                    continue;
                }
                open.pop_back();
            }
        } else {
            skip_scalar(parser);
        }
        while (!open.empty() && !(skip_separator(parser, open) == 0 && begin_member(parser, open))) {
            open.pop_back();
        }
    } while (!open.empty());
}

}  // namespace

int sj_skip_value(sj_parser* parser) {
    try {
        skip(parser);
    } catch (const std::bad_alloc&) {
        fail(parser, SJ_NO_MEMORY);
    }
    return parser->error;
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
