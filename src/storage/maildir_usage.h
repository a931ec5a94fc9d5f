// Rules of the Maildir++ layout that counting a mailbox and watching it for changes share.
#pragma once

#include <string_view>

namespace kavro::mail {

/// True for the name of a subfolder that counts: "." and a second character other than ".", not the Trash. The name
/// alone decides; marker files within are not asked.
bool isCountedSubfolder(std::string_view name) noexcept;

}  // namespace kavro::mail
