// SQLite's memory, wiped as it is freed, over malloc(3); and a layer over its own for Unix files, with an own look at
// every file's name and kind. A rollback journal may name a "super-journal", which SQLite reads and deletes: whoever
// plants a journal chooses that name.
#include "util/sqlite_library.h"

#include <fcntl.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "process/retry.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr const char* kLayerName = "kavro";
constexpr std::string_view kJournalSuffix = "-journal";
constexpr std::string_view kWalSuffix = "-wal";

sqlite3_vfs* below = nullptr;

/// The databases that are open; SQLite keeps each name for as long.
struct OpenDatabase {
    const sqlite3_file* file;
    std::string_view name;
};
std::vector<OpenDatabase> openDatabases;

/// The database whose lock could not be lowered; null: none.
const sqlite3_file* stuck = nullptr;

bool is_database_with(std::string_view suffix, std::string_view name) {
    return name.ends_with(suffix) &&
           std::any_of(openDatabases.begin(), openDatabases.end(), [&](const OpenDatabase& database) {
               return database.name == name.substr(0, name.size() - suffix.size());
           });
}

/// The functions of one kind of file, ours and those below.
struct FileMethods : sqlite3_io_methods {
    const sqlite3_io_methods* below = nullptr;
};
FileMethods databaseMethods;
FileMethods otherMethods;

const sqlite3_io_methods* methods_below(const sqlite3_file* file) {
    return static_cast<const FileMethods*>(file->pMethods)->below;
}

int sync_file(sqlite3_file* file, int flags) {
    for (;;) {
        const int result = methods_below(file)->xSync(file, flags);
        int reason = 0;
        if (result != SQLITE_IOERR_FSYNC ||
            methods_below(file)->xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &reason) != SQLITE_OK || reason != EINTR) {
            return result;
        }
    }
}

/// A change that was committed or rolled back leaves the read lock, or none. A lock that cannot be lowered is no
/// failure of that change: it goes with the connection.
int unlock_file(sqlite3_file* file, int level) {
    const int result = methods_below(file)->xUnlock(file, level);
    if (result == SQLITE_OK) {
        stuck = stuck == file && level == SQLITE_LOCK_NONE ? nullptr : stuck;
        return result;
    }
    stuck = file;
    if (level != SQLITE_LOCK_SHARED) {
        return result;
    }
    kavro_log(KAVRO_LOG_WARNING, "A database's lock cannot be lowered: %s", std::strerror(errno));
    return SQLITE_OK;
}

int close_file(sqlite3_file* file) {
    std::erase_if(openDatabases, [file](const OpenDatabase& database) { return database.file == file; });
    stuck = stuck == file ? nullptr : stuck;
    return methods_below(file)->xClose(file);
}

/// Version 1 has no shared memory, which is how SQLite knows that there is no WAL mode.
void take_over(sqlite3_file* file, FileMethods& methods) {
    static_cast<sqlite3_io_methods&>(methods) = *file->pMethods;
    methods.below = file->pMethods;
    methods.iVersion = 1;
    methods.xSync = sync_file;
    methods.xUnlock = unlock_file;
    methods.xClose = close_file;
    file->pMethods = &methods;
}

void report_refusal(const char* name) {
    struct stat status {};
    if (name != nullptr && ::lstat(name, &status) == 0 && !S_ISREG(status.st_mode)) {
        kavro_log(KAVRO_LOG_ERROR, "%s is not a regular file, refused", name);
    }
}

int open_file(sqlite3_vfs* /*layer*/, const char* name, sqlite3_file* file, int flags, int* answer) {
    constexpr int kPermitted = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL;
    file->pMethods = nullptr;
    // Without a name it is a temporary file, which SQLite makes elsewhere and removes at once.
    if (name != nullptr && (flags & kPermitted) == 0) {
        return SQLITE_CANTOPEN;
    }
    const bool isDatabase = name != nullptr && (flags & SQLITE_OPEN_MAIN_DB) != 0;
    if (isDatabase) {
        try {
            openDatabases.push_back({file, name});
        } catch (const std::exception&) {
            return SQLITE_NOMEM;
        }
    }
    const int result = below->xOpen(below, name, file, flags, answer);
    if (result != SQLITE_OK) {
        if (isDatabase) {
            openDatabases.pop_back();
        }
        report_refusal(name);
    }
    if (file->pMethods != nullptr) {
        take_over(file, isDatabase ? databaseMethods : otherMethods);
    }
    return result;
}

int delete_file(sqlite3_vfs* /*layer*/, const char* name, int syncDirectory) {
    return is_database_with(kJournalSuffix, name) ? below->xDelete(below, name, syncDirectory) : SQLITE_IOERR_DELETE;
}

