// The part of this floor's contract that no command of ours calls; other programs of the panel do: listing handlers,
// removing, switching and moving them one by one.
//
// Rows become records without a copy of their texts; storing them in a list makes the one copy that lasts.
#include "handlers/handlers_database.h"
#include "handlers/handlers_statements.h"
#include "util/log.h"

using kavro::SqliteConnection;
using kavro::SqliteStatement;
using kavro::handlers::borrow_text;
using kavro::handlers::ListOwner;
using kavro::handlers::run_change;
using kavro::handlers::run_statement;
using kavro::handlers::save_row;
using kavro::handlers::select_by_fragment;
using kavro::handlers::StoredAddress;
using kavro::handlers::update;

namespace {

/// Hands rows on to the caller's list. They were stored at the head one by one, so the last comes first; storing them
/// at the head once more puts the first one first again.
int hand_on(const mh_list& rows, mh_list* list) {
    for (const mh_list_node* node = rows.head; node != nullptr; node = node->next) {
        if (mh_list_add(list, node->data) != 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

int mh_db_select(int queue, int type, const char* address, mh_list* list) {
    if (type == kGlobalHandlerType) {
        const char* recipient = kavro::handlers::global_recipient(address);
        if (recipient == nullptr) {
            kavro_log(KAVRO_LOG_ERROR, "Incorrect recipient address for global handler `%s', expected [NULL|%s|%s]",
                      address, kavro::handlers::kAll, kavro::handlers::kAllRecipients);
            return -1;
        }
        address = recipient;
    }
    // The query answers only what it does not know already; the rest of each record comes from the arguments.
    const StoredAddress stored(address);
    const ListOwner rows(mh_list_init());
    const auto read_row = [&](const SqliteStatement& row) {
        mh_data record;
        mh_data_init_ex(&record);
        record.queue = queue;
        record.type = type;
        record.enabled = 1;
        record.address = const_cast<char*>(stored.get());
        record.executable = borrow_text(row, 0);
        record.context = borrow_text(row, 1);
        record.name = borrow_text(row, 2);
        return save_row(rows.get(), record);
    };
    if (rows == nullptr ||
        run_statement(nullptr, SqliteConnection::Access::ReadOnly,
                      {"SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND "
                       "address=? ORDER BY priority DESC",
                       nullptr, kavro::handlers::kReadFailure},
                      {{"queue", queue}, {"type", type}, {"enabled", 1}, {"address", stored.get()}}, read_row) != 0 ||
        hand_on(*rows, list) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to select mail handlers");
        return -1;
    }
    return 0;
}

int mh_db_select_by_name(const char* fragment, mh_list* list) {
    const ListOwner rows(mh_list_init());
    const auto keep_all = [](const char*) { return true; };
    if (rows == nullptr ||
        select_by_fragment(nullptr, SqliteConnection::Access::ReadOnly, fragment, keep_all, rows.get()) != 0) {
        return -1;
    }
    return hand_on(*rows, list);
}

int mh_db_remove(const char* name, int type, const char* address, int queue) {
    mh_data record;
    mh_data_init_ex(&record);
    record.name = const_cast<char*>(name);
    record.type = type;
    record.address = const_cast<char*>(address);
    record.queue = queue;
    return kavro::handlers::remove_record(nullptr, &record);
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

int mh_db_move_addr(const char* old_address, const char* new_address) {
    // New before old: the order in which the statement has them.
    return run_change(
        nullptr, update("UPDATE OR REPLACE handlers SET address=? WHERE address=?"),
        {{"new 'address'", StoredAddress(new_address).get()}, {"old 'address'", StoredAddress(old_address).get()}});
}
