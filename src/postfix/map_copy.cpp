// A copy is made under a third name and renamed, so that what bears its name is always whole.
#include "postfix/map_copy.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "postfix/postfix_errors.h"
#include "postfix/tables.h"
#include "process/retry.h"
#include "util/file_io.h"
#include "util/log.h"

namespace kavro::mail::postfix {

namespace {

// The head of a Berkeley DB hash file: 32-bit numbers in the machine's byte order.
constexpr std::size_t kMagicOffset = 12;
constexpr std::uint32_t kHashMagic = 0x061561;
/// How many elements the file was made for, plus those added, less those removed.
constexpr std::size_t kElementsOffset = 88;
/// What postmap makes every map for.
constexpr std::uint32_t kElementsAtFirst = 4096;

constexpr std::size_t kBlockSize = 131072;
/// A multiple of every file system's block, so that blocks can be shared instead of copied.
constexpr std::size_t kStep = 4194304;

std::string copyPath(const std::string& table) {
    return mapFile(table) + ".before";
}

std::string draftPath(const std::string& table) {
    return copyPath(table) + ".new";
}

[[noreturn]] void fail(const std::string& what, const std::string& path, int code = errno) {
    throw PostfixConfigurationError(what + " '" + path + "': " + std::strerror(code));
}

/// False when nothing is there.
bool isThere(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            throw PostfixConfigurationError("'" + path + "' is not a regular file");
        }
        return true;
    }
    if (errno != ENOENT) {
        fail("unable to examine", path);
    }
    return false;
}

/// For files of which the kernel copies nothing, from where it stopped. -1 with errno.
int copyByBlocks(int source, int target) {
    std::vector<char> block(kBlockSize);
    for (;;) {
        const ssize_t size = retryInterrupted([&] { return ::read(source, block.data(), block.size()); });
        if (size <= 0 ||
            writeAll(target, block.data(), static_cast<std::size_t>(size)) != static_cast<std::size_t>(size)) {
            return size == 0 ? 0 : -1;
        }
    }
}

ssize_t copyRange(int source, int target, std::size_t size) {
    return retryInterrupted([&] { return ::copy_file_range(source, nullptr, target, nullptr, size, 0); });
}

/// From where it stopped to the end. -1 with errno.
int copyRest(int source, int target) {
    for (;;) {
        const ssize_t size = copyRange(source, target, std::numeric_limits<int>::max());
        if (size > 0) {
            continue;
        }
        if (size == -1 && errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) {
            return -1;
        }
        // Some file systems answer 0 where they cannot copy: reading tells the end for certain.
        return copyByBlocks(source, target);
    }
}

/// -1 with errno.
int fillDraft(int source, int draft) {
    struct stat status {};
    if (copyRest(source, draft) == -1 || ::fstat(source, &status) == -1 ||
        retryInterrupted([&] { return ::fchown(draft, status.st_uid, status.st_gid); }) == -1 ||
        retryInterrupted([&] { return ::fchmod(draft, status.st_mode & 07777); }) == -1) {
        return -1;
    }
    return retryInterrupted([&] { return ::fdatasync(draft); });
}

}  // namespace

LockedMap::LockedMap(const std::string& table, int operation) {
    const std::string path = mapFile(table);
    if (!isThere(path)) {
        return;
    }
    file_ = FdOwner(openRegular(path.c_str(), O_RDONLY | O_NOFOLLOW));
    if (!file_.empty()) {
        checkedCall("flock", [&] { return ::flock(file_.get(), operation); });
    }
}

void requireRegularMap(const std::string& table) {
    isThere(mapFile(table));
}

std::optional<std::uint32_t> recordCount(int mapDescriptor) {
    std::array<char, kElementsOffset + sizeof(std::uint32_t)> head{};
    if (retryInterrupted([&] { return ::pread(mapDescriptor, head.data(), head.size(), 0); }) !=
        static_cast<ssize_t>(head.size())) {
        return {};
    }
    std::uint32_t magic = 0;
    std::uint32_t elements = 0;
    std::memcpy(&magic, head.data() + kMagicOffset, sizeof magic);
    std::memcpy(&elements, head.data() + kElementsOffset, sizeof elements);
    if (magic != kHashMagic || elements < kElementsAtFirst) {
        return {};
    }
    return elements - kElementsAtFirst;
}

std::optional<std::uint32_t> recordCount(const std::string& table) {
    const LockedMap map(table, LOCK_SH);
    return map.empty() ? std::nullopt : recordCount(map.descriptor());
}

MapCopy::MapCopy(const std::string& table, const LockedMap& map) : table_(table), source_(map.descriptor()) {
    if (map.empty()) {
        if (isThere(mapFile(table))) {
            fail("unable to open", mapFile(table));
        }
        return;
    }
    records_ = recordCount(source_);
    const std::string draft = draftPath(table);
    ::unlink(draft.c_str());
    draft_ = QuietFdOwner(retryInterrupted(
        [&] { return ::open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); }));
    if (draft_.empty()) {
        fail("unable to make", draft);
    }
    drafted_ = true;
}

MapCopy::~MapCopy() {
    const ErrnoKeeper keeper;
    if (drafted_) {
        ::unlink(draftPath(table_).c_str());
    }
    if (armed_ &&
        retryInterrupted([this] { return ::rename(copyPath(table_).c_str(), mapFile(table_).c_str()); }) == -1) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to put the lookup table %s back from %s: %s", table_.c_str(),
                  copyPath(table_).c_str(), std::strerror(errno));
    }
}

void MapCopy::advance(std::size_t size) {
    due_ += size;
    for (; drafted_ && due_ >= kStep; due_ -= kStep) {
        copyRange(source_, draft_.get(), kStep);
    }
}

void MapCopy::complete() {
    if (drafted_ && (fillDraft(source_, draft_.get()) == -1 || draft_.close_nothrow() == -1)) {
        fail("unable to copy the lookup table to", draftPath(table_));
    }
}

void MapCopy::arm() {
    if (drafted_) {
        if (retryInterrupted([this] { return ::rename(draftPath(table_).c_str(), copyPath(table_).c_str()); }) == -1) {
            fail("unable to copy the lookup table to", draftPath(table_));
        }
        drafted_ = false;
        armed_ = true;
    }
}

void MapCopy::discard() {
    if (armed_) {
        checkedCall("unlink", [this] { return ::unlink(copyPath(table_).c_str()); });
        armed_ = false;
    }
}

bool mapCopyExists(const std::string& table) {
    return isThere(copyPath(table));
}

bool putMapCopyBack(const std::string& table) {
    ::unlink(draftPath(table).c_str());
    if (!mapCopyExists(table)) {
        return false;
    }
    // A rebuild that outlived its command has to end before.
    const LockedMap map(table, LOCK_EX);
    if (retryInterrupted([&] { return ::rename(copyPath(table).c_str(), mapFile(table).c_str()); }) == -1) {
        fail("unable to put back", copyPath(table));
    }
    kavro_log(KAVRO_LOG_WARNING, "The rebuild of the lookup table %s was interrupted: it is put back as it was before",
              table.c_str());
    return true;
}

}  // namespace kavro::mail::postfix
