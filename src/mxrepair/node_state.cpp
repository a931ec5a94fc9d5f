// Reading of the stores, each in one pass.
#include "mxrepair/node_state.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "postfix/domain_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/record_filters.h"
#include "postfix/table_rewrite.h"
#include "postfix/tables.h"
#include "services/domain_keys.h"
#include "util/config.h"
#include "util/names.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::SqliteConnection;
using kavro::SqliteStatement;
using namespace kavro::mail::postfix;

// Indexes carry what the views and the checks join by. The cache's size is in KiB.
constexpr const char* kSchema =
    "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-8192;"
    "CREATE TABLE record(map TEXT, key TEXT, value TEXT, name TEXT, domain TEXT);"
    "CREATE INDEX record_key ON record(key, map);"
    "CREATE INDEX record_domain ON record(domain, map);"
    "CREATE TABLE user(name TEXT, domain TEXT, stored TEXT, off INTEGER);"
    "CREATE INDEX user_address ON user(domain, name);"
    "CREATE TABLE auth_domain(domain TEXT PRIMARY KEY, off INTEGER);"
    "CREATE TABLE handler(address TEXT, name TEXT, queue INTEGER, type INTEGER, enabled INTEGER, priority INTEGER,"
    " executable TEXT, context TEXT);"
    "CREATE INDEX handler_address ON handler(address);"
    "CREATE TABLE signing_key(domain TEXT PRIMARY KEY, whole INTEGER);"
    "CREATE TABLE root(domain TEXT PRIMARY KEY);"
    "CREATE TABLE home(domain TEXT, name TEXT, PRIMARY KEY(domain, name)) WITHOUT ROWID;"
    "CREATE TABLE saved(path TEXT);"
    "CREATE TABLE standard(name TEXT PRIMARY KEY);"
    // A disabled domain has no record of its own: its storage or its mailboxes tell of it.
    "CREATE VIEW node_domain AS SELECT domain, MAX(enabled) AS enabled FROM ("
    " SELECT key AS domain, 1 AS enabled FROM record WHERE map='virtual_domains'"
    " UNION ALL SELECT DISTINCT domain, 0 FROM record WHERE map='vmailbox'"
    " UNION ALL SELECT domain, 0 FROM root) GROUP BY domain;"
    // An alias is marked by a record without "@"; the mailnames seen through it tell whose it is.
    "CREATE VIEW node_alias AS SELECT a.key AS alias,"
    " (SELECT substr(r.value, length(r.name) + 2) FROM record r WHERE r.domain=a.key AND r.map='virtual'"
    "  AND r.name IS NOT NULL AND substr(r.value, 1, length(r.name) + 1)=r.name || '@'"
    "  AND substr(r.value, length(r.name) + 2) NOT IN ('localhost.localdomain', r.domain)"
    "  AND instr(r.value, ',')=0 LIMIT 1) AS domain"
    " FROM record a WHERE a.map='virtual' AND a.name IS NULL AND a.value='1';"
    "CREATE VIEW mailname AS SELECT domain, name FROM record WHERE map='vmailbox' AND name IS NOT NULL;";

[[noreturn]] void failStore(const std::string& store, const char* reason) {
    throw std::runtime_error("cannot read " + store + ": " + reason);
}

/// Line filter that keeps nothing for a text source: it hands each record to a function.
class RecordReader {
public:
    using Receiver = std::function<void(std::string&& key, std::string&& value)>;
    explicit RecordReader(Receiver receiver) : receiver_(std::move(receiver)) {}

    bool operator()(const std::string& line) {
        database::RecordView record;
        if (database::splitRecord(line, record)) {
            receiver_(std::string(record.key), std::string(record.value));
        }
        return false;
    }

private:
    Receiver receiver_;
};

/// Calls for each entry of a directory with its name. One that is not there has none.
void eachDirectory(const fs::path& directory, const std::function<void(const std::string& name)>& call) {
    boost::system::error_code error;
    fs::directory_iterator entry(directory, error);
    if (error == boost::system::errc::no_such_file_or_directory) {
        return;
    }
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::file_type type = entry->symlink_status(error).type();
        if (type == fs::directory_file || type == fs::symlink_file) {
            call(entry->path().filename().string());
        }
    }
    if (error) {
        failStore(directory.string(), error.message().c_str());
    }
}

}  // namespace

