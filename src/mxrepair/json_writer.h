// JSON as it is written for machines: the separators, and what a string must escape.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace mxrepair {

/// Writes one value, members and elements in the order of the calls. Brackets are the caller's to balance.
class JsonWriter {
public:
    /// The stream must outlive the writer.
    explicit JsonWriter(std::ostream& out) : out_(out) {}

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    /// The name of the member that comes next.
    void key(std::string_view name);
    void text(std::string_view value);
    void number(std::int64_t value);
    void boolean(bool value);
    void null();

    void member(std::string_view name, std::string_view value) {
        key(name);
        text(value);
    }
    /// Ends the line after what stands at the top.
    void finish() { out_ << '\n'; }

private:
    void separate();
    void open(char bracket);
    void close(char bracket);
    void quote(std::string_view value);

    std::ostream& out_;
    bool first_ = true;
};

}  // namespace mxrepair
