// Quoting of strings for a POSIX shell.
#pragma once

#include <string>

namespace kavro {

/// Backslash before each character that a shell gives a meaning to; a newline goes between single quotes; bytes of
/// 0x80 and above are copied.
std::string sh_quote(const std::string& s);

/// Passes a string of safe characters (also the empty one), else throws std::runtime_error. Bytes of 0x80 and above
/// are not safe.
void check_shell_arg(const std::string& s);

}  // namespace kavro

/// 256 marks by character code: '-' safe, '*' escaped by a backslash, 'n' put between single quotes. May be replaced.
extern const char* shell_escape_chars;

/// 1 for null, the empty string or safe characters only, else 0.
int check_shell_arg_nothrow(const char* s);