const std::vector<const char*>& lookupTables() {
    static const std::vector<const char*> tables = {kVirtualDomainsTable, kVmailboxTable, kVirtualTable, kAliasesTable};
    return tables;
}

std::string mapName(std::string_view table) {
    return std::string(table.substr(table.rfind('/') + 1));
}

std::string mailRoot() {
    return zcpConfGetDefaultByIndex(kMailRootKey);
}

NodeState::NodeState() {
    // SQLite takes an empty name for a database in a temporary file that nobody else sees.
    if (!database_.open("", SqliteConnection::Access::ReadWriteCreate)) {
        failStore("the temporary database", database_.errorText());
    }
    execute(kSchema);
    Insertion insert(*this, "INSERT INTO standard VALUES(?)");
    for (std::string address : DomainManager::standardDomainAddresses("")) {
        address.pop_back();
        insert({address.c_str()});
    }
}

void NodeState::execute(const std::string& script) {
    if (!database_.execute(script.c_str())) {
        failStore("the temporary database", database_.errorText());
    }
}

void NodeState::query(const std::string& sql, std::initializer_list<std::string_view> parameters,
                      const RowReader& row) {
    const std::vector<std::string> texts(parameters.begin(), parameters.end());
    SqliteStatement statement(database_);
    bool good = statement.prepare(sql.c_str());
    for (std::size_t i = 0; good && i != texts.size(); ++i) {
        good = statement.bind(static_cast<int>(i) + 1, texts[i].c_str());
    }
    int step = SQLITE_ERROR;
    while (good && (step = statement.step()) == SQLITE_ROW) {
        row(statement);
    }
    if (step != SQLITE_DONE) {
        failStore("the temporary database", database_.errorText());
    }
}

bool NodeState::exists(const std::string& sql, std::initializer_list<std::string_view> parameters) {
    bool found = false;
    query("SELECT EXISTS(" + sql + ")", parameters,
          [&found](const SqliteStatement& row) { found = row.number(0) != 0; });
    return found;
}

std::string NodeState::loadTable(const char* table) {
    const std::string map = mapName(table);
    execute("BEGIN");
    Insertion insert(*this, "INSERT INTO record VALUES(?, ?, ?, ?, ?)");
    std::string name;
    RecordReader reader([&](std::string&& key, std::string&& value) {
        const std::string::size_type at = key.rfind('@');
        const bool address = at != std::string::npos;
        name.assign(key, 0, address ? at : 0);
        insert({map.c_str(), key.c_str(), value.c_str(), address ? name.c_str() : nullptr,
                key.c_str() + (address ? at + 1 : 0)});
    });
    // Nothing is kept, so nothing is written to the stream.
    database::DataStreamFilter<RecordReader> lines(reader, std::clog);
    std::string problem;
    try {
        dumpTable(table, [&lines](const std::vector<char>& chunk) { lines.filterChunk(chunk); });
        lines.filterTail();
    } catch (const PostfixError& error) {
        problem = error.what();
    }
    execute("COMMIT");
    return problem;
}

void NodeState::loadTables() {
    for (const char* table : lookupTables()) {
        const std::string problem = loadTable(table);
        if (!problem.empty()) {
            failStore(table, problem.c_str());
        }
    }
}

/// Copies the rows of a query on another database, column by column.
void NodeState::copyRows(const std::string& path, const char* select, const char* insert) {
    SqliteConnection source;
    SqliteStatement rows(source);
    if (!source.open(path.c_str(), SqliteConnection::Access::ReadOnly) || !rows.prepare(select)) {
        failStore(path, source.errorText());
    }
    execute("BEGIN");
    SqliteStatement target(database_);
    bool good = target.prepare(insert);
    const auto columns = static_cast<int>(std::count(insert, insert + std::strlen(insert), '?'));
    int step = SQLITE_DONE;
    while (good && (step = rows.step()) == SQLITE_ROW) {
        for (int column = 0; good && column != columns; ++column) {
            good = target.bind(column + 1, rows.text(column));
        }
        good = good && target.step() == SQLITE_DONE;
        target.reset();
    }
    if (!good) {
        failStore("the temporary database", database_.errorText());
    }
    if (step != SQLITE_DONE) {
        failStore(path, source.errorText());
    }
    execute("COMMIT");
}

