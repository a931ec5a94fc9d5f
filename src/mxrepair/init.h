// Making of what mxadmin needs and does not find: directories, lookup tables, databases. Nothing that exists is
// changed, whatever it is.
#pragma once

#include <iosfwd>

namespace mxrepair {

/// Makes every missing store and prints one line for each on `report`. Several calls at the same time take turns.
/// Throws std::runtime_error (or SystemError) with a text for the operator; what was made before it stays.
void makeMissingStores(std::ostream& report);

/// Makes the directories of the stores alone. Throws as makeMissingStores does.
void makeMissingDirectories(std::ostream& report);

/// Name of the lock that making, backup and restoration of stores take turns by.
inline constexpr const char* kStoresLock = "mxrepair --init";

/// The account that the mail server runs as.
inline constexpr const char* kPostfixUser = "postfix";

/// Something has that name, be it a dangling link. Throws SystemError when that cannot be told.
bool fileExists(const char* path);

}  // namespace mxrepair
