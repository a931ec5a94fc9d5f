// Readable names of types and functions.
#pragma once

#include <optional>
#include <string>

namespace kavro {

/// The name as it stands in the source; nothing when `mangled` is not a name in the C++ ABI's encoding.
std::optional<std::string> demangle(const char* mangled);

}  // namespace kavro
