// How operations get at the authentication database.
#include "auth/auth_statement.h"

#include "auth/auth_paths.h"

namespace kavro::auth {

bool openForWriting(SqliteConnection& connection) {
    if (connection.open(mailAuthDB, SqliteConnection::Access::kReadWriteCreate)) {
        return true;
    }
    kavro_log(KAVRO_LOG_ERROR, "Unable to open database %s: %s", mailAuthDB, connection.errorText());
    return false;
}

bool openForReading(SqliteConnection& connection) {
    if (connection.open(mailAuthDB, SqliteConnection::Access::kReadOnly)) {
        return true;
    }
    kavro_log(KAVRO_LOG_ERROR, "Unable to open database(readonly) %s: %s", mailAuthDB, connection.errorText());
    return false;
}

}  // namespace kavro::auth
