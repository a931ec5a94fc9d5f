// What a node holds, read from all its stores into tables of a private SQLite database that questions are put to. It
// lies in an unnamed temporary file and only a few MiB of it in memory, so a node may be of any size. Nothing of the
// node is changed by reading it.
//
// Each load function fills its own tables, from the store as it is at that moment; what was not loaded is empty:
//
//   loadTable(s)  record(map, key, value, name, domain)  map: virtual_domains, vmailbox, virtual or aliases; name and
//                                                        domain: the key before and after its last "@", name NULL
//                                                        where there is none
//   loadUsers     user(name, domain, stored, off)        stored: encrypted, plain or none (never the password itself)
//                 auth_domain(domain, off)               off: 1 when disabled
//   loadHandlers  handler(address, name, queue, type, enabled, priority, executable, context)
//   loadKeys      signing_key(domain, whole)             whole: 0 for a directory without a key in it
//   loadTree      root(domain)                           directories of the mail storage whose names can be a domain's,
//                 home(domain, name)                     links among them: what they are is looked at by who wants to
//                                                        know
//                 saved(path)                            trees that were moved aside
//
// standard(name) holds the names that every domain answers for. Three views tell what these make together:
// node_domain(domain, enabled), node_alias(alias, domain), where domain is NULL when no record leads from the alias to
// one, and mailname(domain, name).
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "util/sqlite_connection.h"

namespace mxrepair {

/// The lookup tables in the order in which they are read and made.
const std::vector<const char*>& lookupTables();
/// The name of a map without type and directory.
std::string mapName(std::string_view table);
/// The mail storage's root.
std::string mailRoot();

/// The suffix that a tree gets, with a number behind it, when it is moved aside.
inline constexpr std::string_view kSavedMark = ".KavroSaved.";

/// Failures are std::runtime_error with a text that names the store.
class NodeState {
public:
    NodeState();

    /// The reason why the table cannot be read (its rows are then incomplete), empty when all went well.
    std::string loadTable(const char* table);
    void loadTables();
    void loadUsers();
    void loadHandlers();
    void loadKeys();
    void loadTree();
    void loadAll();
    /// Turns the views into tables with indexes, for who asks them more than once. Nothing is to be loaded afterwards.
    void settle();

    using RowReader = std::function<void(const kavro::SqliteStatement& row)>;
    /// Runs a statement with these texts as its parameters and hands each row over.
    void query(const std::string& sql, std::initializer_list<std::string_view> parameters, const RowReader& row);
    /// True when the statement has a row.
    bool exists(const std::string& sql, std::initializer_list<std::string_view> parameters);
    void execute(const std::string& script);
    kavro::SqliteConnection& database() noexcept { return database_; }

private:
    void copyRows(const std::string& path, const char* select, const char* insert);

    kavro::SqliteConnection database_;
};

/// An INSERT that is run many times.
class Insertion {
public:
    Insertion(NodeState& node, const char* sql);
    /// Null texts are stored as NULL.
    void operator()(std::initializer_list<const char*> values);

private:
    kavro::SqliteConnection& database_;
    kavro::SqliteStatement statement_;
};

}  // namespace mxrepair
