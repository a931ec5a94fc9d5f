// Making of the databases. The floors below log the cause of a failure; the texts here say what follows from it.
#include "mxrepair/databases.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ostream>
#include <stdexcept>
#include <string>

#include "auth/auth_paths.h"
#include "auth/auth_setup.h"
#include "handlers/handlers_database.h"
#include "mxrepair/init.h"
#include "process/descriptors.h"
#include "process/retry.h"
#include "process/system_error.h"
#include "util/file_io.h"

namespace mxrepair {

namespace {

/// Directs the handlers database to another file for its lifetime.
class HandlersPathSwitch {
public:
    explicit HandlersPathSwitch(const std::string& path) : former_(mh_db_path) { mh_db_path_set(path.c_str()); }
    HandlersPathSwitch(const HandlersPathSwitch&) = delete;
    HandlersPathSwitch& operator=(const HandlersPathSwitch&) = delete;
    ~HandlersPathSwitch() { mh_db_path_set(former_.c_str()); }

private:
    std::string former_;
};

/// Removes a file when the scope ends, however it ends, and before it begins.
class ScopedFile {
public:
    explicit ScopedFile(std::string path) : path_(std::move(path)) { remove(); }
    ScopedFile(const ScopedFile&) = delete;
    ScopedFile& operator=(const ScopedFile&) = delete;
    ~ScopedFile() { remove(); }
    const std::string& path() const noexcept { return path_; }

private:
    void remove() const {
        kavro::retryInterrupted([this] { return ::unlink(path_.c_str()); });
    }

    std::string path_;
};

enum class Presence { Missing, Empty, There };

/// An empty database is what a command leaves that opened a missing one, and a --init that was killed.
Presence presenceOf(const std::string& database) {
    if (!fileExists(database.c_str())) {
        return Presence::Missing;
    }
    struct stat found {};
    const bool empty = ::lstat(database.c_str(), &found) == 0 && S_ISREG(found.st_mode) && found.st_size == 0;
    return empty ? Presence::Empty : Presence::There;
}

/// Puts an empty file in the place of a missing database: with it the next run knows, wherever this one is killed, that
/// no passwords are lost.
void markAsMissing(const std::string& database) {
    kavro::QuietFdOwner mark(
        kavro::openRegular(database.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (mark.empty()) {
        kavro::throwSystemError("cannot make the mail authentication database " + database, errno);
    }
}

}  // namespace

void makeMissingAuthDatabase(std::ostream& report) {
    mailAuthDBSelectStyle(kPostfixStyle);
    const std::string database = mailAuthDB;
    const std::string key = mailAuthKey;
    const Presence presence = presenceOf(database);
    const bool keyExists = fileExists(key.c_str());
    if (presence == Presence::There && keyExists) {
        kavro::auth::removeDrafts();
        return;
    }
    if (presence == Presence::There || (presence == Presence::Missing && keyExists)) {
        // A new key would make every stored password unreadable, a new database would drop them.
        const std::string& found = keyExists ? key : database;
        const std::string& missing = keyExists ? database : key;
        throw std::runtime_error(found + " exists but " + missing + " is missing: put it back from a backup, or move " +
                                 found + " away to begin with an empty database");
    }
    if (presence == Presence::Missing) {
        markAsMissing(database);
    }
    if ((keyExists ? kavro::auth::initDatabaseBesideKey(kPostfixStyle) : mailAuthDBInitStyle(kPostfixStyle)) != 0) {
        throw std::runtime_error("cannot make the mail authentication database " + database);
    }
    report << "created mail authentication database " << database << '\n';
    if (!keyExists) {
        report << "created key " << key << '\n';
    }
}

void makeMissingHandlersDatabase(std::ostream& report) {
    const std::string database = mh_db_path;
    // Made whole under another name: a database that was left without its tables or owner would count as there.
    const ScopedFile draft(database + ".new");
    const ScopedFile draftJournal(draft.path() + "-journal");
    const Presence presence = presenceOf(database);
    if (presence == Presence::There) {
        return;
    }
    {
        const HandlersPathSwitch path(draft.path());
        if (mh_db_create() != 0) {
            throw std::runtime_error("cannot make the mail handlers database " + database);
        }
    }
    if (presence == Presence::Empty) {
        // What a killed command left would be rolled back into the new database.
        const ScopedFile journal(database + "-journal");
    }
    const unsigned how = presence == Presence::Missing ? RENAME_NOREPLACE : 0U;
    if (kavro::retryInterrupted(
            [&] { return ::renameat2(AT_FDCWD, draft.path().c_str(), AT_FDCWD, database.c_str(), how); }) != 0) {
        if (errno == EEXIST) {
            return;  // somebody else was faster
        }
        kavro::throwSystemError("cannot make the mail handlers database " + database, errno);
    }
    report << "created mail handlers database " << database << '\n';
}

}  // namespace mxrepair
