// Records on their way from the temporary database into postmap, never all in memory.
#include "mxrepair/record_changes.h"

#include <stdexcept>

#include "postfix/database_helper.h"

namespace mxrepair {

namespace {

using namespace kavro::mail::postfix;

/// Input is handed over in pieces of about the size that a pipe takes at once.
constexpr std::size_t kFeedSize = 16384;

/// Feeds the rows of a statement, one a line, its columns separated by a blank.
kavro::process::Producer feed(kavro::SqliteStatement& rows, int columns) {
    return [&rows, columns](std::vector<char>& buffer) {
        while (buffer.size() < kFeedSize) {
            const int step = rows.step();
            if (step != SQLITE_ROW && step != SQLITE_DONE) {
                throw std::runtime_error("cannot read the temporary database");
            }
            if (step == SQLITE_DONE) {
                return false;
            }
            for (int column = 0; column != columns; ++column) {
                const std::string_view text = rows.text(column);
                buffer.insert(buffer.end(), text.begin(), text.end());
                buffer.push_back(column + 1 == columns ? '\n' : ' ');
            }
        }
        return true;
    };
}

}  // namespace

RecordChanges::RecordChanges(NodeState& node) : node_(node) {
    node_.execute(
        "CREATE TABLE added(map TEXT, key TEXT, value TEXT); CREATE TABLE removed(map TEXT, key TEXT);"
        "CREATE INDEX added_key ON added(key, map); CREATE INDEX removed_key ON removed(key, map)");
}

void RecordChanges::add(const char* map, std::string_view key, std::string_view value) {
    node_.query("INSERT INTO added VALUES(?, ?, ?)", {map, key, value}, {});
}

void RecordChanges::remove(const char* map, std::string_view key) {
    node_.query("INSERT INTO removed VALUES(?, ?)", {map, key}, {});
}

void RecordChanges::apply() {
    for (const char* table : lookupTables()) {
        const std::string map = mapName(table);
        if (node_.exists("SELECT 1 FROM added WHERE map=?", {map})) {
            kavro::SqliteStatement rows(node_.database());
            rows.prepare("SELECT key, value FROM added WHERE map=? ORDER BY rowid");
            rows.bind(1, map.c_str());
            DatabaseHelper::addFrom(table, feed(rows, 2));
        }
        if (node_.exists("SELECT 1 FROM removed WHERE map=?", {map})) {
            kavro::SqliteStatement rows(node_.database());
            rows.prepare("SELECT DISTINCT key FROM removed WHERE map=?");
            rows.bind(1, map.c_str());
            DatabaseHelper::removeFrom(table, feed(rows, 1));
        }
    }
    node_.execute("DELETE FROM added; DELETE FROM removed");
}

}  // namespace mxrepair
