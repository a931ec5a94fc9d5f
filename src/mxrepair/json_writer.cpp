// Writing of JSON. What is no UTF-8 (a file may have any name) is written byte by byte, as if it were Latin-1.
#include "mxrepair/json_writer.h"

#include <cstdio>

#include "util/names.h"

namespace mxrepair {

namespace {

constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kFirstBeyondAscii = 0x80;

}  // namespace

void JsonWriter::separate() {
    if (!first_) {
        out_ << ", ";
    }
    first_ = false;
}

void JsonWriter::open(char bracket) {
    separate();
    out_ << bracket;
    first_ = true;
}

void JsonWriter::close(char bracket) {
    out_ << bracket;
    first_ = false;
}

void JsonWriter::quote(std::string_view value) {
    const bool utf8 = kavro::isUtf8(value);
    out_ << '"';
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out_ << '\\' << c;
        } else if (byte < kFirstPrintable || (byte >= kFirstBeyondAscii && !utf8)) {
            char escaped[sizeof "\\u0000"];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
            out_ << escaped;
        } else {
            out_ << c;
        }
    }
    out_ << '"';
}

void JsonWriter::key(std::string_view name) {
    separate();
    quote(name);
    out_ << ": ";
    first_ = true;
}

void JsonWriter::text(std::string_view value) {
    separate();
    quote(value);
}

void JsonWriter::number(std::int64_t value) {
    separate();
    out_ << value;
}

void JsonWriter::boolean(bool value) {
    separate();
    out_ << (value ? "true" : "false");
}

void JsonWriter::null() {
    separate();
    out_ << "null";
}

}  // namespace mxrepair
