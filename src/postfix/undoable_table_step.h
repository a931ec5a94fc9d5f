// One whole-table edit of a change that has several: done on construction, taken back when a later step fails.
#pragma once

#include <exception>
#include <string>

#include "postfix/database_helper.h"
#include "postfix/postfix_errors.h"
#include "postfix/step_journal.h"

namespace kavro::mail::postfix {

/// The destructor undoes the edit while an exception is propagating, else does nothing. An undo that fails itself is
/// reported on the error stream under the human name, and the first exception goes on.
template <typename LineFilter, typename KeyFilter>
class UndoableTableStep {
public:
    /// Filters the table. `wayBack` is the key filter of the reverse edit. Throws PostfixConfigurationError; then there
    /// is nothing to undo.
    UndoableTableStep(const char* table, const char* humanName, const LineFilter& forward, const KeyFilter& wayBack)
        : table_(table), humanName_(humanName), forward_(forward) {
        DatabaseHelper::filterRecords(table_, JournalingFilter<LineFilter, KeyFilter>(forward_, wayBack, journal_));
    }
    UndoableTableStep(const UndoableTableStep&) = delete;
    UndoableTableStep& operator=(const UndoableTableStep&) = delete;
    ~UndoableTableStep() {
        if (std::uncaught_exceptions() <= exceptionsBefore_) {
            return;
        }
        try {
            journal_.restore(table_, forward_);
        } catch (...) {
            reportFailedRestore(humanName_);
        }
    }

private:
    int exceptionsBefore_ = std::uncaught_exceptions();
    std::string table_;
    const char* humanName_;
    LineFilter forward_;
    StepJournal journal_;
};

}  // namespace kavro::mail::postfix
