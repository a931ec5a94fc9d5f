// The parser but for its skipping.
#include "session/json_parser.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "session/json_scan.h"

namespace {

constexpr std::string_view kNulEscape = "u0000";

void* default_allocate(void* /*user_data*/, std::size_t size) {
    return std::malloc(size);
}

/// The size to ask for. A large block is asked for with room to spare, or the kernel would be called for each page that
/// it grows by. The spare part is not touched, so it costs no memory.
std::size_t roomy(std::size_t size) {
    constexpr std::size_t kLarge = 64UL * 1024;
    return size < kLarge ? size : size + size / 8;
}

// Arrays grow by one item at a time, a million times for a large document: what fits into the block is answered without
// asking for it.
void* default_reallocate(void* /*user_data*/, void* pointer, std::size_t size) {
    if (pointer == nullptr) {
        return std::malloc(size);
    }
    return size <= ::malloc_usable_size(pointer) ? pointer : std::realloc(pointer, roomy(size));
}

void default_free(void* /*user_data*/, void* pointer) {
    std::free(pointer);
}

sj_util_funcs funcs_or_defaults(const sj_util_funcs* funcs) {
    if (funcs != nullptr) {
        return *funcs;
    }
    sj_util_funcs defaults{};
    sj_set_default_util_funcs(&defaults);
    return defaults;
}

/// Steps over `literal` when it stands at the position; what follows it is the next operation's matter.
bool accept(sj_parser* parser, std::string_view literal) {
    if (std::strncmp(parser->position, literal.data(), literal.size()) != 0) {
        return false;
    }
    parser->position += literal.size();
    return true;
}

/// The same with white space before a single character.
bool accept_character(sj_parser* parser, char character) {
    skip_space(parser);
    if (*parser->position != character) {
        return false;
    }
    ++parser->position;
    return true;
}

/// 0 after a comma, 1 after the closing bracket, else the error.
int next(sj_parser* parser, char closing, int error) {
    if (accept_character(parser, ',')) {
        return 0;
    }
    return accept_character(parser, closing) ? 1 : fail(parser, error);
}

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
        if (std::strncmp(in + 1, kNulEscape.data(), kNulEscape.size()) != 0) {
            return SJ_BAD_UNICODE;
        }
        *out++ = '\0';
        in += 1 + kNulEscape.size();
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

/// Goes on with a string at the first byte that does not stand for itself. SJ_OK or the error.
int unescape_rest(sj_parser* parser) {
    char* in = parser->position;
    char* out = in;
    int error = SJ_OK;
    while (error == SJ_OK && *in != '"') {
        if ((kPlainKinds[static_cast<unsigned char>(*in)] & kEndsPlain) == 0) {
            *out++ = *in++;
        } else if (*in == '\\') {
            error = copy_escape(in, out);
        } else {
            error = *in == '\0' ? SJ_PREMATURE_END : SJ_BAD_CHARACTER;
        }
    }
    parser->position = in;
    if (error == SJ_OK) {
        *out = '\0';
    }
    return error;
}

/// Indexed by the error code.
constexpr std::array<std::string_view, 24> kMessages = {
    "OK, no error.",
    "JSON array or object has ended.",
    "JSON document has ended prematurely. Check that all strings are properly ended.",
    "Any value is expected, but was not found.",
    "Number is expected.",
    "Number value is out of range for expected type.",
    "Invalid or unsupported number format. Check that there are no floating point numbers.",
    "String is expected.",
    "Invalid escape sequence found in string.",
    "Invalid character found in string. Check that strings do not contain control characters.",
    "Invalid or unsupported Unicode character or escape sequence found in string. UTF8 encoded characters and '\\u' "
    "escape sequences are not supported.",
    "JSON object is expected.",
    "JSON name separator (':') is expected inside an object.",
    "JSON value separator (',') or end of object is expected.",
    "Some required fields are missing from the JSON object. Check that input JSON document conforms to schema.",
    "JSON array is expected.",
    "JSON value separator (',') or end of array is expected.",
    "Boolean value is expected.",
    "'null' is expected.",
    "'null' is unexpected in this context. Check that input JSON document conforms to schema.",
    "Failed to allocate memory.",
    "Encountered an object field \"%s\" not present in JSON schema. Remove excessive data from input JSON document or "
    "allow skipping unknown fields.",
    "Encountered a duplicate field \"%s\" in a JSON object. Remove duplicates from input JSON document or disable "
    "duplicate fields check.",
    "Custom JSON value constraint failed: %s.",
};

constexpr std::string_view kUnknown = "unknown error code";
constexpr std::string_view kDetail = "%s";
constexpr std::size_t kTextSize = 1024;

/// A text of limited size: what does not fit is cut, and what is appended later starts behind the cut.
class LimitedText {
public:
    LimitedText(char* buffer, std::size_t size) : position_(buffer), room_(size) {}

    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        std::va_list args;
        va_start(args, format);
        const int wanted = std::vsnprintf(position_, room_, format, args);
        va_end(args);
        const std::size_t written = wanted < 0 ? 0 : std::min(static_cast<std::size_t>(wanted), room_ - 1);
        position_ += written;
        room_ -= written;
    }

    void append(std::string_view text) { append("%.*s", static_cast<int>(text.size()), text.data()); }

private:
    char* position_;
    std::size_t room_;  ///< the terminating NUL included, so never 0
};

