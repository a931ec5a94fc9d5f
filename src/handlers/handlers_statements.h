// Running statements of the handlers database, with their messages, and reading their rows. Not for other folders.
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <variant>

#include "handlers/handler_record.h"
#include "util/sqlite_connection.h"

namespace kavro::handlers {

/// A statement and the texts of its failures.
struct StatementTexts {
    const char* sql;
    const char* bind_failure;  ///< takes the parameter's label and the reason; null: `failure` is logged instead
    const char* failure;       ///< takes the reason
};

/// One parameter of a statement, bound by its place in the list.
struct Parameter {
    const char* label;  ///< names it in the bind failure's message
    std::variant<const char*, sqlite3_int64> value;
};

/// Called for each row; an answer other than 0 ends the run with -1.
using RowReader = std::function<int(const SqliteStatement& row)>;

/// The caller's connection, opened if need be, or one that lives as long as this object.
class OperationConnection {
public:
    OperationConnection(SqliteConnection* given, SqliteConnection::Access access);
    SqliteConnection& get() noexcept { return connection_; }
    bool isOpen() const noexcept { return open_; }

private:
    SqliteConnection own_;
    SqliteConnection& connection_;
    bool open_;
};

/// Prepares, binds and runs a statement to its end; it is finalised on return, so no lock outlives the call outside a
/// transaction. A null connection: one of its own. 0, or -1, logged.
int run_statement(SqliteConnection* connection, SqliteConnection::Access access, const StatementTexts& texts,
                  std::initializer_list<Parameter> parameters, const RowReader& read_row = {});

/// An UPDATE with the texts that all of them share. UPDATE OR REPLACE lets a changed handler take the place of one that
/// it has become equal to, where a plain UPDATE would fail on the key.
constexpr StatementTexts update(const char* sql) {
    return {sql, "Unable to bind parameter %s to the 'UPDATE' query: %s",
            "Unable to execute update record into handlers database: %s"};
}
/// Runs a statement that gives no rows; else as run_statement.
int run_change(SqliteConnection* connection, const StatementTexts& texts, std::initializer_list<Parameter> parameters);

/// An address in the case in which addresses are stored, for statements that compare without LOWER. Null stays null.
class StoredAddress {
public:
    explicit StoredAddress(const char* address);
    const char* get() const noexcept { return given_ ? text_.c_str() : nullptr; }

private:
    bool given_;
    std::string text_;
};

struct ListDeleter {
    void operator()(mh_list* list) const { mh_list_free(list); }
};
using ListOwner = std::unique_ptr<mh_list, ListDeleter>;

/// Both queries for lists fail with this text; the callers add what they were about.
inline constexpr const char* kReadFailure = "Unable to get data from mail handlers database: %s";

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

/// Removes the handlers with the record's name, type, address (null: of every address) and queue: an operation for
/// mh_db_do.
int remove_record(SqliteConnection* connection, const mh_data* record);

}  // namespace kavro::handlers
