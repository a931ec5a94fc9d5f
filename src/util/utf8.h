// UTF-8 (RFC 3629).
#pragma once

#include <string_view>

namespace kavro {

/// True for well-formed UTF-8: no stray or missing continuation bytes, no overlong forms, no surrogates, nothing above
/// U+10FFFF.
bool isUtf8(std::string_view text);

}  // namespace kavro
