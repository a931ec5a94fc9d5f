// Backup and restoration of what a node knows of its mail domains: tables, databases, keys. Mail is not part of it.
#pragma once

#include <string>

#include "mxrepair/command_line.h"

namespace mxrepair {

/// Writes a new directory, mode 0700, whole or not at all. Throws std::runtime_error, or SystemError.
int runBackup(const Options& options);

/// Puts a backup that matches its manifest in the place of what there is, after making every new store beside its old
/// one. Killed in the middle, the same call completes it. Throws as runBackup does.
int runRestore(const Options& options);

/// Where it makes them: a directory of its own, and beside the place of those that lie on other volumes.
std::string restoreDirectory();
inline constexpr const char* kRestoredSuffix = ".restored";

}  // namespace mxrepair