void append_message(LimitedText& text, std::string_view message, const char* detail) {
    const auto place = message.find(kDetail);
    if (place == std::string_view::npos) {
        text.append(message);
        return;
    }
    text.append(message.substr(0, place));
    text.append(std::string_view(detail != nullptr ? detail : "N/A"));
    text.append(message.substr(place + kDetail.size()));
}

}  // namespace

char* parse_text(sj_parser* parser, const byte_kinds& kinds, unsigned* seen) {
    skip_space(parser);
    char* in = parser->position;
    if (*in != '"') {
        fail(parser, *in == '\0' ? SJ_PREMATURE_END : SJ_NO_STRING);
        return nullptr;
    }
    char* const text = ++in;
    unsigned all = 0;
    unsigned kind = kinds[static_cast<unsigned char>(*in)];
    while ((kind & kEndsPlain) == 0) {
        all |= kind;
        kind = kinds[static_cast<unsigned char>(*++in)];
    }
    parser->position = in;
    if (*in == '"') {
        *in = '\0';
    } else {
        all |= kEndsPlain;
        const int error = unescape_rest(parser);
        if (error != SJ_OK) {
            fail(parser, error);
            return nullptr;
        }
    }
    *seen = all;
    ++parser->position;
    return text;
}

void sj_set_default_util_funcs(sj_util_funcs* funcs) {
    *funcs = {nullptr, &default_allocate, &default_reallocate, &default_free};
}

sj_parser* sj_create_parser(char* text, const sj_util_funcs* funcs) {
    if (text == nullptr) {
        return nullptr;
    }
    const sj_util_funcs hooks = funcs_or_defaults(funcs);
    auto* parser = static_cast<sj_parser*>(hooks.allocate(hooks.user_data, sizeof(sj_parser)));
    if (parser != nullptr) {
        *parser = {text, text, nullptr, SJ_OK, hooks};
    }
    return parser;
}

void sj_free_parser(sj_parser* parser) {
    if (parser != nullptr) {
        // The hooks lie in the block that they release.
        const sj_util_funcs hooks = parser->funcs;
        hooks.free(hooks.user_data, parser);
    }
}

sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs) {
    static sj_parser dummy;
    static char empty[1];
    empty[0] = '\0';
    dummy = {empty, empty, nullptr, SJ_OK, funcs_or_defaults(funcs)};
    return &dummy;
}

int sj_parse_null(sj_parser* parser) {
    skip_space(parser);
    return accept(parser, "null") ? SJ_OK : fail(parser, SJ_NO_NULL);
}

int sj_parse_boolean(sj_parser* parser) {
    skip_space(parser);
    if (accept(parser, "true")) {
        return 1;
    }
    if (!accept(parser, "false")) {
        fail(parser, SJ_NO_BOOLEAN);
    }
    return 0;
}

std::int64_t sj_parse_int64(sj_parser* parser) {
    skip_space(parser);
    return convert_number(parser, &std::strtoll);
}

char* sj_parse_string(sj_parser* parser) {
    unsigned seen = 0;
    return parse_text(parser, kPlainKinds, &seen);
}

int sj_parse_object_start(sj_parser* parser) {
    return accept_character(parser, '{') ? SJ_OK : fail(parser, SJ_NO_OBJECT);
}

char* sj_parse_object_key(sj_parser* parser) {
    char* const key = sj_parse_string(parser);
    if (key != nullptr && !accept_character(parser, ':')) {
        fail(parser, SJ_NO_NAME_SEPARATOR);
    }
    return key;
}

int sj_parse_object_next(sj_parser* parser) {
    return next(parser, '}', SJ_NO_OBJECT_SEPARATOR);
}

int sj_parse_object_end_if_empty(sj_parser* parser) {
    return accept_character(parser, '}') ? 1 : 0;
}

int sj_parse_array_start(sj_parser* parser) {
    return accept_character(parser, '[') ? SJ_OK : fail(parser, SJ_NO_ARRAY);
}

int sj_parse_array_next(sj_parser* parser) {
    return next(parser, ']', SJ_NO_ARRAY_SEPARATOR);
}

int sj_parse_array_end_if_empty(sj_parser* parser) {
    return accept_character(parser, ']') ? 1 : 0;
}

int sj_peek_is_number(const sj_parser* parser) {
    return *parser->position == '-' || is_digit(*parser->position) ? 1 : 0;
}

int sj_peek_is_object(const sj_parser* parser) {
    return *parser->position == '{' ? 1 : 0;
}

int sj_peek_is_array(const sj_parser* parser) {
    return *parser->position == '[' ? 1 : 0;
}

const char* sj_parser_strerror(const sj_parser* parser) {
    static std::array<char, kTextSize> buffer;
    const int system_error = errno;
    LimitedText text(buffer.data(), buffer.size());
    if (parser->error == SJ_OK) {
        text.append(kMessages[SJ_OK]);
        return buffer.data();
    }
    const auto code = static_cast<std::size_t>(parser->error);
    append_message(text, code < kMessages.size() ? kMessages[code] : kUnknown, parser->detail);

    // Kept: callers match this text, spelling included.
    text.append(" Error occured at offset %zu", static_cast<std::size_t>(parser->position - parser->start));
    const auto byte = static_cast<unsigned char>(*parser->position);
    if (byte >= ' ' && byte < 0x7f) {
        text.append(", character '%c'. ", byte);
    } else {
        text.append(", character '\\x%.02x'. ", static_cast<unsigned>(byte));
    }
    if (system_error != 0) {
        text.append("Also system error occured: %s (%d).", std::strerror(system_error), system_error);
    }
    return buffer.data();
}
