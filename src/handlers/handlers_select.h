// Reading rows of the handlers database into lists. Not for other folders.
#pragma once

#include <functional>
#include <memory>

#include "handlers/handler_record.h"
#include "util/sqlite_connection.h"

namespace kavro::handlers {

struct ListDeleter {
    void operator()(mh_list* list) const { mh_list_free(list); }
};
using ListOwner = std::unique_ptr<mh_list, ListDeleter>;

/// A text of the current row as a record's field. It belongs to the row: the record is only good for copying.
char* borrow_text(const SqliteStatement& row, int column);
/// A record without address of a row whose columns begin with priority, type, queue and name, and hold executable,
/// context and enabled from `rest` on. Its texts are borrowed.
mh_data borrow_record(const SqliteStatement& row, int rest);
/// Stores a copy at the head of the list. 0, or -1, logged.
int save_row(mh_list* list, const mh_data& record);

/// Stores the handlers whose address contains the fragment and is accepted by `keep`, each at the head of the list. A
/// null connection: one of its own. 0, or -1, logged.
int select_by_fragment(SqliteConnection* connection, SqliteConnection::Access access, const char* fragment,
                       const std::function<bool(const char* address)>& keep, mh_list* list);

}  // namespace kavro::handlers
