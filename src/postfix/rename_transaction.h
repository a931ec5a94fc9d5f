// A rename across several stores: each step with the way it is taken back. For a table that is a journal of what the
// edit changed. Running the edit's filter backwards would be no way back: once the new name has records of its own, it
// would turn those into records of the old name, and two records that met under one key cannot be parted again.
#pragma once

#include <boost/function.hpp>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "postfix/database_helper.h"
#include "postfix/record_filters.h"
#include "util/lock_file.h"

namespace kavro::mail::postfix {

/// Remembers records while an edit runs; its size is in proportion to what was changed, not to the table.
class StepJournal {
public:
    using LineFilter = boost::function<bool(std::string&)>;

    /// A record that the edit changed or dropped, as it was.
    void rememberChanged(const database::RecordView& record);
    /// A record that the edit left alone, but whose key is one that the edit may give to another record.
    void rememberTarget(const database::RecordView& record);

    /// Puts back what the edit (`forward`, the same line filter) changed or covered and drops what it made, by one more
    /// dump and rebuild of the table. Every other record stays, also one written since: it wins over a remembered
    /// record with the same key. Throws PostfixConfigurationError.
    void restore(const std::string& table, const LineFilter& forward) const;
    /// The same from a dump, which is handed to a consumer, into the text source of the rebuild.
    void restore(const std::function<void(const process::Consumer&)>& dump, const LineFilter& forward,
                 std::ostream& text) const;

private:
    std::string changed_;  ///< lines of key, blank, value
    std::string targets_;
};

/// Line filter that does what `forward` does and writes the journal. `wayBack` is the key filter of the reverse edit:
/// the keys that it would change are those that `forward` may give to a record.
template <typename Forward, typename KeyFilter>
class JournalingFilter {
public:
    /// The journal must outlive the filter.
    JournalingFilter(const Forward& forward, const KeyFilter& wayBack, StepJournal& journal)
        : forward_(forward), wayBack_(wayBack), journal_(&journal) {}

    bool operator()(std::string& line) {
        original_ = line;
        const bool kept = forward_(line);
        database::RecordView record;
        // What is no record could not be written back either.
        if (!database::splitRecord(original_, record) || record.value.empty()) {
            return kept;
        }
        if (!kept || !isTextOf(line, record)) {
            journal_->rememberChanged(record);
        } else if (isTarget(record.key)) {
            journal_->rememberTarget(record);
        }
        return kept;
    }

private:
    static bool isTextOf(std::string_view line, const database::RecordView& record) {
        return line.size() == record.key.size() + 1 + record.value.size() && line.starts_with(record.key) &&
               line.ends_with(record.value);
    }

    bool isTarget(std::string_view key) {
        key_.assign(key);
        wayBack_(key_);
        return key_ != key;
    }

    Forward forward_;
    KeyFilter wayBack_;
    StepJournal* journal_;
    std::string original_;
    std::string key_;
};

/// The steps of one rename. What was not committed is taken back by the destructor, latest step first. A part of the
/// way back that fails is reported, and the others go on. Renames take turns: of two onto one name at once, neither
/// could tell the other's records from those that stood before.
class RenameTransaction {
public:
    using Action = std::function<void()>;

    /// Waits for its turn. Throws the system error "lock() failed".
    RenameTransaction();
    RenameTransaction(const RenameTransaction&) = delete;
    RenameTransaction& operator=(const RenameTransaction&) = delete;
    ~RenameTransaction();

    /// Passes every record of the table through a copy of the line filter. `wayBack` is the key filter of the reverse
    /// edit. Throws PostfixConfigurationError. An edit that changed nothing is not taken back.
    template <typename Forward, typename KeyFilter>
    void filterTable(const char* table, const char* humanName, const Forward& forward, const KeyFilter& wayBack) {
        const auto journal = std::make_shared<StepJournal>();
        Step step{humanName, [table, forward, journal] { journal->restore(table, forward); }};
        // Armed as soon as the table is renamed: an error after that would else leave it so.
        steps_.reserve(steps_.size() + 1);
        DatabaseHelper::filterRecords(table, JournalingFilter<Forward, KeyFilter>(forward, wayBack, *journal),
                                      [this, &step] { arm(std::move(step)); });
    }

    /// Does `action`, which changes everything or nothing; `undo` takes it back.
    void whole(const char* humanName, const Action& action, Action undo);
    /// Does `action`; `undo` takes it back, and whatever part of it was done when it fails.
    void inParts(const char* humanName, const Action& action, Action undo);

    /// From now on parts of the way back that fail are told by this one line of the log, instead of a critical message
    /// for each under its human name. The text must outlive the transaction.
    void logFailureAs(const char* text) noexcept { logText_ = text; }

    /// The rename is done: nothing is taken back.
    void commit() noexcept { steps_.clear(); }

private:
    struct Step {
        const char* humanName;
        Action undo;
    };

    void arm(Step step);

    MKLock turn_;  ///< outlives the steps, also while they are taken back
    std::vector<Step> steps_;
    const char* logText_ = nullptr;
};

}  // namespace kavro::mail::postfix
