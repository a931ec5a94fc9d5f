// SQLite access for both databases: a connection and a statement that clean up after themselves, and the one busy
// handling. SQLite waits 50 ms by itself; beyond that a call is repeated for as long as the database is busy, after a
// sleep that grows by 10 microseconds each time.
#pragma once

#include <sqlite3.h>

#include <string>

namespace kavro {

/// Stands in for SQLite's text when there is no connection. Kept: callers match this text.
inline constexpr const char* kGeneralDbError = "general DB errror";

/// An open database, or none. Not copyable. The destructor closes, however long it takes.
class SqliteConnection {
public:
    enum class Access { ReadOnly, ReadWrite, ReadWriteCreate };

    SqliteConnection() = default;
    SqliteConnection(const SqliteConnection&) = delete;
    SqliteConnection& operator=(const SqliteConnection&) = delete;
    ~SqliteConnection();

    /// Opens the file, never through a link in its place. False on failure; errorText() tells why. What a killed writer
    /// left half-done is rolled back by the first statement, for a reader by a short connection for writing.
    bool open(const char* path, Access access);
    /// Executes a script. False on failure.
    bool execute(const char* script);
    /// SQLite's text for the last failure, or kGeneralDbError.
    const char* errorText() const;
    sqlite3_int64 lastInsertId() const;
    /// The library's handle; null when not open.
    sqlite3* get() const noexcept { return open_ ? handle_ : nullptr; }
    bool isOpen() const noexcept { return open_; }
    /// Closes, repeating while busy, and finalises statements of the library's that are left; SqliteStatement objects
    /// must be gone. Does nothing when not open.
    void close();

private:
    sqlite3* handle_ = nullptr;  ///< also that of a failed open, for its text
    std::string path_;           ///< as it was given, with access_: for whoever opens it next
    Access access_ = Access::ReadOnly;
    bool open_ = false;
};

/// While it lives, what is closed stays ready behind the scenes, without any lock, for the next who opens the same
/// file: reading and parsing the schema anew costs more than most statements. A connection is handed over only while
/// its file still stands under its name, and never within a transaction or after a failure. The destructor closes and
/// wipes them all. One at a time.
class KeptConnections {
public:
    KeptConnections() noexcept;
    KeptConnections(const KeptConnections&) = delete;
    KeptConnections& operator=(const KeptConnections&) = delete;
    ~KeptConnections();
};

/// A prepared statement; finalised in the destructor. The connection must outlive it.
class SqliteStatement {
public:
    explicit SqliteStatement(SqliteConnection& connection) : connection_(connection) {}
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;
    ~SqliteStatement();

    /// False on failure (of which the connection knows the text).
    bool prepare(const char* sql);
    /// Binds by position, from 1. A null text binds NULL. The text is not copied: it must stay unchanged until the
    /// statement is stepped for the last time or the position is bound anew. False on failure.
    bool bind(int position, const char* text);
    bool bind(int position, sqlite3_int64 number);
    bool bind(int position, int number);
    /// SQLITE_ROW, SQLITE_DONE or an error code; never SQLITE_BUSY.
    int step();
    /// Back to before the first step; what is bound stays and may be bound anew.
    void reset();
    /// Columns of the current row, from 0. A NULL column is a null pointer; texts live until the next step.
    const char* text(int column) const;
    sqlite3_int64 number(int column) const;

private:
    SqliteConnection& connection_;
    sqlite3_stmt* handle_ = nullptr;
};

}  // namespace kavro

/// Creates the directory of a database with all parents; `label` names the database in messages. 0, or -1, logged.
int sqlite_create_db_path(const char* path, const char* label);
/// Opens (creating) the database and executes the schema script. 0, or -1, logged.
int sqlite_db_create(const char* path, const char* script, const char* label);
