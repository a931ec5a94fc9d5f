// Making of what is missing: directories, then tables, then databases, because what the others need comes first.
#include "mxrepair/init.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "mxrepair/databases.h"
#include "mxrepair/node_state.h"
#include "postfix/postmap.h"
#include "postfix/table_lock.h"
#include "postfix/tables.h"
#include "process/retry.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "services/rename_plugins.h"
#include "util/accounts.h"
#include "util/lock_file.h"

namespace mxrepair {

namespace {

constexpr const char* kRoot = "root";
constexpr mode_t kOpenMode = 0755;

[[noreturn]] void fail(const std::string& path) {
    kavro::throwSystemError("cannot make the directory " + path, errno);
}

bool directoryExists(const std::string& path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        if (errno != ENOENT) {
            fail(path);
        }
        return false;
    }
    if (!S_ISDIR(found.st_mode)) {
        errno = ENOTDIR;
        fail(path);
    }
    return true;
}

std::string parentOf(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

/// Removes a directory just made unless it got owner and mode: half made, it would count as there the next time.
class NewDirectoryGuard {
public:
    explicit NewDirectoryGuard(const std::string& path) : path_(path) {}
    NewDirectoryGuard(const NewDirectoryGuard&) = delete;
    NewDirectoryGuard& operator=(const NewDirectoryGuard&) = delete;
    ~NewDirectoryGuard() {
        if (!complete_) {
            const kavro::ErrnoKeeper keeper;
            ::rmdir(path_.c_str());
        }
    }
    void complete() noexcept { complete_ = true; }

private:
    const std::string& path_;
    bool complete_ = false;
};

/// A directory as it is made when it is missing.
struct Directory {
    std::string path;
    const char* user;  ///< owner, with its login group
    mode_t mode;
};

/// The directory of lock files.
Directory lockDirectory() {
    return {kLockFilesDirectory, kRoot, S_IRWXU};
}

/// All others, in the order they are to be made. Reads the panel's configuration.
std::vector<Directory> storeDirectories() {
    return {
        {"/var/spool/postfix/kavro", kPostfixUser, 0770},   {mailRoot(), kMailUser, kOpenMode},
        {"/var/lib/kavro/mail/handlers", kRoot, kOpenMode}, {kDomainKeysDirectory, kRoot, kOpenMode},
        {kRenamePluginsDirectory, kRoot, kOpenMode},
    };
}

/// Makes a missing directory, and its missing parents for root with mode 0755.
void makeMissingDirectory(const Directory& directory, std::ostream& report) {
    const std::string& path = directory.path;
    if (directoryExists(path)) {
        return;
    }
    makeMissingDirectory({parentOf(path), kRoot, kOpenMode}, report);
    if (kavro::retryInterrupted([&] { return ::mkdir(path.c_str(), S_IRWXU); }) != 0) {
        // Another run may have made the directory of the lock files, which no lock protects.
        if (errno != EEXIST || !directoryExists(path)) {
            fail(path);
        }
        return;
    }
    NewDirectoryGuard guard(path);
    const uid_t owner = kavro_ugid(directory.user, 0);
    const gid_t group = kavro_ugid(directory.user, 1);
    if (kavro::retryInterrupted([&] { return ::chown(path.c_str(), owner, group); }) != 0 ||
        kavro::retryInterrupted([&] { return ::chmod(path.c_str(), directory.mode); }) != 0) {
        fail(path);
    }
    guard.complete();
    report << "created directory " << path << '\n';
}

/// Adds nothing to the map. An addition opens a map without truncating it, and creates it when it is missing: a record
/// that another program adds at the same moment stays.
void addNothing(const char* table) {
    const kavro::mail::postfix::PostmapResult result = kavro::mail::postfix::runPostmap({"-i", table}, {}, {});
    if (!result.succeeded()) {
        throw std::runtime_error(std::string("cannot make the table ") + table + ": " + result.reason());
    }
}

/// Makes each missing hash map, empty.
void makeMissingLookupTables(std::ostream& report) {
    for (const char* table : lookupTables()) {
        if (kavro::mail::postfix::putBackInterruptedRebuild(table)) {
            report << "put back table " << table << '\n';
        }
        if (!fileExists(kavro::mail::postfix::mapFile(table).c_str())) {
            addNothing(table);
            report << "created table " << table << '\n';
        }
    }
}

void makeStoreDirectories(std::ostream& report) {
    for (const Directory& directory : storeDirectories()) {
        makeMissingDirectory(directory, report);
    }
}

/// What cannot be made here, and must be there before anything is made.
void checkPrerequisites() {
    std::string missing;
    for (const char* user : {kMailUser, kPostfixUser}) {
        if (find_user(user) == nullptr) {
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

bool fileExists(const char* path) {
    struct stat found {};
    if (::lstat(path, &found) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        kavro::throwSystemError(std::string("cannot examine ") + path, errno);
    }
    return false;
}

void makeMissingDirectories(std::ostream& report) {
    checkPrerequisites();
    makeMissingDirectory(lockDirectory(), report);
    const kavro::MKLock lock(kStoresLock, kavro::MKLock::kHashedName, kavro::MKLock::kWait);
    makeStoreDirectories(report);
}

void makeMissingStores(std::ostream& report) {
    checkPrerequisites();
    // The lock lives in the first directory, so that one is made without it.
    makeMissingDirectory(lockDirectory(), report);
    const kavro::MKLock lock(kStoresLock, kavro::MKLock::kHashedName, kavro::MKLock::kWait);
    makeStoreDirectories(report);
    makeMissingLookupTables(report);
    makeMissingAuthDatabase(report);
    makeMissingHandlersDatabase(report);
}

}  // namespace mxrepair
