// Creation of a database: its directory, and its tables by a schema script.
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "util/c_memory.h"
#include "util/directory_tree.h"
#include "util/log.h"
#include "util/sqlite_connection.h"

namespace {

constexpr mode_t kDirectoryMode = 0755;

/// The directory part of a path, newly allocated; null with errno.
char* directoryName(const char* path) {
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
    const kavro::CString directory(directoryName(path));
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
    if (!connection.open(path, kavro::SqliteConnection::Access::kReadWriteCreate)) {
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
