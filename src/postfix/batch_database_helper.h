// Changes of several tables in one object: applied as they come, or collected and applied table by table.
#pragma once

#include <list>
#include <map>
#include <string>
#include <utility>

#include "postfix/database_helper.h"

namespace kavro::mail::postfix {

/// What record builders write through. Destruction drops collected changes without applying them.
class BatchDatabaseHelper {
public:
    /// `incremental`: additions are merged into a table, else they replace its whole content. `immediate`: every change
    /// is applied at once, else commit() does it.
    explicit BatchDatabaseHelper(bool incremental = true, bool immediate = true)
        : incremental_(incremental), immediate_(immediate) {}
    BatchDatabaseHelper(const BatchDatabaseHelper&) = delete;
    BatchDatabaseHelper& operator=(const BatchDatabaseHelper&) = delete;

    void addChange(const std::string& table, const std::string& key, const std::string& value);

    /// Adds (key, value) pairs. Throws what DatabaseHelper throws, PostfixDatabaseError when they cannot be collected.
    template <typename Iterator>
    void addChanges(const std::string& table, Iterator first, Iterator last) {
        if (immediate_) {
            apply(table, first, last);
        } else {
            Records& pending = cached(additions_, table);
            pending.insert(pending.end(), first, last);
        }
    }

    /// Removes keys; fails as addChanges does.
    template <typename Iterator>
    void removeChanges(const std::string& table, Iterator first, Iterator last) {
        if (immediate_) {
            DatabaseHelper::removeRecords(table, first, last);
        } else {
            Keys& pending = cached(removals_, table);
            pending.insert(pending.end(), first, last);
        }
    }

    /// Applies the additions, then the removals, one run per table in the order of the tables' names. A failure stops
    /// it; tables done stay changed, and additions stay pending until all of them succeeded, likewise removals.
    void commit();

private:
    using Records = std::list<DatabaseHelper::Record>;
    using Keys = std::list<std::string>;

    template <typename Iterator>
    void apply(const std::string& table, Iterator first, Iterator last) {
        if (incremental_) {
            DatabaseHelper::addRecords(table, first, last);
        } else {
            DatabaseHelper::replaceRecords(table, first, last);
        }
    }

    template <typename List>
    static List& cached(std::map<std::string, List>& cache, const std::string& table);

    bool incremental_;
    bool immediate_;
    std::map<std::string, Records> additions_;
    std::map<std::string, Keys> removals_;
};

}  // namespace kavro::mail::postfix
