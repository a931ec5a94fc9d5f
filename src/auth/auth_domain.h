// Domain rows of the authentication database.
#pragma once

#include "util/sqlite_connection.h"

/// Flag of getDomainId: look only.
inline constexpr int MAIL_AUTH_NO_CREATE = 8;

/// The domain's id on an open connection. A missing row is made, with status 1 when `flags` is not 0, unless flag bit 3
/// is set. -1 for a missing row that is not to be made and, logged, on failure.
sqlite3_int64 getDomainId(const char* domain, kavro::SqliteConnection& connection, int flags);

namespace kavro::auth {

/// Looks for the domain's row. 1 and the id, 0 when there is none, -1, logged, on failure.
int findDomain(const char* domain, SqliteConnection& connection, sqlite3_int64* id);

}  // namespace kavro::auth
