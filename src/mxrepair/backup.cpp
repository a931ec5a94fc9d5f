// What belongs into a backup, and the order in which it comes back.
#include "mxrepair/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <stdexcept>

#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "mxrepair/backup_files.h"
#include "mxrepair/init.h"
#include "mxrepair/node_state.h"
#include "postfix/postmap.h"
#include "postfix/table_lock.h"
#include "postfix/table_rewrite.h"
#include "postfix/tables.h"
#include "process/retry.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "util/directory_tree.h"
#include "util/lock_file.h"
#include "util/sqlite_connection.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::MKLock;
using kavro::SqliteConnection;
using namespace kavro::mail::postfix;

constexpr const char* kKeysName = "domainkeys";
constexpr int kAllPages = -1;

/// One file that is kept: a name in the backup and a place on the node.
struct Place {
    std::string name;
    std::string path;
};

std::vector<Place> databases() {
    return {{"passwd.db", mailAuthDB}, {"handlers.db", mh_db_path}};
}

/// A directory for drafts, removed with all that is left in it.
class DraftDirectory {
public:
    /// What a killed run left there is removed first.
    explicit DraftDirectory(std::string path) : path_(std::move(path)) {
        if (rm_tree(path_.c_str()) != 0 || ::mkdir(path_.c_str(), S_IRWXU) != 0) {
            kavro::throwSystemError("cannot make the directory " + path_, errno);
        }
    }
    DraftDirectory(const DraftDirectory&) = delete;
    DraftDirectory& operator=(const DraftDirectory&) = delete;
    ~DraftDirectory() { rm_tree(path_.c_str()); }
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

void renameOver(const std::string& from, const std::string& to, unsigned how = 0) {
    if (kavro::retryInterrupted([&] { return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), how); }) != 0) {
        kavro::throwSystemError("cannot rename " + from + " to " + to, errno);
    }
    syncPath(fs::path(to).parent_path().string());
}

/// SQLite's own online copy: a whole one, whatever is written meanwhile.
void copyDatabase(const std::string& from, const std::string& to) {
    SqliteConnection source;
    SqliteConnection target;
    if (!source.open(from.c_str(), SqliteConnection::Access::ReadOnly)) {
        throw std::runtime_error("cannot read " + from + ": " + source.errorText());
    }
    bool good = target.open(to.c_str(), SqliteConnection::Access::ReadWriteCreate);
    if (good) {
        sqlite3_backup* copy = sqlite3_backup_init(target.get(), "main", source.get(), "main");
        int step = SQLITE_ERROR;
        while (copy != nullptr &&
               ((step = sqlite3_backup_step(copy, kAllPages)) == SQLITE_BUSY || step == SQLITE_LOCKED)) {
            ::usleep(10000);
        }
        good = copy != nullptr && sqlite3_backup_finish(copy) == SQLITE_OK && step == SQLITE_DONE;
    }
    if (!good) {
        throw std::runtime_error("cannot copy " + from + ": " + target.errorText());
    }
    target.close();
    syncPath(to);
}

/// Dumps a table into a new file; answers the number of its records.
unsigned long dumpInto(const char* table, const std::string& path) {
    const kavro::FdOwner file = createFile(path);
    unsigned long records = 0;
    const TableLock lock = beginChange(table, TableLock::Mode::Exclusive);
    dumpTable(table, [&](const std::vector<char>& chunk) {
        records += static_cast<unsigned long>(std::count(chunk.begin(), chunk.end(), '\n'));
        writeTo(file, path, {chunk.data(), chunk.size()});
    });
    syncPath(path);
    return records;
}

unsigned long recordsOf(const char* table) {
    unsigned long records = 0;
    dumpTable(table, [&records](const std::vector<char>& chunk) {
        records += static_cast<unsigned long>(std::count(chunk.begin(), chunk.end(), '\n'));
    });
    return records;
}

/// A store made anew, and the place that it goes to.
struct NewStore {
    std::string draft;
    std::string path;
};

/// Builds a map from a table's text in the backup. It gets the owner and mode of the maps that --init makes.
NewStore buildTable(const char* table, const std::string& backup, const std::string& drafts) {
    const std::string source = drafts + '/' + mapName(table);
    copyFile(backup + '/' + mapName(table), source);
    ::chmod(source.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
    const std::string draftTable = "hash:" + source;
    const PostmapResult result = runPostmap({draftTable}, {}, {});
    if (!result.succeeded()) {
        throw std::runtime_error("cannot build the table " + mapName(table) + ": " + result.reason());
    }
    std::ifstream text(source);
    const auto lines = std::count(std::istreambuf_iterator<char>(text), std::istreambuf_iterator<char>(), '\n');
    // postmap answers 0 when reading its text fails.
    if (recordsOf(draftTable.c_str()) != static_cast<unsigned long>(lines)) {
        throw std::runtime_error("the table " + mapName(table) + " built from the backup lacks records");
    }
    syncPath(source + ".db");
    return {source + ".db", mapFile(table)};
}

}  // namespace

