// Incremental changes, and the check of records before they are handed to postmap.
#include "postfix/database_helper.h"

#include <algorithm>
#include <sstream>
#include <string_view>

#include "postfix/map_copy.h"
#include "postfix/postfix_errors.h"
#include "postfix/postmap.h"
#include "postfix/table_lock.h"
#include "util/names.h"

namespace kavro::mail::postfix {

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

/// One word that stays one key on a line of its own.
bool isPlainKey(const std::string& key) {
    return !key.empty() && key.find_first_of(kWhiteSpace) == std::string::npos && key.find('\0') == std::string::npos;
}

/// A run by keys, under the table's lock.
void runByKeys(const std::string& table, TableLock::Mode mode, const std::vector<std::string>& arguments,
               const process::Producer& keys, const process::Consumer& output) {
    const TableLock lock = [&] {
        try {
            return beginChange(table, mode);
        } catch (const PostfixConfigurationError& error) {
            throw PostfixDatabaseError(error.what());
        }
    }();
    const PostmapResult result = runPostmap(arguments, keys, output, lock.descriptor());
    if (!result.succeededUnlessMissing()) {
        throw PostfixDatabaseError(result.diagnostics);
    }
}

}  // namespace

// No comment, no key with quotes around blanks, no escaped separator, one line, and nothing but UTF-8, without which
// postmap drops the line with a warning and status 0.
bool DatabaseHelper::acceptsRecord(const std::string& key, const std::string& value) {
    return isPlainKey(key) && key.front() != '#' && key.back() != '\\' && key.find('"') == std::string::npos &&
           value.find_first_not_of(kWhiteSpace) != std::string::npos && value.find('\n') == std::string::npos &&
           value.find('\0') == std::string::npos && isUtf8(key) && isUtf8(value);
}

void DatabaseHelper::checkRecord(const std::string& key, const std::string& value) {
    if (!acceptsRecord(key, value)) {
        throw PostfixConfigurationError("invalid lookup table record '" + key + " " + value + "'");
    }
}

void DatabaseHelper::checkKey(const std::string& key) {
    if (!isPlainKey(key)) {
        throw PostfixDatabaseError("invalid lookup table key '" + key + "'");
    }
}

void DatabaseHelper::addFrom(const std::string& table, const process::Producer& records) {
    const TableLock lock = beginChange(table, TableLock::Mode::Shared);
    const std::optional<std::uint32_t> before = recordCount(table);
    const PostmapResult result = runPostmap({"-r", "-i", table}, records, {}, lock.descriptor());
    // A map that cannot be read at once postmap makes anew over the old one, says why, and ends with status 0.
    if (!result.succeeded() || (!result.diagnostics.empty() && recordCount(table) < before)) {
        throw PostfixConfigurationError(result.reason());
    }
}

void DatabaseHelper::removeFrom(const std::string& table, const process::Producer& keys) {
    runByKeys(table, TableLock::Mode::Exclusive, {"-d", "-", table}, keys, {});
}

void DatabaseHelper::addRecord(const std::string& table, const std::string& key, const std::string& value) {
    const std::vector<Record> records{{key, value}};
    addRecords(table, records.begin(), records.end());
}

void DatabaseHelper::removeRecord(const std::string& table, const std::string& key) {
    checkKey(key);
    runByKeys(table, TableLock::Mode::Exclusive, {"-d", key, table}, {}, {});
}

std::vector<DatabaseHelper::Record> DatabaseHelper::findRecords(const std::string& table,
                                                                const std::vector<std::string>& keys) {
    std::string answer;
    runByKeys(table, TableLock::Mode::Shared, {"-q", "-", table}, keyLines(keys.begin(), keys.end()),
              process::makeStringReceiver(answer));
    std::vector<Record> found;
    std::istringstream lines(answer);
    for (std::string line; std::getline(lines, line);) {
        if (database::RecordView record; database::splitRecord(line, record)) {
            found.emplace_back(record.key, record.value);
        }
    }
    return found;
}

bool DatabaseHelper::checkOutput(const std::string& text, bool strict) {
    return holdsNoError(text, strict);
}

template <typename List>
List& BatchDatabaseHelper::cached(std::map<std::string, List>& cache, const std::string& table) {
    auto entry = cache.find(table);
    if (entry == cache.end()) {
        const auto [place, inserted] = cache.emplace(table, List());
        if (!inserted) {
            throw PostfixDatabaseError("unable to form record cache");
        }
        entry = place;
    }
    return entry->second;
}

template BatchDatabaseHelper::Records& BatchDatabaseHelper::cached(std::map<std::string, Records>&, const std::string&);
template BatchDatabaseHelper::Keys& BatchDatabaseHelper::cached(std::map<std::string, Keys>&, const std::string&);

void BatchDatabaseHelper::addChange(const std::string& table, const std::string& key, const std::string& value) {
    const Records change{{key, value}};
    addChanges(table, change.begin(), change.end());
}

void BatchDatabaseHelper::commit() {
    for (const auto& [table, records] : additions_) {
        apply(table, records.begin(), records.end());
    }
    additions_.clear();
    for (const auto& [table, keys] : removals_) {
        DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    }
    removals_.clear();
}

}  // namespace kavro::mail::postfix
