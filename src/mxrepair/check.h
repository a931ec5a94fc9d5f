// Looking a node over, and mending it: the order of the checks, and what they share. A check asks the node's state and
// hands over findings; how one is mended goes with it, so that --check and --fix cannot disagree.
#pragma once

#include <string>
#include <string_view>

#include "mxrepair/command_line.h"
#include "mxrepair/findings.h"
#include "mxrepair/node_state.h"
#include "mxrepair/record_changes.h"

namespace mxrepair {

/// What a check works with. Changes of records are collected and written when all checks have been made.
struct CheckContext {
    NodeState& node;
    Findings& findings;
    RecordChanges& changes;
    bool tablesLoaded = false;     ///< else nothing can be said about records
    bool databasesLoaded = false;  ///< likewise about users and handlers

    /// A finding for each row of a statement; `make` forms it.
    template <typename Make>
    void each(const std::string& sql, Make make) {
        node.query(sql, {}, [&](const kavro::SqliteStatement& row) { findings.add(make(row)); });
    }
};

/// --check: 0 nothing found, 1 findings, 2 (by exception) could not look.
int runCheck(const Options& options);
/// --fix: 0 nothing is left, 1 something is.
int runFix(const Options& options);

/// Puts back each table that a rebuild cut short has left half-made. Throws.
void putTablesBack();
/// Files around the tables, then loads them.
void checkTableFiles(CheckContext& context);
/// Records of the tables among themselves.
void checkRecords(CheckContext& context);
/// Files of the two databases and the password key, then loads the databases.
void checkDatabaseFiles(CheckContext& context);
/// Users, domains and handlers beside the records.
void checkUsers(CheckContext& context);
/// The signing keys' files.
void checkKeys(CheckContext& context);
/// The mail tree beside the records.
void checkTree(CheckContext& context);

/// Somebody is at work on what is locked under that name. Takes no lock and makes no lock file.
bool isInUse(const std::string& name);
/// The finding of what a killed run left under that name, unless somebody holds that lock; --fix removes it.
void checkLeftOver(CheckContext& context, const std::string& store, const std::string& path, const std::string& lock,
                   const char* problem = "a temporary file that was left over");
/// The finding of a regular file or directory that exists with another owner or mode, which --fix sets.
void checkRights(CheckContext& context, const std::string& store, const std::string& domain, const std::string& path,
                 const char* user, const char* group, unsigned mode);
/// Sets them, never through a link. Throws SystemError.
void setRights(const std::string& path, unsigned uid, unsigned gid, unsigned mode);

}  // namespace mxrepair