int runBackup(const Options& options) {
    mailAuthDBSelectStyle(kPostfixStyle);
    const std::string target = fs::absolute(options.argument).string();
    if (fileExists(target.c_str())) {
        throw std::runtime_error(target + " exists: a backup is a new directory");
    }
    const MKLock turn(kStoresLock, MKLock::kHashedName, MKLock::kWait);
    const DraftDirectory draft(target + ".unfinished");
    const std::string& to = draft.path();
    std::vector<BackupFile> files;
    unsigned long records = 0;
    for (const char* table : lookupTables()) {
        records += dumpInto(table, to + '/' + mapName(table));
        files.push_back(describe(to, mapName(table), mapFile(table)));
    }
    for (const Place& database : databases()) {
        copyDatabase(database.path, to + '/' + database.name);
        files.push_back(describe(to, database.name, database.path));
    }
    const std::string key = fs::path(mailAuthKey).filename().string();
    copyFile(mailAuthKey, to + '/' + key);
    files.push_back(describe(to, key, mailAuthKey));
    if (::mkdir((to + '/' + kKeysName).c_str(), S_IRWXU) != 0) {
        kavro::throwSystemError("cannot make the directory " + to + '/' + kKeysName, errno);
    }
    for (const std::string& name : filesBelow(kDomainKeysDirectory)) {
        const fs::path original = fs::path(kDomainKeysDirectory) / name;
        const fs::path path = fs::path(kKeysName) / name;
        const fs::path copy = fs::path(to) / path;
        fs::create_directories(copy.parent_path());
        copyFile(original.string(), copy.string());
        files.push_back(describe(to, path.string(), original.string()));
    }
    writeManifest(to, files);
    syncPath(to);
    renameOver(to, target, RENAME_NOREPLACE);
    std::cout << "backed up " << records << " records and " << files.size() << " files to " << target << '\n';
    return kSuccess;
}

// Same directory for every run, so that the next one removes what a killed one left. The directory of the tables
// belongs to the mail server's user, who could put links there; the one above belongs to root.
std::string restoreDirectory() {
    return fs::path(mailAuthDB).parent_path().parent_path().string() + "/.mxrepair-restore";
}

int runRestore(const Options& options) {
    mailAuthDBSelectStyle(kPostfixStyle);
    const std::string backup = fs::absolute(options.argument).string();
    const std::vector<BackupFile> files = readManifest(backup);
    const auto file = [&files](const std::string& name) -> const BackupFile& {
        const auto found = std::find_if(files.begin(), files.end(), [&](const auto& one) { return one.path == name; });
        if (found == files.end()) {
            throw std::runtime_error("the backup has no " + name);
        }
        return *found;
    };
    makeMissingDirectories(std::cout);
    const MKLock turn(kStoresLock, MKLock::kHashedName, MKLock::kWait);
    const DraftDirectory drafts(restoreDirectory());
    const DraftDirectory keys(kDomainKeysDirectory + std::string(kRestoredSuffix));

    std::vector<NewStore> stores;
    for (const char* table : lookupTables()) {
        file(mapName(table));
        stores.push_back(buildTable(table, backup, drafts.path()));
    }
    std::vector<Place> copies = databases();
    copies.insert(copies.begin(), {fs::path(mailAuthKey).filename().string(), mailAuthKey});
    for (const Place& place : copies) {
        const std::string draft =
            (place.path == mh_db_path ? place.path + kRestoredSuffix : drafts.path() + '/' + place.name);
        ::unlink(draft.c_str());
        copyFile(backup + '/' + place.name, draft);
        giveAway(draft, file(place.name));
        stores.push_back({draft, place.path});
    }
    const std::string prefix = std::string(kKeysName) + '/';
    for (const BackupFile& one : files) {
        if (one.path.compare(0, prefix.size(), prefix) == 0) {
            const std::string draft = keys.path() + '/' + one.path.substr(prefix.size());
            make_dir_p(fs::path(draft).parent_path().c_str(), 0755, 0, 0);
            copyFile(backup + '/' + one.path, draft);
            giveAway(draft, one);
        }
    }
    ::chmod(keys.path().c_str(), 0755);

    for (const NewStore& store : stores) {
        std::cout << (fileExists(store.path.c_str()) ? "replaces " : "makes ") << store.path << '\n';
    }
    std::cout << "replaces " << kDomainKeysDirectory << std::endl;
    // From here on each store changes at once and whole. Nobody edits a table meanwhile.
    std::list<MKLock> textLocks;
    std::list<TableLock> tableLocks;
    for (const char* table : lookupTables()) {
        textLocks.emplace_back(std::string(table).substr(std::string(table).find(':') + 1), MKLock::kHashedName,
                               MKLock::kWait);
        tableLocks.emplace_back(table, TableLock::Mode::Exclusive);
        ::unlink((mapFile(table) + ".before").c_str());
    }
    for (const NewStore& store : stores) {
        // What a killed command left would be rolled back into the new database.
        ::unlink((store.path + "-journal").c_str());
        renameOver(store.draft, store.path);
    }
    renameOver(keys.path(), kDomainKeysDirectory, RENAME_EXCHANGE);
    std::cout << "restored from " << backup << '\n';
    return kSuccess;
}

}  // namespace mxrepair
