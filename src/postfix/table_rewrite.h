// A whole table written anew through its text source: lock, text, rebuild. Everything that replaces or filters a table
// goes through here.
#pragma once

#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "process/pipe.h"
#include "util/lock_file.h"

namespace kavro::mail::postfix {

/// A new file for writing; the destructor closes and unlinks it and keeps errno. Check the stream after construction.
class AutocleanOFStream : public std::ofstream {
public:
    /// What a crash, or somebody else, left under that name is unlinked first, so that no link is written through.
    explicit AutocleanOFStream(const std::string& path);
    AutocleanOFStream(const AutocleanOFStream&) = delete;
    AutocleanOFStream& operator=(const AutocleanOFStream&) = delete;
    ~AutocleanOFStream() override;

private:
    std::string path_;
    std::unique_ptr<char[]> buffer_;
};

/// Hands every record of the table to the consumer, in pieces of any size, a line each. No writer changes the table
/// meanwhile. Throws PostfixConfigurationError.
void dumpTable(const std::string& table, const process::Consumer& consumer);

/// Holds the table's lock and its text source; whatever happens, the destructor removes the text source, then gives the
/// lock back. The table itself changes in rebuild() only.
class TableRewrite {
public:
    /// Waits for the lock and opens the text source, whose stream throws on every failure from then on.
    explicit TableRewrite(const std::string& table);
    TableRewrite(const TableRewrite&) = delete;
    TableRewrite& operator=(const TableRewrite&) = delete;

    /// What is written here is what the table will hold: one record a line, key, blank, value.
    std::ostream& text() noexcept { return text_; }
    /// dumpTable for this table.
    void dump(const process::Consumer& consumer) { dumpTable(table_, consumer); }
    /// Closes the text source and builds the table from it, with options of postmap(1) before the table's name when
    /// given. `built` is called as soon as the table holds the new records. Throws PostfixConfigurationError.
    void rebuild(const std::string& option = {}, const std::function<void()>& built = {});

private:
    std::string table_;
    std::string path_;
    MKLock lock_;
    AutocleanOFStream text_;
};

}  // namespace kavro::mail::postfix
