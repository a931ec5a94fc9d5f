// The limit on paths that the side services build. Longer names are refused with a message of their own, before the
// system gets to see them.
#pragma once

#include <cstddef>

namespace kavro::services {

/// A path of this many characters or more is refused.
inline constexpr std::size_t kPathLimit = 4096;

}  // namespace kavro::services
