// The file of a hash map, and its copy beside it while a rebuild is under way: postmap(1) rebuilds a map in place, so
// one that fails or is killed half-way leaves a map without most of its records.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "process/descriptors.h"

namespace kavro::mail::postfix {

/// A table's map, open for reading and locked by flock(2) as postmap locks it.
class LockedMap {
public:
    /// Waits for the lock; `operation` is flock(2)'s. Holds nothing when there is no map, or it cannot be opened: that
    /// is postmap's to report. Throws PostfixConfigurationError for anything but a regular file, without waiting for
    /// whoever may serve it.
    LockedMap(const std::string& table, int operation);

    bool empty() const noexcept { return file_.empty(); }
    int descriptor() const noexcept { return file_.get(); }

private:
    FdOwner file_;
};

/// Throws PostfixConfigurationError when the table's map is anything but a regular file or missing. postmap follows
/// links, and waits for the other end of a FIFO.
void requireRegularMap(const std::string& table);

/// The number of records that the head of a hash map gives; nothing for another file.
std::optional<std::uint32_t> recordCount(int mapDescriptor);
/// The same, of a table's map; nothing where there is none. Throws as LockedMap does.
std::optional<std::uint32_t> recordCount(const std::string& table);

/// A whole copy of a table's map, first as a draft, then under the name "MAP.before". Once it bears that name, the
/// destructor puts it in the map's place, as it would have to be after a failed rebuild, unless the copy was discarded;
/// a failure of that is logged, and the copy stays. Before, the destructor removes the draft.
class MapCopy {
public:
    /// Begins the copy; there is none of an empty map. Throws PostfixConfigurationError when nothing can be begun.
    MapCopy(const std::string& table, const LockedMap& map);
    MapCopy(const MapCopy&) = delete;
    MapCopy& operator=(const MapCopy&) = delete;
    ~MapCopy();

    /// Copies more of the map, in whole steps, when `size` bytes more are due. What fails here fails in complete().
    void advance(std::size_t size);
    /// Copies the rest, owner and mode, and syncs. The map must have been locked since the beginning. Throws
    /// PostfixConfigurationError; then nothing is left.
    void complete();
    /// Gives the complete copy its name. Throws PostfixConfigurationError.
    void arm();

    /// recordCount of what was copied.
    const std::optional<std::uint32_t>& records() const noexcept { return records_; }
    /// Removes the copy. Throws SystemError("unlink"); then the destructor still puts it back, because a copy that is
    /// left would be put back by the next change.
    void discard();

private:
    std::string table_;
    int source_;
    QuietFdOwner draft_;
    std::size_t due_ = 0;
    bool drafted_ = false;
    bool armed_ = false;
    std::optional<std::uint32_t> records_;
};

/// Whether a copy of the map stands there, whatever it is. Throws PostfixConfigurationError when that cannot be told.
bool mapCopyExists(const std::string& table);
/// Puts the copy, if there is one, in the map's place, and logs that; answers whether it did. A copy that was left
/// half-made is removed. The caller holds the table's locks. Throws PostfixConfigurationError.
bool putMapCopyBack(const std::string& table);

}  // namespace kavro::mail::postfix
