// One table says of each character how it is quoted.
#include "process/shell_quote.h"

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

namespace kavro {

std::string sh_quote(const std::string& s) {
    std::string quoted;
    quoted.reserve(s.size());
    for (const char character : s) {
        // The upper half of the table is not asked. Bytes from 0x80 up are neither safe nor quoted.
        const auto code = static_cast<signed char>(character);
        switch (code < 0 ? '-' : shell_escape_chars[code]) {
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

}  // namespace kavro
