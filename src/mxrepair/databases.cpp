// Making of the databases. The floors below log the cause of a failure; the texts here say what follows from it.
#include "mxrepair/databases.h"

#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <stdexcept>
#include <string>

#include "auth/auth_paths.h"
#include "auth/auth_setup.h"
#include "handlers/handlers_database.h"
#include "mxrepair/init.h"
#include "process/system_error.h"

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

/// Removes a file when the scope ends, however it ends.
class ScopedFile {
public:
    explicit ScopedFile(std::string path) : path_(std::move(path)) {}
    ScopedFile(const ScopedFile&) = delete;
    ScopedFile& operator=(const ScopedFile&) = delete;
    ~ScopedFile() { ::unlink(path_.c_str()); }
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
};

}  // namespace

void makeMissingAuthDatabase(std::ostream& report) {
    mailAuthDBSelectStyle(MAIL_AUTH_POSTFIX_STYLE);
    const std::string database = mailAuthDB;
    const std::string key = mailAuthKey;
    const bool databaseExists = fileExists(database.c_str());
    if (databaseExists != fileExists(key.c_str())) {
        // A new key would make every stored password unreadable, a new database would drop them.
        const std::string& found = databaseExists ? database : key;
        const std::string& missing = databaseExists ? key : database;
        throw std::runtime_error(found + " exists but " + missing + " is missing: put it back from a backup, or move " +
                                 found + " away to begin with an empty database");
    }
    if (databaseExists) {
        return;
    }
    if (mailAuthDBInitStyle(MAIL_AUTH_POSTFIX_STYLE) != 0) {
        // Neither was there before; half of the pair would be taken for a loss the next time.
        ::unlink(database.c_str());
        ::unlink(key.c_str());
        throw std::runtime_error("cannot make the mail authentication database " + database);
    }
    report << "created mail authentication database " << database << '\n' << "created key " << key << '\n';
}

void makeMissingHandlersDatabase(std::ostream& report) {
    const std::string database = mh_db_path;
    if (fileExists(database.c_str())) {
        return;
    }
    // Made whole under another name: a database that was left without its tables or owner would count as there.
    const ScopedFile draft(database + ".new");
    ::unlink(draft.path().c_str());
    {
        const HandlersPathSwitch path(draft.path());
        if (mh_db_create() != 0) {
            throw std::runtime_error("cannot make the mail handlers database " + database);
        }
    }
    if (::link(draft.path().c_str(), database.c_str()) != 0) {
        if (errno == EEXIST) {
            return;  // somebody else was faster
        }
        kavro::throwSystemError("cannot make the mail handlers database " + database, errno);
    }
    report << "created mail handlers database " << database << '\n';
}

}  // namespace mxrepair
