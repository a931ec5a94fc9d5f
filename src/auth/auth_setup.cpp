// Creation of database and key, and their owners and modes.
#include "auth/auth_setup.h"

#include <fcntl.h>
#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "auth/auth_paths.h"
#include "auth/auth_schema.h"
#include "auth/password_cipher.h"
#include "auth/secret.h"
#include "process/descriptors.h"
#include "process/retry.h"
#include "util/accounts.h"
#include "util/c_file.h"
#include "util/directory_tree.h"
#include "util/errno_keeper.h"
#include "util/log.h"
#include "util/sqlite_connection.h"

namespace {

constexpr const char* kDatabaseGroup = "nofiles";
constexpr const char* kPostfixUser = "postfix";
constexpr mode_t kNewDirectoryMode = 0755;  // of missing parents too, which others must be able to pass
constexpr mode_t kKeyFileMask = 077;

/// Owners and modes that belong to one style.
struct Access {
    uid_t owner;
    gid_t group;
    mode_t mode;
    gid_t directoryGroup;
    mode_t directoryMode;
    mode_t keyMode;
};

/// The process file mask for one scope.
class FileMask {
public:
    explicit FileMask(mode_t mask) : former_(::umask(mask)) {}
    FileMask(const FileMask&) = delete;
    FileMask& operator=(const FileMask&) = delete;
    ~FileMask() { ::umask(former_); }

private:
    mode_t former_;
};

std::string directoryOf(const char* path) {
    std::string copy(path);
    return ::dirname(copy.data());
}

/// Creates the directory of a database or key with all missing parents. 0, or -1, logged.
int createDBPath(const char* path) try {
    const std::string directory = directoryOf(path);
    if (make_dir_p(directory.c_str(), kNewDirectoryMode, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "recursive mkdir(%s) failed: %s", directory.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
} catch (const std::bad_alloc&) {
    kavro_log(KAVRO_LOG_CRITICAL, "Memory allocation error");
    return -1;
}

/// Owner and group, then mode. 0, or -1, logged. `how` is of open(2): the database's directory belongs to its owner,
/// who could put a link in the place of a file there. No connection to the database may be open: closing any descriptor
/// of a file gives up all locks that the process has on it.
int setAccess(const char* path, int how, uid_t owner, gid_t group, mode_t mode) {
    kavro::QuietFdOwner file(
        kavro::retryInterrupted([&] { return ::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | how); }));
    if (file.empty() || ::fchown(file.get(), owner, group) == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "chown(\"%s\", %d, %d) failed: %s", path, static_cast<int>(owner),
                  static_cast<int>(group), std::strerror(errno));
        return -1;
    }
    const int changed = ::fchmod(file.get(), mode);
    if (changed == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "chmod(\"%s\", %04o) failed: %s", path, static_cast<unsigned>(mode),
                  std::strerror(errno));
    }
    return changed;
}

/// Who owns what in the style. 0, or -1 for a missing account.
int findAccess(int style, Access* access) {
    if (style == 0) {
        gid_t group = 0;
        if (kavro_getgr(kDatabaseGroup, &group) == -1) {
            return -1;
        }
        *access = {0, group, 0640, group, 0750, 0440};
    } else if (style == 1) {
        errno = ENOENT;  // the reason when the look-up itself gives none
        const struct passwd* postfix = ::getpwnam(kPostfixUser);
        if (postfix == nullptr) {
            kavro_log(KAVRO_LOG_CRITICAL, "Unable to get user id for \"%s\": %s", kPostfixUser, std::strerror(errno));
            return -1;
        }
        // Kept: the owner may only read, the group writes.
        *access = {postfix->pw_uid, 0, 0460, postfix->pw_gid, 0770, 0440};
    } else {
        *access = {0, 0, 0600, 0, 0750, 0400};
    }
    return 0;
}

/// Writes a new key file and closes it. False with errno on failure; no part of a key is left then.
bool writeKey(const std::array<unsigned char, MAIL_AES_KEY_SIZE>& key) {
    const FileMask mask(kKeyFileMask);
    kavro::CFile file(std::fopen(mailAuthKey, "wbxe"));
    if (file == nullptr) {
        return false;
    }
    // Without a buffer no memory of the stream's gets to hold the key.
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    bool written = std::fwrite(key.data(), key.size(), 1, file.get()) == 1 && ::fsync(::fileno(file.get())) == 0;
    if (std::fclose(file.release()) != 0) {
        written = false;
    }
    if (!written) {
        const kavro::ErrnoKeeper reason;
        ::unlink(mailAuthKey);
    }
    return written;
}

}  // namespace

int mailAuthDBInitStyle(int style) {
    mailAuthDBSelectStyle(style);
    Access access{};
    // Before anything is replaced: a missing account must not cost the former database.
    if (findAccess(style, &access) == -1) {
        return -1;
    }
    if (mailAuthDBInit() == -1 || mailAuthKeyInit() == -1 ||
        mailAuthDBSetAccess(access.owner, access.group, access.mode, access.owner, access.directoryGroup,
                            access.directoryMode) == -1) {
        return -1;
    }
    return mailAuthKeySetAccess(access.owner, access.group, access.keyMode);
}

int mailAuthDBInit() {
    if (createDBPath(mailAuthDB) == -1) {
        return -1;
    }
    ::unlink(mailAuthDB);
    kavro::SqliteConnection connection;
    if (!connection.open(mailAuthDB, kavro::SqliteConnection::Access::kReadWriteCreate)) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to open database %s: %s", mailAuthDB, connection.errorText());
        return -1;
    }
    if (connection.execute(mailAuthDBSchema)) {
        return 0;
    }
    if (::sqlite3_errcode(connection.get()) == SQLITE_OK) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create Mail Authentication Database");
    } else {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create Mail Authentication Database: %s", connection.errorText());
    }
    return -1;
}

int mailAuthKeyInit() {
    if (createDBPath(mailAuthKey) == -1) {
        return -1;
    }
    ::unlink(mailAuthKey);
    std::array<unsigned char, MAIL_AES_KEY_SIZE> key{};
    const kavro::auth::ScopedWipe wipeKey(key);
    if (mail_aes_gen_key(key.data(), key.size()) == 0) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to generate new Mail Authentication Password Encryption Key data: %s",
                  std::strerror(errno));
        return -1;
    }
    if (!writeKey(key)) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create Mail Authentication Password Encryption Key: %s",
                  std::strerror(errno));
        return -1;
    }
    return 0;
}

int mailAuthDBSetAccess(uid_t owner, gid_t group, mode_t mode, uid_t dir_owner, gid_t dir_group, mode_t dir_mode) {
    const std::string directory = directoryOf(mailAuthDB);
    if (directory.size() < 2 || directory.front() != '/') {
        kavro_log(KAVRO_LOG_CRITICAL, "Invalid mail authentication DB path %s", mailAuthDB);
        return -1;
    }
    if (setAccess(directory.c_str(), O_DIRECTORY, dir_owner, dir_group, dir_mode) == -1) {
        return -1;
    }
    return setAccess(mailAuthDB, O_NOFOLLOW, owner, group, mode);
}

int mailAuthKeySetAccess(uid_t owner, gid_t group, mode_t mode) {
    return setAccess(mailAuthKey, O_NOFOLLOW, owner, group, mode);
}
