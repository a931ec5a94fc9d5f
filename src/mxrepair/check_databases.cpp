// The two databases with their key, what they say beside the lookup tables, and the signing keys.
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "auth/auth_database.h"
#include "auth/auth_paths.h"
#include "auth/password_cipher.h"
#include "handlers/handlers_database.h"
#include "mxrepair/backup.h"
#include "mxrepair/check.h"
#include "mxrepair/init.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "util/accounts.h"
#include "util/names.h"
#include "util/sqlite_library.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::SqliteConnection;
using kavro::SqliteStatement;

constexpr const char* kUsers = "passwd.db";
constexpr const char* kHandlers = "handlers.db";
constexpr const char* kKeys = "domain keys";
constexpr off_t kKeySize = 32;
constexpr const char* kKeyFile = "default";

/// A transaction was cut short: its journal must be played back before the database can be read. A connection of the
/// floor below would do that at once, so this one is not made there.
bool isJournalHot(const std::string& path) {
    sqlite3* connection = nullptr;
    ::sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READONLY, kavro::sqliteFileLayer());
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(connection, &::sqlite3_close);
    return ::sqlite3_exec(connection, "SELECT 1 FROM sqlite_master", nullptr, nullptr, nullptr) == SQLITE_READONLY &&
           ::sqlite3_extended_errcode(connection) == SQLITE_READONLY_ROLLBACK;
}

/// Whoever has the lock has played the journal back. One that stays was never whole.
void endTransaction(const std::string& path) {
    SqliteConnection connection;
    if (!connection.open(path.c_str(), SqliteConnection::Access::ReadWriteCreate) ||
        !connection.execute("BEGIN EXCLUSIVE")) {
        throw std::runtime_error("cannot play back the journal of " + path + ": " + connection.errorText());
    }
    if (::unlink((path + "-journal").c_str()) == -1 && errno != ENOENT) {
        throw kavro::SystemError("unlink", errno);
    }
}

/// What SQLite itself finds wrong; empty for a sound database with those tables.
std::string integrityProblem(const std::string& path, const std::vector<const char*>& tables) {
    SqliteConnection connection;
    SqliteStatement statement(connection);
    if (!connection.open(path.c_str(), SqliteConnection::Access::ReadOnly) ||
        !statement.prepare("PRAGMA integrity_check(1)") || statement.step() != SQLITE_ROW) {
        return connection.errorText();
    }
    const std::string answer = statement.text(0);
    if (answer != "ok") {
        return answer.substr(0, answer.find('\n'));
    }
    for (const char* table : tables) {
        if (!statement.prepare((std::string("SELECT 1 FROM ") + table).c_str())) {
            return std::string("has no table ") + table;
        }
    }
    return {};
}

/// What --init and --restore make under other names first.
void checkDrafts(CheckContext& context) {
    const auto look = [&](const char* store, const std::string& path) {
        checkLeftOver(context, store, path, kStoresLock);
    };
    for (const char* suffix : {".new", ".new-journal"}) {
        look(kUsers, mailAuthDB + std::string(suffix));
        look(kHandlers, mh_db_path + std::string(suffix));
    }
    look(kUsers, mailAuthKey + std::string(".new"));
    look(kUsers, restoreDirectory());
    look(kHandlers, mh_db_path + std::string(kRestoredSuffix));
    look(kKeys, kDomainKeysDirectory + std::string(kRestoredSuffix));
}

bool checkDatabase(CheckContext& context, const char* store, const std::string& path,
                   const std::vector<const char*>& tables) {
    if (!fileExists(path.c_str())) {
        context.findings.add({store, path, "", "is missing", "put it back from a backup, or make it with --init"});
        return false;
    }
    if (fileExists((path + "-journal").c_str())) {
        const bool hot = isJournalHot(path);
        context.findings.add(
            {store, path + "-journal", "",
             hot ? "a transaction was cut short" : "a transaction was cut short before its first change",
             hot ? "plays the journal back" : "removes it", [path] { endTransaction(path); }});
        if (hot && !context.findings.fixing()) {
            return false;
        }
    }
    const std::string problem = integrityProblem(path, tables);
    if (!problem.empty()) {
        context.findings.add({store, path, "", "is damaged: " + problem,
                              "put it back from a backup; an empty file is made anew by --init"});
    }
    return problem.empty();
}

