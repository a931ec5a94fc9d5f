// Dump and rebuild of a table under its lock, through a text source that removes itself.
#include "postfix/table_rewrite.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "postfix/postfix_errors.h"
#include "postfix/postmap.h"
#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro::mail::postfix {

namespace {

/// Large tables are written through here: few system calls matter more than memory.
constexpr std::streamsize kBufferSize = 65536;

/// The part after the map type; the whole name when there is no type.
std::string textSourcePath(const std::string& table) {
    return table.substr(table.find(':') + 1);
}

/// Keeps writers off a hash map while it is dumped. "postmap -s" locks the file for single reads only, and a map that
/// grows between two of them is read with records missing. Adding and rebuilding runs wait for an exclusive flock(2) on
/// the same file, readers share it.
class MapReadLock {
public:
    explicit MapReadLock(const std::string& mapFile)
        : file_(retryInterrupted([&] { return ::open(mapFile.c_str(), O_RDONLY | O_CLOEXEC); })) {
        // A map that cannot be opened is postmap's to report.
        if (!file_.empty()) {
            checkedCall("flock", [this] { return ::flock(file_.get(), LOCK_SH); });
        }
    }

private:
    FdOwner file_;
};

void require(const PostmapResult& result) {
    if (!result.succeeded()) {
        throw PostfixConfigurationError(result.reason());
    }
}

}  // namespace

AutocleanOFStream::AutocleanOFStream(const std::string& path)
    : path_(path), buffer_(std::make_unique<char[]>(kBufferSize)) {
    // Only a buffer set before the file is opened is used.
    rdbuf()->pubsetbuf(buffer_.get(), kBufferSize);
    ::unlink(path_.c_str());
    open(path_, std::ios::out | std::ios::trunc);
}

AutocleanOFStream::~AutocleanOFStream() {
    const int savedErrno = errno;
    // Closed here, while the buffer lives; what cannot be flushed any more does not matter, the file goes.
    exceptions(std::ios::goodbit);
    close();
    ::unlink(path_.c_str());
    errno = savedErrno;
}

TableRewrite::TableRewrite(const std::string& table)
    : table_(table), path_(textSourcePath(table)), lock_(path_, MKLock::kHashedName, MKLock::kWait), text_(path_) {
    text_.exceptions(std::ios::badbit | std::ios::failbit);
}

void dumpTable(const std::string& table, const process::Consumer& consumer) {
    const MapReadLock lock(textSourcePath(table) + ".db");
    require(runPostmap({"-s", table}, {}, consumer));
}

void TableRewrite::rebuild(const std::string& option, const std::function<void()>& built) {
    text_.close();
    std::vector<std::string> arguments{table_};
    if (!option.empty()) {
        arguments.insert(arguments.begin(), option);
    }
    require(runPostmap(arguments, {}, {}));
    if (built) {
        built();
    }
}

}  // namespace kavro::mail::postfix
