// Both files are made whole under other names, with owner and mode, and then renamed into place.
#include "auth/auth_setup.h"

#include <fcntl.h>
#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "auth/auth_paths.h"
#include "auth/password_cipher.h"
#include "auth/secret.h"
#include "process/descriptors.h"
#include "process/retry.h"
#include "util/accounts.h"
#include "util/directory_tree.h"
#include "util/file_io.h"
#include "util/log.h"
#include "util/sqlite_connection.h"

namespace {

constexpr const char* kDatabaseGroup = "nofiles";
constexpr const char* kPostfixUser = "postfix";
constexpr mode_t kNewDirectoryMode = 0755;  // of missing parents too, which others must be able to pass
constexpr mode_t kKeyFileMode = 0600;
constexpr const char* kJournalSuffix = "-journal";

/// Owners and modes that belong to one style.
struct Access {
    uid_t owner;
    gid_t group;
    mode_t mode;
    gid_t directoryGroup;
    mode_t directoryMode;
    mode_t keyMode;
};

/// The name that a file has until it is whole.
std::string draft_of(const std::string& path) {
    return path + ".new";
}

void remove_file(const char* path) {
    kavro::retryInterrupted([path] { return ::unlink(path); });
}

std::string directory_of(const char* path) {
    std::string copy(path);
    return ::dirname(copy.data());
}

/// Creates the directory of a database or key with all missing parents. 0, or -1, logged.
int create_db_path(const char* path) try {
    const std::string directory = directory_of(path);
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
int set_access(const char* path, int how, uid_t owner, gid_t group, mode_t mode) {
    kavro::QuietFdOwner file(
        kavro::retryInterrupted([&] { return ::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | how); }));
    if (file.empty() || kavro::retryInterrupted([&] { return ::fchown(file.get(), owner, group); }) == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "chown(\"%s\", %d, %d) failed: %s", path, static_cast<int>(owner),
                  static_cast<int>(group), std::strerror(errno));
        return -1;
    }
    const int changed = kavro::retryInterrupted([&] { return ::fchmod(file.get(), mode); });
    if (changed == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "chmod(\"%s\", %04o) failed: %s", path, static_cast<unsigned>(mode),
                  std::strerror(errno));
    }
    return changed;
}

