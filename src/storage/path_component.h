// Which names may become one component of a path in the mail storage. Names of addresses and domain aliases reach the
// storage as they were given, so every function that builds a path from one asks here.
#pragma once

#include <string>
#include <string_view>

namespace kavro::mail {

/// False for an empty name, ".", "..", and a name with "/" or a NUL byte.
bool isPathComponent(std::string_view name) noexcept;

/// What is said of a name that is none.
std::string notPathComponentText(std::string_view name);

/// The name in lower case as the global locale has it. Throws std::runtime_error when it is no path component.
std::string lowerPathComponent(const std::string& name);

}  // namespace kavro::mail
