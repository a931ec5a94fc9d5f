// Skipping of values. Containers are open in a list of one bit each instead of on the stack: a document of a million
// brackets is skipped like any other.
#include <cstdint>
#include <new>
#include <vector>

#include "session/json_scan.h"

using sj_scan::fail;
using sj_scan::is_digit;
using sj_scan::skip_space;

namespace {

/// The containers that are open around the position, innermost last.
class OpenContainers {
public:
    bool empty() const { return depth_ == 0; }
    bool innermostIsObject() const { return (kinds_ & 1) != 0; }

    /// Throws std::bad_alloc.
    void push(bool object) {
        if (depth_ != 0 && depth_ % KINDS == 0) {
            outer_.push_back(kinds_);
        }
        kinds_ = (kinds_ << 1) | (object ? 1U : 0U);
        ++depth_;
    }

    void pop() {
        kinds_ >>= 1;
        --depth_;
        if (depth_ != 0 && depth_ % KINDS == 0) {
            kinds_ = outer_.back();
            outer_.pop_back();
        }
    }

private:
    static constexpr std::size_t KINDS = 64;  ///< in a word

    std::uint64_t kinds_ = 0;           ///< the innermost containers; bit 0 is the last one, set for an object
    std::vector<std::uint64_t> outer_;  ///< full words of those around them
    std::size_t depth_ = 0;
};

int skip_scalar(sj_parser* parser) {
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
            if (*parser->position != '-' && !is_digit(*parser->position)) {
                return fail(parser, SJ_NO_VALUE);
            }
            sj_skip_number(parser);
            break;
    }
    return parser->error;
}

/// Begins one more member of the innermost container. False, and nothing is read, when an error stands.
bool begin_member(sj_parser* parser, const OpenContainers& open) {
    if (parser->error != SJ_OK) {
        return false;
    }
    if (open.innermostIsObject()) {
        sj_parse_object_key(parser);
    }
    return true;
}

int skip_separator(sj_parser* parser, const OpenContainers& open) {
    return open.innermostIsObject() ? sj_parse_object_next(parser) : sj_parse_array_next(parser);
}

/// Skips the value at the position and what it contains.
/// Kept: an error stops a container only before its next member. After a value that could not be skipped its separator
/// is still read, and a missing separator's error replaces the value's.
void skip(sj_parser* parser) {
    OpenContainers open;
    do {
        skip_space(parser);
        const bool object = *parser->position == '{';
        if (object || *parser->position == '[') {
            ++parser->position;
            const auto end_if_empty = object ? &sj_parse_object_end_if_empty : &sj_parse_array_end_if_empty;
            if (end_if_empty(parser) == 0) {
                open.push(object);
                if (begin_member(parser, open)) {
                    continue;
                }
                open.pop();
            }
        } else {
            skip_scalar(parser);
        }
        while (!open.empty() && !(skip_separator(parser, open) == 0 && begin_member(parser, open))) {
            open.pop();
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

int sj_skip_array(sj_parser* parser) {
    skip_space(parser);
    return sj_peek_is_array(parser) != 0 ? sj_skip_value(parser) : fail(parser, SJ_NO_ARRAY);
}

int sj_skip_object(sj_parser* parser) {
    skip_space(parser);
    return sj_peek_is_object(parser) != 0 ? sj_skip_value(parser) : fail(parser, SJ_NO_OBJECT);
}
