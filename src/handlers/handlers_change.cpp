// Adding, removing, switching and moving handlers: one statement each.
//
// Addresses are stored in lower case. A statement that has no LOWER of its own gets its address lowered here, as
// callers pass names in the case in which they were typed. UPDATE OR REPLACE lets a changed handler take the place of
// one that it has become equal to, where a plain UPDATE would fail on the key.
#include "handlers/handlers_database.h"
#include "handlers/handlers_statements.h"

using kavro::SqliteConnection;
using kavro::handlers::Parameter;
using kavro::handlers::StatementTexts;
using kavro::handlers::StoredAddress;

namespace {

constexpr const char* kInsertBindFailure = "Unable to bind parameter %s to the 'INSERT' query: %s";
constexpr const char* kUpdateBindFailure = "Unable to bind parameter %s to the 'UPDATE' query: %s";
constexpr const char* kActionBindFailure = "Unable to bind parameter %s to query: %s";
constexpr const char* kInsertFailure = "Unable to execute insert record into handlers database: %s";
constexpr const char* kDeleteFailure = "Unable to execute delete record from handlers database: %s";
constexpr const char* kUpdateFailure = "Unable to execute update record into handlers database: %s";
constexpr const char* kActionFailure = "Unable to execute do action on handlers database: %s";

/// An UPDATE with the texts that all of them share.
constexpr StatementTexts update(const char* sql) {
    return {sql, kUpdateBindFailure, kUpdateFailure};
}

/// Runs a statement that gives no rows.
int run_change(SqliteConnection* connection, const StatementTexts& texts, std::initializer_list<Parameter> parameters) {
    return run_statement(connection, SqliteConnection::Access::kReadWriteCreate, texts, parameters);
}

/// mh_db_remove on a given connection; null: one of its own.
int remove_on(SqliteConnection* connection, const char* name, int type, const char* address, int queue) {
    if (address == nullptr) {
        return run_change(connection,
                          {"DELETE FROM handlers WHERE name=? AND type=? AND queue=?", nullptr, kDeleteFailure},
                          {{"'name'", name}, {"'type'", type}, {"'queue'", queue}});
    }
    return run_change(
        connection,
        {"DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?", nullptr, kDeleteFailure},
        {{"'name'", name}, {"'type'", type}, {"'address'", address}, {"'queue'", queue}});
}

/// Runs a statement with one parameter.
int mh_db_action(const char* sql, const char* value) {
    return run_change(nullptr, {sql, kActionBindFailure, kActionFailure}, {{"param", value}});
}

}  // namespace

int mh_db_add(SqliteConnection* connection, const mh_data* record) {
    const char* address = record->address;
    if (record->type == MH_TYPE_GLOBAL) {
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

int mh_db_remove(const char* name, int type, const char* address, int queue) {
    return remove_on(nullptr, name, type, address, queue);
}

int kavro::handlers::remove_record(SqliteConnection* connection, const mh_data* record) {
    return remove_on(connection, record->name, record->type, record->address, record->queue);
}

int mh_db_remove_addr(const char* address) {
    return mh_db_action("DELETE FROM handlers WHERE address=?", StoredAddress(address).get());
}

int mh_db_remove_name(const char* name) {
    return mh_db_action("DELETE FROM handlers WHERE name=?", name);
}

int mh_db_switch(const char* name, int type, int queue, const char* address, int enabled) {
    if (address == nullptr) {
        return run_change(nullptr,
                          update("UPDATE OR REPLACE handlers SET enabled=? WHERE name=? AND type=? AND queue=?"),
                          {{"'enabled'", enabled}, {"'name'", name}, {"'type'", type}, {"'queue'", queue}});
    }
    return run_change(
        nullptr, update("UPDATE OR REPLACE handlers SET enabled=? WHERE name=? AND type=? AND queue=? AND address=?"),
        {{"'enabled'", enabled},
         {"'name'", name},
         {"'type'", type},
         {"'queue'", queue},
         {"'address'", StoredAddress(address).get()}});
}

int mh_db_enable(const char* name, int type, int queue, const char* address) {
    return mh_db_switch(name, type, queue, address, 1);
}

int mh_db_disable(const char* name, int type, int queue, const char* address) {
    return mh_db_switch(name, type, queue, address, 0);
}

int mh_db_switch_by_name(const char* name, int enabled) {
    return run_change(nullptr, update("UPDATE OR REPLACE handlers SET enabled=? WHERE name=?"),
                      {{"'enabled'", enabled}, {"'name'", name}});
}

int mh_db_switch_by_addr(const char* address, int enabled) {
    return run_change(nullptr, update("UPDATE OR REPLACE handlers SET enabled=? WHERE address=?"),
                      {{"'enabled'", enabled}, {"'address'", StoredAddress(address).get()}});
}

int mh_db_move_addr(const char* old_address, const char* new_address) {
    // New before old: the order in which the statement has them.
    return run_change(
        nullptr, update("UPDATE OR REPLACE handlers SET address=? WHERE address=?"),
        {{"new 'address'", StoredAddress(new_address).get()}, {"old 'address'", StoredAddress(old_address).get()}});
}
