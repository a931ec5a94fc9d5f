// Keeps changes of one table apart where postmap's own lock of the map does not: "postmap -d" opens the map before it
// locks it and then writes what it read, so an addition meanwhile would tear the map; and what is added between dump
// and rebuild of a whole-table edit would be lost.
//
// Order of all locks of a table: the lock file of the text source, this lock, the map's own.
#pragma once

#include <string>

#include "process/descriptors.h"

namespace kavro::mail::postfix {

/// The lock of a table's changes, a lock file of its own. Best effort: where the file cannot be had, that is logged and
/// nothing is held.
class TableLock {
public:
    enum class Mode {
        Shared,    ///< additions and look-ups, which postmap keeps apart itself
        Exclusive  ///< removals, and whole-table edits from before the dump until after the rebuild
    };

    /// Waits for the lock. Who waits for an exclusive one keeps later shared ones waiting.
    TableLock(const std::string& table, Mode mode);

    /// For children, so that the lock outlives a killed command until its postmap has ended; -1: not held.
    int descriptor() const noexcept { return file_.get(); }

private:
    QuietFdOwner file_;
};

/// What every addition, removal and look-up begins with: takes the lock, after putting back the table that a killed
/// rebuild left half-made, if there is one. Throws PostfixConfigurationError, also for a map that is no regular file.
TableLock beginChange(const std::string& table, TableLock::Mode mode);

/// Puts the table back as it was before a rebuild that a killed command left half-made, under all locks of the table,
/// and removes its text source; answers whether there was one. Waits for a rebuild that is under way. Throws
/// PostfixConfigurationError and SystemError.
bool putBackInterruptedRebuild(const std::string& table);

}  // namespace kavro::mail::postfix