struct PasswordCount {
    unsigned long encrypted = 0;
    /// Decrypted to text. A foreign key meets a valid padding once in 256 passwords, and then hardly ever text.
    unsigned long text = 0;
    std::vector<std::string> unreadable;
};

/// Counts; the password itself is wiped by the caller.
int countPassword(const char* address, const char* password, unsigned char flags, void* context) {
    auto& count = *static_cast<PasswordCount*>(context);
    if ((flags & MAIL_AUTH_UNENCRYPTED) == 0) {
        ++count.encrypted;
        // An empty text is stored as one block and read back as nothing; nobody can log in with it either.
        if (password == nullptr) {
            count.unreadable.emplace_back(address);
        } else if (kavro::isUtf8(password)) {
            ++count.text;
        }
    }
    return 1;
}

std::string domainOf(const std::string& address) {
    return address.substr(address.rfind('@') + 1);
}

void checkKey(CheckContext& context) {
    struct stat status {};
    const bool missing = ::lstat(mailAuthKey, &status) != 0;
    if (missing || status.st_size < kKeySize) {
        context.findings.add({kUsers, mailAuthKey, "", missing ? "the key is missing" : "the key is too short",
                              "put it back from a backup: without it no stored password can be read"});
        return;
    }
    PasswordCount count;
    // One initialisation for all passwords.
    mailPasswdCipherInit();
    const int result = mailAuthIterateAll(&countPassword, &count);
    mailPasswdCipherCleanup();
    if (result == -1) {
        throw std::runtime_error(std::string("cannot read the users of ") + mailAuthDB);
    }
    if (count.encrypted > 1 && count.text == 0 && count.unreadable.size() > count.encrypted / 2) {
        context.findings.add({kUsers, mailAuthKey, "", "the key decrypts none of the stored passwords",
                              "put the key back that belongs to the database"});
        return;
    }
    for (const std::string& address : count.unreadable) {
        context.findings.add({kUsers, address, domainOf(address), "the stored password cannot be decrypted",
                              "set it anew with mxadmin --set-password"});
    }
}

void setDomainStatus(const std::string& domain, bool enabled) {
    if ((enabled ? mailAuthEnableDomain(domain.c_str()) : mailAuthDisableDomain(domain.c_str())) != 0) {
        throw std::runtime_error("cannot change the status of " + domain);
    }
}

/// The domain and its aliases are switched before the tables; a command that got no further changed nothing else.
void checkDomainStatus(CheckContext& context) {
    context.each(
        "SELECT domain FROM auth_domain WHERE off<>0 AND EXISTS(SELECT 1 FROM record"
        " WHERE map='virtual_domains' AND key=coalesce((SELECT a.domain FROM node_alias a WHERE"
        " a.alias=auth_domain.domain), auth_domain.domain)) ORDER BY domain",
        [](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            return Finding{
                kUsers, domain, domain, "logins are switched off, but mail is accepted", "switches them on", [domain] {
                    setDomainStatus(domain, true);
                }};
        });
    context.each(
        "SELECT domain FROM auth_domain WHERE off=0 AND EXISTS(SELECT 1 FROM node_domain n"
        " WHERE n.domain=auth_domain.domain AND n.enabled=0) AND NOT EXISTS(SELECT 1 FROM node_alias a"
        " WHERE a.alias=auth_domain.domain) ORDER BY domain",
        [](const SqliteStatement& row) {
            return Finding{kUsers, row.text(0), row.text(0), "logins are switched on, but no mail is accepted",
                           "switch the domain on or off with mxadmin"};
        });
}

