// A whole table written anew through its text source: locks, text, rebuild. Everything that replaces or filters a table
// goes through here.
#pragma once

#include <sys/file.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "postfix/map_copy.h"
#include "postfix/record_filters.h"
#include "postfix/table_lock.h"
#include "process/pipe.h"
#include "util/lock_file.h"

namespace kavro::mail::postfix {

/// A new file for writing; the destructor closes and unlinks it, unless that was done, and keeps errno. Check the
/// stream after construction.
class AutocleanOFStream : public std::ofstream {
public:
    /// What a crash, or somebody else, left under that name is unlinked first; what is there even then is not opened.
    explicit AutocleanOFStream(const std::string& path);
    AutocleanOFStream(const AutocleanOFStream&) = delete;
    AutocleanOFStream& operator=(const AutocleanOFStream&) = delete;
    ~AutocleanOFStream() override;

    /// Unlinks it. Throws SystemError("unlink"); then the destructor tries again.
    void remove();

private:
    std::string path_;
    bool removed_ = false;
};

/// Hands every record of the table to the consumer, in pieces of any size; nobody writes to the table's map meanwhile.
/// Throws PostfixConfigurationError, also, at the end, for a dump that was cut short.
void dumpTable(const std::string& table, const process::Consumer& consumer);
/// The same of a map that the caller has locked.
void dumpTable(const std::string& table, const LockedMap& map, const process::Consumer& consumer);

/// Holds the table's locks and its text source; whatever happens, the destructor removes the text source, then gives
/// the locks back. The table itself changes in rebuild() only.
class TableRewrite {
public:
    /// Waits for the locks, puts back the table that a killed rebuild left half-made, and opens the text source, whose
    /// stream throws on every failure from then on. Throws PostfixConfigurationError and SystemError.
    explicit TableRewrite(const std::string& table);
    TableRewrite(const TableRewrite&) = delete;
    TableRewrite& operator=(const TableRewrite&) = delete;

    /// What is written here is what the table will hold: one record a line, key, blank, value.
    std::ostream& text() noexcept { return text_; }

    /// Passes every record of the table through a copy of the line filter into the text source; answers whether any was
    /// dropped or came out with another text. Where none was, the text source is gone and rebuild() must not follow.
    /// Throws PostfixConfigurationError and SystemError.
    template <typename LineFilter>
    bool filter(const LineFilter& lineFilter) {
        database::DataStreamFilter<LineFilter> stream(lineFilter, text_);
        const LockedMap map(table_, LOCK_SH);
        dumpTable(table_, map, [&](const std::vector<char>& chunk) {
            stream.filterChunk(chunk);
            if (stream.changed()) {
                copyAhead(map, chunk.size());
            }
        });
        stream.filterTail();
        if (copy_) {
            copy_->complete();
        }
        dumped_ = stream.read();
        written_ = stream.written();
        if (!stream.changed()) {
            text_.remove();
        }
        return stream.changed();
    }

    /// Closes the text source and builds the table from it, with options of postmap(1) before the table's name when
    /// given. `built` is called as soon as the table holds the new records. Whatever fails, `built` included, the table
    /// is put back as it was. Throws PostfixConfigurationError and SystemError.
    void rebuild(const std::string& option = {}, const std::function<void()>& built = {});

private:
    /// There will be a rebuild: while postmap dumps, the map is copied in the time that is left.
    void copyAhead(const LockedMap& map, std::size_t dumped);

    std::string table_;
    MKLock textLock_;
    TableLock tableLock_;
    AutocleanOFStream text_;
    std::size_t dumped_ = 0;
    std::size_t written_ = 0;
    std::unique_ptr<MapCopy> copy_;
};

}  // namespace kavro::mail::postfix
