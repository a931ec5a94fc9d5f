// Dump and rebuild of a table under its locks, through a text source that removes itself.
#include "postfix/table_rewrite.h"

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "postfix/map_copy.h"
#include "postfix/postfix_errors.h"
#include "postfix/postmap.h"
#include "postfix/tables.h"
#include "process/retry.h"

namespace kavro::mail::postfix {

namespace {

/// Large tables are written through here: few system calls matter more than memory.
constexpr std::size_t kBufferSize = 65536;
constexpr mode_t kTextSourceMode = 0644;

void require(const PostmapResult& result) {
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.reason());
    }
}

/// postmap ends with status 0 when it could not read its text source to the end. What it leaves out on purpose (a key
/// that was there before, a line that is no record) it names in a line each. The count of the old map tells whether
/// counts can be relied on: it has to be that of its dump.
void requireRecords(const std::string& table, const std::optional<std::uint32_t>& before, std::size_t dumped,
                    std::size_t written, const std::string& diagnostics) {
    if (!before || *before != dumped) {
        return;
    }
    const std::optional<std::uint32_t> after = recordCount(table);
    const auto leftOut = static_cast<std::size_t>(std::count(diagnostics.begin(), diagnostics.end(), '\n'));
    if (after && *after + leftOut < written) {
        throw PostfixConfigurationError("only " + std::to_string(*after) + " of " + std::to_string(written) +
                                        " records reached the table " + table);
    }
}

struct DumpCount {
    std::size_t lines = 0;
    bool endsInLineFeed = true;
};

/// An empty consumer drops what comes.
DumpCount countedDump(const std::string& table, const process::Consumer& consumer) {
    DumpCount count;
    require(runPostmap({"-s", table}, {}, [&](const std::vector<char>& chunk) {
        const char* const end = chunk.data() + chunk.size();
        for (const char* rest = chunk.data(); rest != end; ++count.lines) {
            const void* feed = std::memchr(rest, '\n', static_cast<std::size_t>(end - rest));
            if (feed == nullptr) {
                break;
            }
            rest = static_cast<const char*>(feed) + 1;
        }
        count.endsInLineFeed = chunk.back() == '\n';
        if (!consumer.empty()) {
            consumer(chunk);
        }
    }));
    return count;
}

TableLock beginRewrite(const std::string& table) {
    TableLock lock(table, TableLock::Mode::Exclusive);
    requireRegularMap(table);
    putMapCopyBack(table);
    return lock;
}

}  // namespace

AutocleanOFStream::AutocleanOFStream(const std::string& path) : path_(path) {
    ::unlink(path_.c_str());
    const int fd = retryInterrupted(
        [&] { return ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kTextSourceMode); });
    if (fd == -1) {
        setstate(std::ios::failbit);
        return;
    }
    // The standard stream itself opens by name only, and not exclusively.
    static_cast<std::filebuf&>(*rdbuf()) = __gnu_cxx::stdio_filebuf<char>(fd, std::ios::out, kBufferSize);
    if (!is_open()) {
        ::close(fd);
        setstate(std::ios::failbit);
    }
}

AutocleanOFStream::~AutocleanOFStream() {
    const ErrnoKeeper keeper;
    // What cannot be flushed any more does not matter, the file goes.
    exceptions(std::ios::goodbit);
    close();
    if (!removed_) {
        ::unlink(path_.c_str());
    }
}

void AutocleanOFStream::remove() {
    checkedCall("unlink", [this] { return ::unlink(path_.c_str()); });
    removed_ = true;
}

void dumpTable(const std::string& table, const process::Consumer& consumer) {
    // "postmap -s" locks the map for single reads only, and a map that grows between two of them is read with records
    // missing. Adding and rebuilding runs wait for an exclusive flock(2) on the same file, readers share it.
    dumpTable(table, LockedMap(table, LOCK_SH), consumer);
}

void dumpTable(const std::string& table, const LockedMap& map, const process::Consumer& consumer) {
    const DumpCount dumped = countedDump(table, consumer);
    const std::optional<std::uint32_t> held = map.empty() ? std::nullopt : recordCount(map.descriptor());
    // postmap ends with status 0 when it could not write its output. A map that was torn once may hold fewer records
    // than its head says for ever: then every dump gives the same.
    if (held && dumped.lines < *held && (!dumped.endsInLineFeed || countedDump(table, {}).lines != dumped.lines)) {
        throw PostfixConfigurationError("only " + std::to_string(dumped.lines) + " of " + std::to_string(*held) +
                                        " records were read from the table " + table);
    }
}

TableRewrite::TableRewrite(const std::string& table)
    : table_(table),
      textLock_(textSourcePath(table), MKLock::kHashedName, MKLock::kWait),
      tableLock_(beginRewrite(table)),
      text_(textSourcePath(table)) {
    text_.exceptions(std::ios::badbit | std::ios::failbit);
}

void TableRewrite::copyAhead(const LockedMap& map, std::size_t dumped) {
    // A map is two to three times as large as its records.
    constexpr std::size_t kMapToDump = 3;
    if (!copy_) {
        copy_ = std::make_unique<MapCopy>(table_, map);
    }
    copy_->advance(dumped * kMapToDump);
}

void TableRewrite::rebuild(const std::string& option, const std::function<void()>& built) {
    text_.close();
    std::vector<std::string> arguments{table_};
    if (!option.empty()) {
        arguments.insert(arguments.begin(), option);
    }
    std::unique_ptr<MapCopy> before = std::move(copy_);
    if (!before) {
        const LockedMap map(table_, LOCK_SH);
        before = std::make_unique<MapCopy>(table_, map);
        before->complete();
    }
    before->arm();
    const PostmapResult result = runPostmap(arguments, {}, {}, tableLock_.descriptor());
    require(result);
    requireRecords(table_, before->records(), dumped_, written_, result.diagnostics);
    text_.remove();
    if (built) {
        built();
    }
    before->discard();
}

}  // namespace kavro::mail::postfix
