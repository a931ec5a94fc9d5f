// How operations get at the authentication database; looking a domain up, and making its row when a mailbox needs it.
#include "auth/auth_statement.h"

#include "auth/auth_paths.h"
#include "util/log.h"

namespace kavro::auth {

bool openForWriting(SqliteConnection& connection) {
    if (connection.open(mailAuthDB, SqliteConnection::Access::ReadWriteCreate)) {
        return true;
    }
    kavro_log(KAVRO_LOG_ERROR, "Unable to open database %s: %s", mailAuthDB, connection.errorText());
    return false;
}

bool openForReading(SqliteConnection& connection) {
    if (connection.open(mailAuthDB, SqliteConnection::Access::ReadOnly)) {
        return true;
    }
    kavro_log(KAVRO_LOG_ERROR, "Unable to open database(readonly) %s: %s", mailAuthDB, connection.errorText());
    return false;
}

}  // namespace kavro::auth

using kavro::SqliteConnection;
using kavro::SqliteStatement;

namespace {

constexpr const char* kSelect = "SELECT id FROM domains WHERE name=LOWER(?)";
constexpr const char* kInsert = "INSERT INTO domains (name, status) VALUES(LOWER(?), ?)";

int report_failure(const SqliteConnection& connection) {
    kavro_log(KAVRO_LOG_ERROR, "Unable to execute the domain selection query: %s", connection.errorText());
    return -1;
}

/// 1 when the row was made, 0 when another process made it first, -1, logged, on failure.
int insert_domain(const char* domain, SqliteConnection& connection, int status) {
    SqliteStatement statement(connection);
    if (!statement.prepare(kInsert)) {
        return report_failure(connection);
    }
    if (!statement.bind(1, domain)) {
        kavro_log(KAVRO_LOG_ERROR, kavro::auth::kBindDomainName, domain, kInsert, connection.errorText());
        return -1;
    }
    if (!statement.bind(2, static_cast<sqlite3_int64>(status))) {
        kavro_log(KAVRO_LOG_ERROR, kavro::auth::kBindDomainStatus, status, domain, kInsert, connection.errorText());
        return -1;
    }
    const int result = statement.step();
    if (result == SQLITE_DONE) {
        return 1;
    }
    // The low byte is the primary code of an extended one.
    return (result & 0xFF) == SQLITE_CONSTRAINT ? 0 : report_failure(connection);
}

}  // namespace

namespace kavro::auth {

int findDomain(const char* domain, SqliteConnection& connection, sqlite3_int64* id) {
    SqliteStatement statement(connection);
    if (!statement.prepare(kSelect)) {
        return report_failure(connection);
    }
    if (!statement.bind(1, domain)) {
        kavro_log(KAVRO_LOG_ERROR, kBindDomainName, domain, kSelect, connection.errorText());
        return -1;
    }
    switch (statement.step()) {
        case SQLITE_ROW:
            *id = statement.number(0);
            return 1;
        case SQLITE_DONE:
            return 0;
        default:
            return report_failure(connection);
    }
}

}  // namespace kavro::auth

sqlite3_int64 getDomainId(const char* domain, SqliteConnection& connection, int flags) {
    sqlite3_int64 id = -1;
    const int found = kavro::auth::findDomain(domain, connection, &id);
    if (found != 0 || (flags & kOnlyLook) != 0) {
        return found == 1 ? id : -1;
    }
    switch (insert_domain(domain, connection, flags != 0 ? 1 : 0)) {
        case 1:
            return connection.lastInsertId();
        case 0:
            return kavro::auth::findDomain(domain, connection, &id) == 1 ? id : -1;
        default:
            return -1;
    }
}
