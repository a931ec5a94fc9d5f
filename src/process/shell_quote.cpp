// Quoting of strings for a POSIX shell, driven by one table.
#include "process/shell_quote.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

// Sixteen characters a line, from code 0 on.
const char* shell_escape_chars =
    "---------*n-----"  // tab, newline
    "----------------"
    "*-***-*****-----"  // blank " # $ & ' ( ) *
    "-----------**-**"  // ; < > ?
    "----------------"
    "-----------**---"  // [ backslash
    "*---------------"  // `
    "------------*-*-"  // | ~
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------"
    "----------------";

namespace {

// The upper half of the table is not asked. Bytes from 0x80 up are neither safe nor quoted.
constexpr char kNotAscii = 'x';

char markOf(char character) {
    const auto code = static_cast<signed char>(character);
    return code < 0 ? kNotAscii : shell_escape_chars[code];
}

bool allSafe(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char character) { return markOf(character) == '-'; });
}

}  // namespace

namespace kavro {

std::string sh_quote(const std::string& s) {
    std::string quoted;
    quoted.reserve(s.size());
    for (const char character : s) {
        switch (markOf(character)) {
            case '*':
                quoted += '\\';
                quoted += character;
                break;
            case 'n':
                quoted += '\'';
                quoted += character;
                quoted += '\'';
                break;
            default:
                quoted += character;
        }
    }
    return quoted;
}

void check_shell_arg(const std::string& s) {
    if (!allSafe(s)) {
        throw std::runtime_error("Internal error: bad escape_chars value");  // Kept: callers match this text.
    }
}

}  // namespace kavro

int check_shell_arg_nothrow(const char* s) {
    return s == nullptr || allSafe(s) ? 1 : 0;
}