int access_file(sqlite3_vfs* /*layer*/, const char* name, int what, int* answer) {
    if (is_database_with("", name) || is_database_with(kJournalSuffix, name)) {
        return below->xAccess(below, name, what, answer);
    }
    *answer = 0;
    if (is_database_with(kWalSuffix, name)) {
        return SQLITE_OK;
    }
    // "Not there" would make SQLite drop the journal; as it is, nothing changes until somebody has looked at it.
    kavro_log(KAVRO_LOG_ERROR, "A database's journal names another file, %s: refused", name);
    return SQLITE_CANTOPEN;
}

/// SQLite would follow a link in the last place here, before it opens what came out.
int full_path(sqlite3_vfs* /*layer*/, const char* path, int size, char* answer) {
    const char* slash = std::strrchr(path, '/');
    const char* name = slash == nullptr ? path : slash + 1;
    std::array<char, PATH_MAX> directory;
    try {
        const std::string given = slash == nullptr ? "." : std::string(path, name);
        if (::realpath(given.c_str(), directory.data()) == nullptr) {
            return SQLITE_CANTOPEN;
        }
    } catch (const std::exception&) {
        return SQLITE_NOMEM;
    }
    const int length = ::snprintf(answer, static_cast<std::size_t>(size), "%s/%s", directory.data(), name);
    return length < size ? SQLITE_OK : SQLITE_CANTOPEN;
}

/// Databases and journals are opened with O_NOFOLLOW; without it directories, to sync them, and /dev/urandom.
int open_system_call(const char* path, int flags, int mode) {
    return (flags & O_NOFOLLOW) == 0 ? ::open(path, flags, mode)
                                     : kavro::openRegular(path, flags, static_cast<mode_t>(mode));
}

/// SQLite passes a number or a pointer, as fcntl(2) itself does.
int fcntl_system_call(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return kavro::retryInterrupted([&] { return ::fcntl(fd, command, argument); });
}

int unlink_system_call(const char* path) {
    return kavro::retryInterrupted([path] { return ::unlink(path); });
}

template <typename Function>
bool replace_system_call(const char* name, Function* function) {
    return below->xSetSystemCall(below, name, reinterpret_cast<sqlite3_syscall_ptr>(function)) == SQLITE_OK;
}

}  // namespace

const char* kavro::sqliteFileLayer() {
    static sqlite3_vfs layer;
    if (below != nullptr) {
        return layer.zName;
    }
    below = ::sqlite3_vfs_find(nullptr);
    if (below == nullptr) {
        return nullptr;
    }
    layer = *below;
    layer.pNext = nullptr;
    layer.zName = kLayerName;
    layer.xOpen = open_file;
    layer.xDelete = delete_file;
    layer.xAccess = access_file;
    layer.xFullPathname = full_path;
    const bool ready =
        replace_system_call("open", open_system_call) && replace_system_call("fcntl", fcntl_system_call) &&
        replace_system_call("unlink", unlink_system_call) && ::sqlite3_vfs_register(&layer, 0) == SQLITE_OK;
    if (!ready) {
        below = nullptr;
        return nullptr;
    }
    return layer.zName;
}

bool kavro::sqliteLockIsStuck() {
    return stuck != nullptr;
}

namespace {

constexpr int kAlignment = 8;

void* allocate(int size) {
    return std::malloc(static_cast<std::size_t>(size));
}

void wipe_and_free(void* memory) {
    if (memory != nullptr) {
        ::explicit_bzero(memory, ::malloc_usable_size(memory));
        std::free(memory);
    }
}

int usable_size(void* memory) {
    return memory == nullptr ? 0 : static_cast<int>(::malloc_usable_size(memory));
}

/// By hand: realloc(3) would leave the old contents behind where it moves them.
void* reallocate(void* memory, int size) {
    if (size <= usable_size(memory)) {
        return memory;
    }
    void* moved = allocate(size);
    if (moved != nullptr) {
        std::memcpy(moved, memory, static_cast<std::size_t>(std::min(size, usable_size(memory))));
        wipe_and_free(memory);
    }
    return moved;
}

int round_up(int size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

int initialize(void* /*data*/) {
    return SQLITE_OK;
}

void shut_down(void* /*data*/) {
}

}  // namespace

namespace kavro {

void configureSqlite() {
    static bool configured = false;
    if (configured) {
        return;
    }
    configured = true;
    static const sqlite3_mem_methods wipingMemory = {allocate, wipe_and_free, reallocate, usable_size,
                                                     round_up, initialize,    shut_down,  nullptr};
    ::sqlite3_config(SQLITE_CONFIG_MALLOC, &wipingMemory);
    ::sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    ::sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // No page cache in advance: a few pages are used, and all of it would be wiped.
    ::sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
}

}  // namespace kavro
