// The connection, the statement, the one busy handling under both, and the creation of a database.
#include "util/sqlite_connection.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "util/c_memory.h"
#include "util/directory_tree.h"
#include "util/log.h"
#include "util/sqlite_library.h"

namespace kavro {
namespace {

constexpr int kBusyTimeoutMs = 50;
constexpr long kSleepStepMicroseconds = 10;
constexpr long kMicrosecondsPerSecond = 1000000;
constexpr long kNanosecondsPerMicrosecond = 1000;

/// The code without what the extended result codes add: a busy recovery or snapshot is busy too.
int primary_code(int code) {
    constexpr int kMask = 0xFF;
    return code & kMask;
}

/// False when the sleep failed; one that a signal cut short counts as slept.
bool sleep_microseconds(long microseconds) {
    timespec pause{};
    pause.tv_sec = microseconds / kMicrosecondsPerSecond;
    pause.tv_nsec = microseconds % kMicrosecondsPerSecond * kNanosecondsPerMicrosecond;
    return ::nanosleep(&pause, nullptr) == 0 || errno == EINTR;
}

/// Calls until the answer is not "busy", without limit, cleaning up and sleeping before each repetition.
template <typename Call, typename CleanUp>
int repeat_while_busy(Call&& call, CleanUp&& cleanUp) {
    int code = call();
    for (long pause = 0; primary_code(code) == SQLITE_BUSY; pause += kSleepStepMicroseconds) {
        cleanUp();
        if (!sleep_microseconds(pause)) {
            return SQLITE_ERROR;
        }
        code = call();
    }
    return code;
}

/// Whether the answer says that a killed writer's journal is to be rolled back first, which a read-only connection may
/// not do.
bool needs_recovery(sqlite3* handle, int code) {
    return primary_code(code) == SQLITE_READONLY && ::sqlite3_extended_errcode(handle) == SQLITE_READONLY_ROLLBACK;
}

/// Opens the database once for writing and reads from it, which rolls it back.
bool recover(sqlite3* handle) {
    kavro::SqliteConnection writer;
    return writer.open(::sqlite3_db_filename(handle, "main"), kavro::SqliteConnection::Access::ReadWrite) &&
           writer.execute("SELECT 1 FROM sqlite_master");
}

/// repeat_while_busy, with a recovery between when one is needed.
template <typename Call, typename CleanUp>
int carry_out(sqlite3* handle, Call&& call, CleanUp&& cleanUp) {
    const int code = repeat_while_busy(call, cleanUp);
    if (!needs_recovery(handle, code) || !recover(handle)) {
        return code;
    }
    cleanUp();
    return repeat_while_busy(call, cleanUp);
}

constexpr auto kNothingToCleanUp = [] {};

int flags_of(kavro::SqliteConnection::Access access) {
    switch (access) {
        case kavro::SqliteConnection::Access::ReadOnly:
            return SQLITE_OPEN_READONLY;
        case kavro::SqliteConnection::Access::ReadWrite:
            return SQLITE_OPEN_READWRITE;
        default:
            return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    }
}

void close_handle(sqlite3* handle) {
    repeat_while_busy([handle] { return ::sqlite3_close(handle); }, kNothingToCleanUp);
}

/// A connection that nobody uses at the moment.
struct IdleConnection {
    std::string path;
    SqliteConnection::Access access;
    sqlite3* handle;
};
/// At most one for each database.
std::vector<IdleConnection> idle;
bool keeping = false;

bool is_fit(const IdleConnection& found, SqliteConnection::Access access) {
    int moved = 1;
    return (access == SqliteConnection::Access::ReadOnly || found.access != SqliteConnection::Access::ReadOnly) &&
           ::sqlite3_file_control(found.handle, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved == 0;
}

/// Null when none is fit.
sqlite3* take_idle(std::string_view path, SqliteConnection::Access access) {
    const auto place =
        std::find_if(idle.begin(), idle.end(), [path](const IdleConnection& one) { return one.path == path; });
    if (place == idle.end()) {
        return nullptr;
    }
    const IdleConnection found = std::move(*place);
    idle.erase(place);
    if (!is_fit(found, access)) {
        close_handle(found.handle);
        return nullptr;
    }
    return found.handle;
}

void keep_or_close(std::string&& path, SqliteConnection::Access access, sqlite3* handle) {
    const bool sound =
        ::sqlite3_errcode(handle) == SQLITE_OK && ::sqlite3_get_autocommit(handle) != 0 && !kavro::sqliteLockIsStuck();
    // Another directory would make another file of a relative path.
    const bool wanted = keeping && path.starts_with('/') &&
                        std::none_of(idle.begin(), idle.end(), [&](const auto& one) { return one.path == path; });
    try {
        if (sound && wanted) {
            idle.push_back({std::move(path), access, handle});
            return;
        }
    } catch (const std::bad_alloc&) {
        // Then it is closed.
    }
    close_handle(handle);
}

}  // namespace

SqliteConnection::~SqliteConnection() {
    close();
}

bool SqliteConnection::open(const char* path, Access access) {
    close();
    configureSqlite();
    path_ = path;
    access_ = access;
    handle_ = take_idle(path_, access);
    open_ = handle_ != nullptr;
    if (open_) {
        return true;
    }
    // The handle of a failed open knows why it failed and is kept for that.
    const char* layer = sqliteFileLayer();
    open_ = layer != nullptr &&
            ::sqlite3_open_v2(path, &handle_, flags_of(access) | SQLITE_OPEN_NOFOLLOW, layer) == SQLITE_OK;
    if (open_) {
        ::sqlite3_busy_timeout(handle_, kBusyTimeoutMs);
    }
    return open_;
}

bool SqliteConnection::execute(const char* script) {
    if (!open_) {
        return false;
    }
    const bool wasInTransaction = ::sqlite3_get_autocommit(handle_) == 0;
    // A script that begins a transaction and then meets a busy database must not begin it a second time.
    const auto rollBackOwnTransaction = [&] {
        if (!wasInTransaction && ::sqlite3_get_autocommit(handle_) == 0) {
            ::sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    };
    return carry_out(
               handle_, [&] { return ::sqlite3_exec(handle_, script, nullptr, nullptr, nullptr); },
               rollBackOwnTransaction) == SQLITE_OK;
}

const char* SqliteConnection::errorText() const {
    return handle_ == nullptr ? kGeneralDbError : ::sqlite3_errmsg(handle_);
}

sqlite3_int64 SqliteConnection::lastInsertId() const {
    return open_ ? ::sqlite3_last_insert_rowid(handle_) : 0;
}

void SqliteConnection::close() {
    if (handle_ == nullptr) {
        return;
    }
    while (sqlite3_stmt* statement = ::sqlite3_next_stmt(handle_, nullptr)) {
        ::sqlite3_finalize(statement);
    }
    if (open_) {
        keep_or_close(std::move(path_), access_, handle_);
    } else {
        close_handle(handle_);
    }
    handle_ = nullptr;
    open_ = false;
}

KeptConnections::KeptConnections() noexcept {
    keeping = true;
}

KeptConnections::~KeptConnections() {
    keeping = false;
    for (const IdleConnection& one : idle) {
        close_handle(one.handle);
    }
    idle.clear();
}

SqliteStatement::~SqliteStatement() {
    ::sqlite3_finalize(handle_);
}

bool SqliteStatement::prepare(const char* sql) {
    ::sqlite3_finalize(handle_);
    handle_ = nullptr;
    sqlite3* connection = connection_.get();
    return connection != nullptr &&
           carry_out(
               connection, [&] { return ::sqlite3_prepare_v2(connection, sql, -1, &handle_, nullptr); },
               kNothingToCleanUp) == SQLITE_OK;
}

bool SqliteStatement::bind(int position, const char* text) {
    return ::sqlite3_bind_text(handle_, position, text, -1, SQLITE_STATIC) == SQLITE_OK;
}

bool SqliteStatement::bind(int position, sqlite3_int64 number) {
    return ::sqlite3_bind_int64(handle_, position, number) == SQLITE_OK;
}

bool SqliteStatement::bind(int position, int number) {
    return bind(position, static_cast<sqlite3_int64>(number));
}

int SqliteStatement::step() {
    return primary_code(carry_out(
        connection_.get(), [this] { return ::sqlite3_step(handle_); }, [this] { ::sqlite3_reset(handle_); }));
}

void SqliteStatement::reset() {
    ::sqlite3_reset(handle_);
}

const char* SqliteStatement::text(int column) const {
    return reinterpret_cast<const char*>(::sqlite3_column_text(handle_, column));
}

sqlite3_int64 SqliteStatement::number(int column) const {
    return ::sqlite3_column_int64(handle_, column);
}

}  // namespace kavro

namespace {

constexpr mode_t kDirectoryMode = 0755;

/// The directory part of a path, newly allocated; null with errno.
char* directory_name(const char* path) {
    if (path == nullptr || *path == '\0') {
        errno = EINVAL;
        return nullptr;
    }
    const std::string_view whole(path);
    const std::string_view::size_type slash = whole.rfind('/');
    if (slash == std::string_view::npos) {
        return ::strdup(".");
    }
    return ::strndup(path, slash == 0 ? 1 : slash);
}

}  // namespace

int sqlite_create_db_path(const char* path, const char* label) {
    const kavro::CString directory(directory_name(path));
    if (directory == nullptr) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to get dirname for %s database (%s): %s (%d)", label, path,
                  std::strerror(errno), errno);
        return -1;
    }
    if (make_dir_p(directory.get(), kDirectoryMode, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) == -1) {
        kavro_log(KAVRO_LOG_CRITICAL, "Unable to create directories for %s database (%s): %s (%d)", label, path,
                  std::strerror(errno), errno);
        return -1;
    }
    return 0;
}

int sqlite_db_create(const char* path, const char* script, const char* label) {
    kavro::SqliteConnection connection;
    if (!connection.open(path, kavro::SqliteConnection::Access::ReadWriteCreate)) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to open database %s: %s", path, connection.errorText());
        return -1;
    }
    if (connection.execute(script)) {
        return 0;
    }
    if (::sqlite3_errcode(connection.get()) == SQLITE_OK) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create %s database", label);
    } else {
        kavro_log(KAVRO_LOG_ERROR, "Unable to re-create %s database: %s", label, connection.errorText());
    }
    return -1;
}
