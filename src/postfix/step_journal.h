// What one whole-table edit changed, and the way back. Running the edit's filter backwards is no way back: once the new
// name has records of its own, it would turn those into records of the old name, and two records that met under one key
// cannot be parted again.
#pragma once

#include <boost/function.hpp>
#include <string>
#include <string_view>

#include "postfix/record_filters.h"

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

}  // namespace kavro::mail::postfix
