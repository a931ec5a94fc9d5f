// Counting the messages of a Maildir by the rules of the Maildir++ layout. 1 on success, 0 on failure, reported.
#pragma once

#include <cstdint>
#include <string_view>

/// Counts the Maildir in the working directory; `newestMtime` gets the newest change of a counted directory.
int get_maildirpp_messages_usage(std::uint64_t* size, std::uint64_t* count, long* newestMtime);
/// Raises `newest` to the modification times of a folder's "cur" and "new".
int get_maildirpp_folder_mtime(const char* folder, long* newest);

namespace kavro::mail {

/// True for the name of a subfolder that counts: "." and a second character other than ".", not the Trash. The name
/// alone decides; marker files within are not asked.
bool isCountedSubfolder(std::string_view name) noexcept;

}  // namespace kavro::mail