/// Addresses of a database that no table knows; those of a whole unknown domain in one line.
void checkAddresses(CheckContext& context, const char* store, const char* what, const std::string& addresses) {
    const std::string unknown = "SELECT DISTINCT name, domain FROM (" + addresses +
                                ") u WHERE NOT EXISTS(SELECT 1 FROM record r WHERE r.map IN ('virtual', 'vmailbox')"
                                " AND r.key=u.name || '@' || u.domain)";
    const std::string elsewhere =
        " NOT EXISTS(SELECT 1 FROM node_domain n WHERE n.domain=x.domain)"
        " AND NOT EXISTS(SELECT 1 FROM node_alias a WHERE a.alias=x.domain)";
    context.each("SELECT domain, count(*) FROM (" + unknown + ") x WHERE" + elsewhere + " GROUP BY domain",
                 [&](const SqliteStatement& row) {
                     return Finding{
                         store, row.text(0), row.text(0),
                         std::string(what) + " of " + row.text(1) + " addresses in a domain that is not here",
                         "finish its renaming or removal, see --finish-rename"};
                 });
    context.each("SELECT name, domain FROM (" + unknown + ") x WHERE NOT (" + elsewhere + ") ORDER BY domain, name",
                 [&](const SqliteStatement& row) {
                     return Finding{store, std::string(row.text(0)) + '@' + row.text(1), row.text(1),
                                    std::string(what) + " of an address that is not there",
                                    "run --sync with the domain's document, or mxadmin"};
                 });
}

}  // namespace

void checkDatabaseFiles(CheckContext& context) {
    mailAuthDBSelectStyle(kPostfixStyle);
    const std::string directory = fs::path(mailAuthDB).parent_path().string();
    checkRights(context, "directory", "", directory, kPostfixUser, kPostfixUser, 0770);
    checkRights(context, kUsers, "", mailAuthDB, kPostfixUser, "root", 0460);
    checkRights(context, kUsers, "", mailAuthKey, kPostfixUser, "root", 0440);
    checkRights(context, kHandlers, "", mh_db_path, "root", kMailUser, 0640);
    checkDrafts(context);
    const bool users = checkDatabase(context, kUsers, mailAuthDB, {"domains", "users"});
    const bool handlers = checkDatabase(context, kHandlers, mh_db_path, {"handlers"});
    if (users) {
        context.node.loadUsers();
        checkKey(context);
    }
    if (handlers) {
        context.node.loadHandlers();
    }
    context.databasesLoaded = users && handlers;
}

void checkUsers(CheckContext& context) {
    checkDomainStatus(context);
    checkAddresses(context, kUsers, "logins", "SELECT name, domain FROM user");
    context.each("SELECT name, domain FROM user WHERE stored='none' ORDER BY domain, name",
                 [](const SqliteStatement& row) {
                     return Finding{kUsers, std::string(row.text(0)) + '@' + row.text(1), row.text(1),
                                    "a user without a password", "set it with mxadmin --set-password"};
                 });
    // A mailing list has handlers, but records only as it is seen through a domain alias.
    checkAddresses(context, kHandlers, "handlers",
                   "SELECT substr(address, 1, instr(address, '@') - 1) AS name,"
                   " substr(address, instr(address, '@') + 1) AS domain FROM handler h WHERE instr(address, '@') > 1"
                   " AND NOT EXISTS(SELECT 1 FROM record l WHERE l.map='virtual' AND l.value=h.address)");
}

void checkKeys(CheckContext& context) {
    context.node.query(
        "SELECT domain, EXISTS(SELECT 1 FROM node_domain n WHERE n.domain=k.domain) OR"
        " EXISTS(SELECT 1 FROM node_alias a WHERE a.alias=k.domain), whole FROM signing_key k ORDER BY domain",
        {}, [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            const fs::path directory = fs::path(kDomainKeysDirectory) / domain;
            checkRights(context, kKeys, domain, directory.string(), "root", "root", 0755);
            checkRights(context, kKeys, domain, (directory / kKeyFile).string(), "root", kMailUser, 0440);
            if (context.tablesLoaded && row.number(1) == 0) {
                context.findings.add({kKeys, directory.string(), domain, "a key of a domain that is not here",
                                      "remove it, if it has gone"});
            } else if (row.number(2) == 0) {
                context.findings.add({kKeys, (directory / kKeyFile).string(), domain, "the key is missing or empty",
                                      "put one there, or remove the directory"});
            }
            boost::system::error_code error;
            for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
                const std::string path = entry.path().string();
                if (entry.path().stem() == kKeyFile && entry.path().has_extension()) {
                    context.findings.add({kKeys, path, domain, "a temporary file that was left over", "removes it",
                                          [path] { fs::remove(path); }});
                }
            }
        });
}

}  // namespace mxrepair