/// Who owns what in the style. 0, or -1 for a missing account.
int find_access(int style, Access* access) {
    if (style == 0) {
        gid_t group = 0;
        if (kavro_getgr(kDatabaseGroup, &group) == -1) {
            return -1;
        }
        *access = {0, group, 0640, group, 0750, 0440};
    } else if (style == 1) {
        const passwd* postfix = find_user(kPostfixUser);
        if (postfix == nullptr) {
            kavro_log(KAVRO_LOG_CRITICAL, "Unable to get user id for \"%s\": %s", kPostfixUser,
                      std::strerror(errno == 0 ? ENOENT : errno));
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
bool write_key(const std::array<unsigned char, kMailAesKeySize>& key) {
    kavro::QuietFdOwner file(kavro::openRegular(mailAuthKey, O_WRONLY | O_CREAT | O_EXCL, kKeyFileMode));
    if (file.empty()) {
        return false;
    }
    const bool written =
        kavro::writeAll(file.get(), reinterpret_cast<const char*>(key.data()), key.size()) == key.size() &&
        kavro::retryInterrupted([&] { return ::fsync(file.get()); }) == 0 && file.close_nothrow() == 0;
    if (!written) {
        const kavro::ErrnoKeeper reason;
        remove_file(mailAuthKey);
    }
    return written;
}

/// Database and key under the names that they have until they are whole. The paths lead to these for as long as it
/// lives; what was not put in place is removed in the end.
class Drafts {
public:
    Drafts() : database_(mailAuthDB), key_(mailAuthKey) {
        kavro::auth::removeDrafts();
        mailAuthDBSetPath(draft_of(database_).c_str());
        mailAuthKeySetPath(draft_of(key_).c_str());
    }
    Drafts(const Drafts&) = delete;
    Drafts& operator=(const Drafts&) = delete;
    ~Drafts() {
        const kavro::ErrnoKeeper keeper;
        mailAuthDBSetPath(database_.c_str());
        mailAuthKeySetPath(key_.c_str());
        kavro::auth::removeDrafts();
    }

    /// The database comes last: an empty one beside a key can be told from a lost one. Its former journal would be
    /// rolled back into the new one.
    int putInPlace(bool withKey) {
        if (withKey && renameFile(mailAuthKey, key_) == -1) {
            return -1;
        }
        remove_file((database_ + kJournalSuffix).c_str());
        return renameFile(mailAuthDB, database_);
    }

private:
    static int renameFile(const char* from, const std::string& to) {
        const int result = kavro::retryInterrupted([&] { return ::rename(from, to.c_str()); });
        if (result == -1) {
            kavro_log(KAVRO_LOG_CRITICAL, "rename(\"%s\", \"%s\") failed: %s", from, to.c_str(), std::strerror(errno));
        }
        return result;
    }

    const std::string database_;
    const std::string key_;
};

/// Database, and key if wanted, of a style: made, given their owners and modes, put in place. 0, or -1, logged.
int initialise(int style, bool withKey) try {
    mailAuthDBSelectStyle(style);
    Access access{};
    // Before anything is made: a missing account must not cost the former database.
    if (find_access(style, &access) == -1) {
        return -1;
    }
    Drafts drafts;
    if (mailAuthDBInit() == -1 || (withKey && mailAuthKeyInit() == -1) ||
        mailAuthDBSetAccess(access.owner, access.group, access.mode, access.owner, access.directoryGroup,
                            access.directoryMode) == -1 ||
        (withKey && mailAuthKeySetAccess(access.owner, access.group, access.keyMode) == -1)) {
        return -1;
    }
    return drafts.putInPlace(withKey);
} catch (const std::bad_alloc&) {
    kavro_log(KAVRO_LOG_CRITICAL, "Memory allocation error");
    return -1;
}

}  // namespace

int mailAuthDBInitStyle(int style) {
    return initialise(style, true);
}

int kavro::auth::initDatabaseBesideKey(int style) {
    return initialise(style, false);
}

void kavro::auth::removeDrafts() {
    const std::string database = draft_of(mailAuthDB);
    remove_file(draft_of(mailAuthKey).c_str());
    remove_file((database + kJournalSuffix).c_str());
    remove_file(database.c_str());
}

int mailAuthDBInit() {
    if (create_db_path(mailAuthDB) == -1) {
        return -1;
    }
    remove_file(mailAuthDB);
    remove_file((mailAuthDB + std::string(kJournalSuffix)).c_str());
    kavro::SqliteConnection connection;
    if (!connection.open(mailAuthDB, kavro::SqliteConnection::Access::ReadWriteCreate)) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to open database %s: %s", mailAuthDB, connection.errorText());
        return -1;
    }
    if (connection.execute(kMailAuthSchema)) {
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
    if (create_db_path(mailAuthKey) == -1) {
        return -1;
    }
    remove_file(mailAuthKey);
    std::array<unsigned char, kMailAesKeySize> key{};
    const kavro::auth::ScopedWipe wipeKey(key);
    if (mail_aes_gen_key(key.data(), key.size()) == 0) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to generate new Mail Authentication Password Encryption Key data: %s",
                  std::strerror(errno));
        return -1;
    }
    if (!write_key(key)) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create Mail Authentication Password Encryption Key: %s",
                  std::strerror(errno));
        return -1;
    }
    return 0;
}

int mailAuthDBSetAccess(uid_t owner, gid_t group, mode_t mode, uid_t dir_owner, gid_t dir_group, mode_t dir_mode) {
    const std::string directory = directory_of(mailAuthDB);
    if (directory.size() < 2 || directory.front() != '/') {
        kavro_log(KAVRO_LOG_CRITICAL, "Invalid mail authentication DB path %s", mailAuthDB);
        return -1;
    }
    if (set_access(directory.c_str(), O_DIRECTORY, dir_owner, dir_group, dir_mode) == -1) {
        return -1;
    }
    return set_access(mailAuthDB, O_NOFOLLOW, owner, group, mode);
}

int mailAuthKeySetAccess(uid_t owner, gid_t group, mode_t mode) {
    return set_access(mailAuthKey, O_NOFOLLOW, owner, group, mode);
}

// As other programs of the panel know it, blanks included: SQLite keeps a statement as it was written.
const char* const kMailAuthSchema =
    "BEGIN TRANSACTION;"
    "CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE, "
    "status INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX domains_name ON domains(name);"
    "CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN    "
    "DELETE FROM users WHERE dom_id = OLD.id;  END;"
    "CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, dom_id       INTEGER NOT NULL, "
    "name         VARCHAR(255) NOT NULL, userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), "
    "status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id));"
    "CREATE INDEX users_name ON users(name);"
    "CREATE INDEX users_dom_id ON users(dom_id);"
    "CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN    "
    "SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint \"fk_domains_id\"')    "
    "WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN    "
    "SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint \"fk_domains_id\"')    "
    "WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END;"
    "COMMIT;";
