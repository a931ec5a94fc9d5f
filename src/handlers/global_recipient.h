// The recipients that a global handler may be registered for. Not for other folders.
#pragma once

namespace kavro::handlers {

inline constexpr const char* kAll = "all";
inline constexpr const char* kAllRecipients = "all-recipients";

/// The recipient that `address` stands for in a global handler (null and empty stand for "all"), or null when it is
/// none. Logs nothing.
const char* global_recipient(const char* address);

}  // namespace kavro::handlers
