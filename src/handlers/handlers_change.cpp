// Adding, removing and switching handlers: one statement each.
//
// Addresses are stored in lower case. A statement that has no LOWER of its own gets its address lowered here, as
// callers pass names in the case in which they were typed.
#include "handlers/handlers_database.h"
#include "handlers/handlers_statements.h"

using kavro::SqliteConnection;
using kavro::handlers::run_change;
using kavro::handlers::StoredAddress;
using kavro::handlers::update;

namespace {

constexpr const char* kInsertBindFailure = "Unable to bind parameter %s to the 'INSERT' query: %s";
constexpr const char* kActionBindFailure = "Unable to bind parameter %s to query: %s";
constexpr const char* kInsertFailure = "Unable to execute insert record into handlers database: %s";
constexpr const char* kDeleteFailure = "Unable to execute delete record from handlers database: %s";
constexpr const char* kActionFailure = "Unable to execute do action on handlers database: %s";

/// Runs a statement with one parameter.
int mh_db_action(const char* sql, const char* value) {
    return run_change(nullptr, {sql, kActionBindFailure, kActionFailure}, {{"param", value}});
}

}  // namespace

int mh_db_add(SqliteConnection* connection, const mh_data* record) {
    const char* address = record->address;
    if (record->type == kGlobalHandlerType) {
        address = validate_global_handler_recipient(address);
        if (address == nullptr) {
            return -1;
        }
    }
    return run_change(connection,
                      {"INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, "
                       "protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)",
                       kInsertBindFailure, kInsertFailure},
                      {{"'priority'", record->priority},
                       {"'name'", record->name},
                       {"'type'", record->type},
                       {"'address'", address},
                       {"'queue'", record->queue},
                       {"'executable'", record->executable},
                       {"'context'", record->context == nullptr ? "none" : record->context},
                       {"'protect_on_restore'", record->protect_on_restore},
                       {"'enabled'", record->enabled}});
}

int kavro::handlers::remove_record(SqliteConnection* connection, const mh_data* record) {
    if (record->address == nullptr) {
        return run_change(connection,
                          {"DELETE FROM handlers WHERE name=? AND type=? AND queue=?", nullptr, kDeleteFailure},
                          {{"'name'", record->name}, {"'type'", record->type}, {"'queue'", record->queue}});
    }
    return run_change(
        connection,
        {"DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?", nullptr, kDeleteFailure},
        {{"'name'", record->name},
         {"'type'", record->type},
         {"'address'", record->address},
         {"'queue'", record->queue}});
}

int mh_db_remove_addr(const char* address) {
    return mh_db_action("DELETE FROM handlers WHERE address=?", StoredAddress(address).get());
}

int mh_db_remove_name(const char* name) {
    return mh_db_action("DELETE FROM handlers WHERE name=?", name);
}

int mh_db_switch_by_addr(const char* address, int enabled) {
    return run_change(nullptr, update("UPDATE OR REPLACE handlers SET enabled=? WHERE address=?"),
                      {{"'enabled'", enabled}, {"'address'", StoredAddress(address).get()}});
}