void NodeState::loadUsers() {
    mailAuthDBSelectStyle(kPostfixStyle);
    copyRows(mailAuthDB, "SELECT name, status FROM domains", "INSERT INTO auth_domain VALUES(?, ?)");
    copyRows(mailAuthDB,
             "SELECT u.name, d.name, CASE WHEN cmusaslsecretPLAIN IS NOT NULL THEN 'plain'"
             " WHEN userPassword IS NOT NULL THEN 'encrypted' ELSE 'none' END, u.status"
             " FROM users u JOIN domains d ON d.id = u.dom_id",
             "INSERT INTO user VALUES(?, ?, ?, ?)");
}

void NodeState::loadHandlers() {
    copyRows(mh_db_path, "SELECT address, name, queue, type, enabled, priority, executable, context FROM handlers",
             "INSERT INTO handler VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
}

void NodeState::loadKeys() {
    execute("BEGIN");
    Insertion insert(*this, "INSERT INTO signing_key VALUES(?, ?)");
    const fs::path top = kDomainKeysDirectory;
    eachDirectory(top, [&](const std::string& domain) {
        boost::system::error_code error;
        const auto size = fs::file_size(top / domain / "default", error);
        insert({domain.c_str(), !error && size != 0 ? "1" : "0"});
    });
    execute("COMMIT");
}

void NodeState::loadTree() {
    const fs::path top = mailRoot();
    execute("BEGIN");
    Insertion insertRoot(*this, "INSERT INTO root VALUES(?)");
    Insertion insertHome(*this, "INSERT INTO home VALUES(?, ?)");
    Insertion insertSaved(*this, "INSERT INTO saved VALUES(?)");
    const auto isSaved = [](const std::string& name) { return name.find(kSavedMark) != std::string::npos; };
    eachDirectory(top, [&](const std::string& domain) {
        const fs::path root = top / domain;
        if (isSaved(domain)) {
            insertSaved({root.c_str()});
            return;
        }
        // Another file system's "lost+found", say.
        if (is_domain_name_valid(domain.c_str()) == 0) {
            return;
        }
        insertRoot({domain.c_str()});
        eachDirectory(root, [&](const std::string& name) {
            if (isSaved(name)) {
                insertSaved({(root / name).c_str()});
            } else {
                insertHome({domain.c_str(), name.c_str()});
            }
        });
    });
    execute("COMMIT");
}

void NodeState::loadAll() {
    loadTables();
    loadUsers();
    loadHandlers();
    loadKeys();
    loadTree();
}

void NodeState::settle() {
    execute(
        "CREATE TABLE settled_domain AS SELECT * FROM node_domain; DROP VIEW node_domain;"
        "ALTER TABLE settled_domain RENAME TO node_domain; CREATE INDEX node_domain_name ON node_domain(domain);"
        "CREATE TABLE settled_alias AS SELECT * FROM node_alias; DROP VIEW node_alias;"
        "ALTER TABLE settled_alias RENAME TO node_alias; CREATE INDEX node_alias_name ON node_alias(alias);"
        "CREATE INDEX node_alias_domain ON node_alias(domain)");
}

Insertion::Insertion(NodeState& node, const char* sql) : database_(node.database()), statement_(node.database()) {
    if (!statement_.prepare(sql)) {
        failStore("the temporary database", database_.errorText());
    }
}

void Insertion::operator()(std::initializer_list<const char*> values) {
    int position = 0;
    bool good = true;
    for (const char* value : values) {
        good = good && statement_.bind(++position, value);
    }
    good = good && statement_.step() == SQLITE_DONE;
    statement_.reset();
    if (!good) {
        failStore("the temporary database", database_.errorText());
    }
}

}  // namespace mxrepair
