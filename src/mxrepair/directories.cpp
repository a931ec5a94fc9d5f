// Making of directories.
#include "mxrepair/directories.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>

#include "process/system_error.h"
#include "services/domain_keys.h"
#include "services/rename_plugins.h"
#include "util/accounts.h"
#include "util/config.h"
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
            const int saved = errno;
            ::rmdir(path_.c_str());
            errno = saved;
        }
    }
    void complete() noexcept { complete_ = true; }

private:
    const std::string& path_;
    bool complete_ = false;
};

}  // namespace

bool accountExists(const char* user) {
    return ::getpwnam(user) != nullptr;
}

Directory lockDirectory() {
    return {LOCK_FILES_D, kRoot, kOpenMode};
}

std::vector<Directory> storeDirectories() {
    return {
        {"/var/spool/postfix/kavro", kPostfixUser, 0770},
        {zcpConfGetDefaultByIndex(CONF_KAVRO_MAILNAMES_D), MAIL_USER, kOpenMode},
        {"/var/lib/kavro/mail/handlers", kRoot, kOpenMode},
        {DOMAINKEYS_D, kRoot, kOpenMode},
        {RENAME_PLUGINS_D, kRoot, kOpenMode},
    };
}

void makeMissingDirectory(const Directory& directory, std::ostream& report) {
    const std::string& path = directory.path;
    if (directoryExists(path)) {
        return;
    }
    makeMissingDirectory({parentOf(path), kRoot, kOpenMode}, report);
    if (::mkdir(path.c_str(), S_IRWXU) != 0) {
        // Another run may have made the directory of the lock files, which no lock protects.
        if (errno != EEXIST || !directoryExists(path)) {
            fail(path);
        }
        return;
    }
    NewDirectoryGuard guard(path);
    const uid_t owner = kavro_ugid(directory.user, 0);
    const gid_t group = kavro_ugid(directory.user, 1);
    if (::chown(path.c_str(), owner, group) != 0 || ::chmod(path.c_str(), directory.mode) != 0) {
        fail(path);
    }
    guard.complete();
    report << "created directory " << path << '\n';
}

}  // namespace mxrepair
