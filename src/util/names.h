// The fixed ASCII rules for mailnames, domain names and addresses; ASCII lower-casing; UTF-8 (RFC 3629).
#pragma once

#include <string_view>

/// Each answers 1 for valid, 0 for invalid; null is invalid.
int is_mailname_valid(const char* name);     ///< local part, 1 to 245 bytes
int is_domain_name_valid(const char* name);  ///< 1 to 255 bytes, labels of 1 to 63
int is_full_mailname_valid(const char* address);

/// Lower-cases ASCII letters in place; returns its argument.
char* ascii_lower(char* text);

namespace kavro {

/// True for well-formed UTF-8: no stray or missing continuation bytes, no overlong forms, no surrogates, nothing above
/// U+10FFFF.
bool isUtf8(std::string_view text);

}  // namespace kavro
