// The one place that knows how records of a lookup table are added, removed, found, replaced and filtered: through
// postmap(1), never by hand. Tables are named by their full map names (postfix/tables.h).
//
// Adding and removing touch the hash map alone; replacing and filtering rewrite the whole table. The table's lock
// (postfix/table_lock.h) keeps them apart.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "postfix/record_filters.h"
#include "postfix/table_rewrite.h"
#include "process/pipe.h"

namespace kavro::mail::postfix {

/// Stateless. Ranges are of (key, value) pairs or of keys, in lists or vectors. Adding, replacing and filtering throw
/// PostfixConfigurationError, removing throws PostfixDatabaseError, both with postmap's diagnostics. A key or value
/// that postmap's text form cannot hold is refused with the same errors before anything is run: it would be lost
/// without a word or, holding a line feed, be read as a second record.
class DatabaseHelper {
public:
    using Record = std::pair<std::string, std::string>;

    /// postmap's text form can hold the record: it would read back exactly this one.
    static bool acceptsRecord(const std::string& key, const std::string& value);

    /// Adds records or overwrites those with the same keys. Runs nothing for an empty range.
    template <typename Iterator>
    static void addRecords(const std::string& table, Iterator first, Iterator last) {
        if (first == last) {
            return;
        }
        checkRecords(first, last);
        addFrom(table, [first, last](std::vector<char>& buffer) mutable {
            bool more = true;
            while (more && buffer.size() < kFeedSize) {
                more = formRecord(buffer, first, last);
            }
            return more;
        });
    }

    static void addRecord(const std::string& table, const std::string& key, const std::string& value);

    /// Deletes records; one that is not there is no error.
    template <typename Iterator>
    static void removeRecords(const std::string& table, Iterator first, Iterator last) {
        for (Iterator key = first; key != last; ++key) {
            checkKey(*key);
        }
        removeFrom(table, keyLines(first, last));
    }

    static void removeRecord(const std::string& table, const std::string& key);

    /// The same for lines of key, blank, value, and of keys, that the producer makes. Nothing of them is checked.
    static void addFrom(const std::string& table, const process::Producer& records);
    static void removeFrom(const std::string& table, const process::Producer& keys);

    /// The records of those keys that are there. Throws PostfixDatabaseError.
    static std::vector<Record> findRecords(const std::string& table, const std::vector<std::string>& keys);

    /// The table holds exactly these records afterwards.
    template <typename Iterator>
    static void replaceRecords(const std::string& table, Iterator first, Iterator last) {
        checkRecords(first, last);
        TableRewrite rewrite(table);
        std::vector<char> line;
        while (first != last) {
            line.clear();
            formRecord(line, first, last);
            rewrite.text().write(line.data(), static_cast<std::streamsize>(line.size()));
        }
        rewrite.rebuild("-r");
    }

    /// Passes every record through a copy of the line filter and rebuilds the table from what it keeps, unless every
    /// record came out as it went in; answers whether the table was rebuilt. `armUndo` is called as soon as the table
    /// holds the new records, before anything else can fail; when it throws, or was not called, the table is as before.
    template <typename LineFilter>
    static bool filterRecords(const std::string& table, const LineFilter& filter,
                              const std::function<void()>& armUndo = {}) {
        TableRewrite rewrite(table);
        if (!rewrite.filter(filter)) {
            return false;
        }
        rewrite.rebuild({}, armUndo);
        return true;
    }

    /// The same with one element filter for keys and list elements.
    template <typename ElementFilter>
    static bool filterElements(const std::string& table, const ElementFilter& filter) {
        return filterRecords(table, database::ElementsFilter<ElementFilter>(filter));
    }

    /// Appends the text form of the record at `position`, unless that is the end, and advances; answers whether records
    /// remain.
    template <typename Iterator>
    static bool formRecord(std::vector<char>& buffer, Iterator& position, const Iterator& end) {
        if (position == end) {
            return false;
        }
        buffer.insert(buffer.end(), position->first.begin(), position->first.end());
        buffer.push_back(' ');
        buffer.insert(buffer.end(), position->second.begin(), position->second.end());
        buffer.push_back('\n');
        return ++position != end;
    }

    /// holdsNoError of postfix/postmap.h.
    static bool checkOutput(const std::string& text, bool strict);

private:
    /// Input is handed over in pieces of about the size that a pipe takes at once.
    static constexpr std::size_t kFeedSize = 4096;

    template <typename Iterator>
    static void checkRecords(Iterator first, Iterator last) {
        for (; first != last; ++first) {
            checkRecord(first->first, first->second);
        }
    }

    template <typename Iterator>
    static process::Producer keyLines(Iterator first, Iterator last) {
        return [first, last](std::vector<char>& buffer) mutable {
            for (; first != last && buffer.size() < kFeedSize; ++first) {
                buffer.insert(buffer.end(), first->begin(), first->end());
                buffer.push_back('\n');
            }
            return first != last;
        };
    }

    static void checkRecord(const std::string& key, const std::string& value);
    static void checkKey(const std::string& key);
};

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
