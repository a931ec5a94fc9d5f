// What went wrong in a document, and where, as one line for the log.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "session/json_parser.h"

namespace {

/// Indexed by the error code.
constexpr std::array<std::string_view, 24> MESSAGES = {
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

constexpr std::string_view UNKNOWN = "unknown error code";
constexpr std::string_view DETAIL = "%s";
constexpr std::size_t TEXT_SIZE = 1024;

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
    const auto place = message.find(DETAIL);
    if (place == std::string_view::npos) {
        text.append(message);
        return;
    }
    text.append(message.substr(0, place));
    text.append(std::string_view(detail != nullptr ? detail : "N/A"));
    text.append(message.substr(place + DETAIL.size()));
}

}  // namespace

const char* sj_parser_strerror(const sj_parser* parser) {
    static std::array<char, TEXT_SIZE> buffer;
    const int system_error = errno;
    LimitedText text(buffer.data(), buffer.size());
    if (parser->error == SJ_OK) {
        text.append(MESSAGES[SJ_OK]);
        return buffer.data();
    }
    const auto code = static_cast<std::size_t>(parser->error);
    append_message(text, code < MESSAGES.size() ? MESSAGES[code] : UNKNOWN, parser->detail);

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
