// Where the handlers database is, its schema, its creation, and who may read it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "handlers/handlers_database.h"
#include "process/retry.h"
#include "util/accounts.h"
#include "util/log.h"

namespace {

constexpr const char* kLabel = "mail handlers";

// Executed in one call, on an existing file too: the first CREATE TABLE then fails and the transaction with it.
// "constaraint" is kept: it is the name in every database that exists.
constexpr const char* kSchema =
    "BEGIN TRANSACTION;"
    "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, "
    "context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, "
    "CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, executable, context));"
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);"
    "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);"
    "CREATE INDEX idx3 ON handlers(name, queue, type, address);"
    "CREATE INDEX idx4 ON handlers(name, queue, type);"
    "COMMIT;";

/// The group that reads the database: the mail system's filters run in it.
constexpr const char* kReaders = "popuser";
constexpr mode_t kMode = 0640;

}  // namespace

const char* mh_db_path = "/var/lib/kavro/mail/handlers/handlers.db";

void mh_db_path_set(const char* path) {
    static std::string current;  // outlives every use of the pointer
    current = path;
    mh_db_path = current.c_str();
}

int mh_db_create_no_set_permissions() {
    if (sqlite_create_db_path(mh_db_path, kLabel) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to create directory for mail handlers database for(%s): %s", mh_db_path,
                  std::strerror(errno));
        return -1;
    }
    return sqlite_db_create(mh_db_path, kSchema, kLabel);
}

int mh_db_create() {
    if (mh_db_create_no_set_permissions() != 0) {
        return -1;
    }
    // Half-made is worse than absent: the next attempt would fail on the tables that are there.
    if (fix_mh_db_permissions(mh_db_path) != 0) {
        kavro::retryInterrupted([] { return ::unlink(mh_db_path); });
        return -1;
    }
    return 0;
}

int fix_mh_db_permissions(const char* path) {
    gid_t readers = 0;
    if (kavro_getgr(kReaders, &readers) != 0) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to get mail handlers group uid: %s", std::strerror(errno));
        return -1;
    }
    // Owner before mode: the mode must never apply to the group that the file had before.
    if (kavro::retryInterrupted([&] { return ::chown(path, 0, readers); }) != 0) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to set owner on %s: %s", path, std::strerror(errno));
        return -1;
    }
    if (kavro::retryInterrupted([&] { return ::chmod(path, kMode); }) != 0) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to set permissions on %s: %s", path, std::strerror(errno));
        return -1;
    }
    return 0;
}
