// Running one statement of the handlers database, with its messages. Not for other folders.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <variant>

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

/// An address in the case in which addresses are stored, for statements that compare without LOWER. Null stays null.
class StoredAddress {
public:
    explicit StoredAddress(const char* address);
    const char* get() const noexcept { return given_ ? text_.c_str() : nullptr; }

private:
    bool given_;
    std::string text_;
};

}  // namespace kavro::handlers
