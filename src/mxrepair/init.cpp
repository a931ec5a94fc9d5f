// The order in which stores are made: what the others need comes first.
#include "mxrepair/init.h"

#include <unistd.h>

#include <ostream>
#include <stdexcept>
#include <string>

#include "mxrepair/databases.h"
#include "mxrepair/directories.h"
#include "mxrepair/lookup_tables.h"
#include "postfix/tables.h"
#include "util/accounts.h"
#include "util/lock_file.h"

namespace mxrepair {

namespace {

/// Hashed by the lock into a file name, like the names of tables.
constexpr const char* kLockName = "mxrepair --init";

/// What cannot be made here, and must be there before anything is made.
void checkPrerequisites() {
    std::string missing;
    for (const char* user : {MAIL_USER, kPostfixUser}) {
        if (!accountExists(user)) {
            missing += std::string("\n  the user ") + user;
        }
    }
    if (::access(kavro::mail::postfix::kPostmap, X_OK) != 0) {
        missing += std::string("\n  the program ") + kavro::mail::postfix::kPostmap;
    }
    if (!missing.empty()) {
        throw std::runtime_error("nothing was made, because this is missing:" + missing);
    }
}

}  // namespace

void makeMissingStores(std::ostream& report) {
    checkPrerequisites();
    // The lock lives in the first directory, so that one is made without it.
    makeMissingDirectory(lockDirectory(), report);
    const kavro::MKLock lock(kLockName, kavro::MKLock::kHashedName, kavro::MKLock::kWait);
    for (const Directory& directory : storeDirectories()) {
        makeMissingDirectory(directory, report);
    }
    makeMissingLookupTables(report);
    makeMissingAuthDatabase(report);
    makeMissingHandlersDatabase(report);
}

}  // namespace mxrepair
