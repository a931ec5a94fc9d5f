// The directories that mxadmin and the mail server expect, with their owners and modes.
#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <string>
#include <vector>

namespace mxrepair {

/// The account that the mail server runs as.
inline constexpr const char* kPostfixUser = "postfix";

/// A directory as it is made when it is missing.
struct Directory {
    std::string path;
    const char* user;  ///< owner, with its login group
    mode_t mode;
};

/// The directory of lock files.
Directory lockDirectory();
/// All others, in the order they are to be made. Reads the panel's configuration.
std::vector<Directory> storeDirectories();

/// Makes a missing directory, and its missing parents for root with mode 0755; reports each. Throws SystemError.
void makeMissingDirectory(const Directory& directory, std::ostream& report);

bool accountExists(const char* user);

}  // namespace mxrepair
