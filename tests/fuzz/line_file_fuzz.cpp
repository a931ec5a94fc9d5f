// A delivery file of any bytes, and a line that is added to it and removed: all other lines stay, in their order.
#include "fuzz.h"
#include "util/line_file.h"

namespace {

const char* const path = "/tmp/.qmail";

/// The lines but those that equal `line`, each with its end.
std::string without(std::string text, const std::string& line) {
    std::string kept;
    while (!text.empty()) {
        const std::string next = take_line(text);
        kept += next == line ? "" : next + "\n";
    }
    return kept;
}

}  // namespace

void check(std::string& text) {
    const std::string line = take_line(text).c_str();
    write_file(path, text);
    require(file_str(path, line.c_str(), FILE_STRINGS_ADD, FILE_STRINGS_AT_END) == 0);
    const std::string whole = text.empty() || text.back() == '\n' ? text : text + "\n";
    require(read_file(path) == whole + line + "\n");
    require(file_str(path, line.c_str(), FILE_STRINGS_REMOVE, FILE_STRINGS_AT_END) == 0);
    require(read_file(path) == without(text, line));
}
