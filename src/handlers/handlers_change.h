// Changes of the handlers database that only this folder makes.
#pragma once

#include "handlers/handler_record.h"
#include "util/sqlite_connection.h"

namespace kavro::handlers {

/// Removes the handlers with the record's name, type, address and queue: an operation for mh_db_do.
int remove_record(SqliteConnection* connection, const mh_data* record);

}  // namespace kavro::handlers
