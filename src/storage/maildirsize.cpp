// Writing and reading of maildirsize. The file is counted and written whole beside the live one and renamed over it;
// deliveries go on meanwhile, so a change of the mailbox seen afterwards marks the new file as too old to be trusted.
// Read are the limits from its first line, and the usage as the sum of the other lines.
#include "storage/maildirsize.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/mail_tree.h"
#include "storage/maildir_usage.h"
#include "util/file_io.h"
#include "util/log.h"
#include "util/working_directory.h"

using kavro::QuietFdOwner;
using kavro::retryInterrupted;

namespace {

constexpr const char* kMaildirsize = "maildirsize";
constexpr std::size_t kHostNameBuffer = 65;
constexpr std::size_t kContentBuffer = 100;
constexpr int kCreationAttempts = 5;
constexpr unsigned kAttemptPauseSeconds = 2;
/// Older than this, a delivery agent counts the mailbox itself instead of trusting the file.
constexpr long kRecalculationAgeSeconds = 960;

/// A file in "tmp", no link in its place, that is removed again unless it took its final name. errno is kept by the
/// clean-up.
class TemporaryFile {
public:
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() { discard(); }

    int fd() const noexcept { return fd_.get(); }

    /// Makes an empty file of that name which is known to be our own. False with errno; the name is then free.
    bool create(const char* directory, std::string name) {
        directory_ = QuietFdOwner(
            retryInterrupted([=] { return ::open(directory, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (directory_.empty()) {
            return false;
        }
        name_ = std::move(name);
        fd_ = QuietFdOwner(retryInterrupted([this] {
            return ::openat(directory_.get(), name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            0644);
        }));
        if (!fd_.empty() && isNamedFile() && retryInterrupted([this] { return ::ftruncate(fd_.get(), 0); }) == 0) {
            return true;
        }
        discard();
        return false;
    }

    bool close() noexcept { return fd_.close_nothrow() == 0; }

    bool rename(const char* target) noexcept {
        if (retryInterrupted([&] { return ::renameat(directory_.get(), name_.c_str(), AT_FDCWD, target); }) == -1) {
            return false;
        }
        name_.clear();
        return true;
    }

private:
    /// No link was slipped in between.
    bool isNamedFile() const {
        struct stat opened;
        struct stat named;
        return retryInterrupted([&] { return ::fstat(fd_.get(), &opened); }) == 0 &&
               retryInterrupted(
                   [&] { return ::fstatat(directory_.get(), name_.c_str(), &named, AT_SYMLINK_NOFOLLOW); }) == 0 &&
               opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
    }

    void discard() noexcept {
        const kavro::ErrnoKeeper keeper;
        fd_.close_nothrow();
        if (!name_.empty()) {
            retryInterrupted([this] { return ::unlinkat(directory_.get(), name_.c_str(), 0); });
            name_.clear();
        }
    }

    QuietFdOwner directory_;
    QuietFdOwner fd_;
    std::string name_;
};

bool create_temporary(TemporaryFile& file) {
    char host[kHostNameBuffer] = {};
    if (::gethostname(host, sizeof host) == -1) {
        messlog2(0, 0, "Unable to receive hostname");
        return false;
    }
    for (int attempt = 0; attempt < kCreationAttempts; ++attempt) {
        char name[PATH_MAX];
        const int length =
            std::snprintf(name, sizeof name, "%lu.%u.%s-maildirsize", static_cast<unsigned long>(std::time(nullptr)),
                          static_cast<unsigned>(::getpid()), host);
        if (length < 0 || static_cast<std::size_t>(length) >= sizeof name) {
            errno = ENAMETOOLONG;
            messlog2(0, 0, "host name is too long to be used in filename");
            return false;
        }
        if (file.create("tmp", name)) {
            return true;
        }
        // The name holds the time: a later attempt has another one. Kept: also after the last attempt.
        ::sleep(kAttemptPauseSeconds);
    }
    errno = EAGAIN;
    messlog2(0, 0, "Maximal allowed number of attempts to create a maildirsize file exceeded");
    return false;
}

bool write_text(int fd, const char* text, std::size_t length) {
    if (kavro::writeAll(fd, text, length) != length) {
        messlog2(0, 0, "unable to write data to file");
        return false;
    }
    return true;
}

/// fsync and close, both tried.
bool commit(TemporaryFile& file) {
    const bool synced = retryInterrupted([&] { return ::fsync(file.fd()); }) == 0;
    const int error = errno;
    const bool closed = file.close();
    if (synced && closed) {
        return true;
    }
    if (!synced) {
        errno = error;
    }
    messlog2(0, 0, "unable to commit written data to file");
    return false;
}

/// Links are followed: a folder that is one is watched.
bool is_directory(int parent, const dirent& entry) {
    struct stat status;
    return entry.d_type == DT_DIR ||
           (retryInterrupted([&] { return ::fstatat(parent, entry.d_name, &status, 0); }) == 0 &&
            S_ISDIR(status.st_mode));
}

void report_bad_entry(const char* name) {
    char directory[PATH_MAX];
    const char* here = ::getcwd(directory, sizeof directory) == nullptr ? "." : directory;
    errno = 0;
    messlog2(0, 0, "Bad/unrecognized entry %s within Maildir folder %s\n", name, here);
}

/// The newest change of a counted directory as it is now. False when it cannot be told, reported.
bool newest_change(long& newest) {
    if (get_maildirpp_folder_mtime(".", &newest) == 0) {
        return false;
    }
    const kavro::CDirectory directory = kavro::openDirectoryAt(AT_FDCWD, ".");
    while (const dirent* entry = directory == nullptr ? nullptr : kavro::nextEntry(directory.get())) {
        if (!kavro::mail::isCountedSubfolder(entry->d_name)) {
            continue;
        }
        if (!is_directory(::dirfd(directory.get()), *entry)) {
            report_bad_entry(entry->d_name);
        } else if (get_maildirpp_folder_mtime(entry->d_name, &newest) == 0) {
            return false;
        }
    }
    if (directory == nullptr || errno != 0) {
        messlog2(0, 0, "Unable to open Maildir folder. Has it just been removed?");
        return false;
    }
    return true;
}

/// Makes the file look so old that the next delivery counts anew.
void mark_stale(long newestCounted) {
    const timespec times[2] = {{0, UTIME_NOW}, {newestCounted - kRecalculationAgeSeconds, 0}};
    retryInterrupted([&] { return ::utimensat(AT_FDCWD, kMaildirsize, times, AT_SYMLINK_NOFOLLOW); });
}

/// The whole work, with the Maildir as working directory.
bool write_here(uid_t uid, gid_t gid, std::uint64_t sizeLimit, std::uint64_t countLimit) {
    TemporaryFile file;
    if (!create_temporary(file)) {
        return false;
    }
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long newestCounted = 0;
    if (retryInterrupted([&] { return ::fchown(file.fd(), uid, gid); }) == -1 ||
        get_maildirpp_messages_usage(&size, &count, &newestCounted) == 0) {
        return false;
    }
    char content[kContentBuffer];
    const int length =
        std::snprintf(content, sizeof content, "%ldS,%lldC\n%12ld%12lld\n", static_cast<long>(sizeLimit),
                      static_cast<long long>(countLimit), static_cast<long>(size), static_cast<long long>(count));
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof content) {
        errno = EINVAL;
        return false;
    }
    if (!write_text(file.fd(), content, static_cast<std::size_t>(length)) || !commit(file) ||
        !file.rename(kMaildirsize)) {
        return false;
    }
    long newestNow = 0;
    if (!newest_change(newestNow) || newestNow > newestCounted) {
        mark_stale(newestCounted);
    }
    return true;
}

/// A longer file is due for a recount.
constexpr std::size_t kLargestMaildirsize = 5120;

struct Limits {
    long size = 0;
    long count = 0;
};

struct Usage {
    long size = 0;
    long count = 0;
};

/// A number at the beginning of `text`, which it is cut from. Nothing where there is none.
std::optional<long long> take_number(const char*& text) {
    char* end = nullptr;
    const long long number = std::strtoll(text, &end, 10);
    if (end == text) {
        return std::nullopt;
    }
    text = end;
    return number;
}

/// The first line. Kept lenient as delivery agents write it: a missing count limit, and what stands between the two.
std::optional<Limits> parse_header(const std::string& header) {
    if (header.empty()) {
        return Limits{};
    }
    const char* text = header.c_str();
    const char* const end = text + header.size();
    const auto size = take_number(text);
    if (!size) {
        return std::nullopt;
    }
    const std::string_view rest(text, static_cast<std::size_t>(end - text));
    if (rest == "S") {
        return Limits{*size, 0};
    }
    if (rest.size() < 2 || (rest[0] != 'S' && rest[1] != ',')) {
        return std::nullopt;
    }
    text += 2;
    const auto count = take_number(text);
    if (!count || *text != 'C' || text + 1 != end) {
        return std::nullopt;
    }
    return Limits{*size, *count};
}

/// One usage record: bytes, a blank, messages.
std::optional<Usage> parse_record(const std::string& line) {
    const char* text = line.c_str();
    const auto size = take_number(text);
    if (!size || std::isspace(static_cast<unsigned char>(*text)) == 0) {
        return std::nullopt;
    }
    ++text;
    const auto count = take_number(text);
    if (!count || text != line.c_str() + line.size()) {
        return std::nullopt;
    }
    return Usage{*size, *count};
}

/// The sum of the records. Nothing for a malformed one, a last line that does not end, or a sum below 0 or too large.
std::optional<Usage> sum_records(std::string_view records) {
    Usage sum;
    while (!records.empty()) {
        const auto end = records.find('\n');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const auto record = parse_record(std::string(records.substr(0, end)));
        if (!record || __builtin_add_overflow(sum.size, record->size, &sum.size) ||
            __builtin_add_overflow(sum.count, record->count, &sum.count)) {
            return std::nullopt;
        }
        records.remove_prefix(end + 1);
    }
    if (sum.size < 0 || sum.count < 0) {
        return std::nullopt;
    }
    return sum;
}

/// The file's text. Nothing when it cannot be read, is too long, or is no file: a pipe
/// in its place must not hold us, nor a link lead us away.
std::optional<std::string> read_maildirsize() {
    kavro::QuietFdOwner fd(retryInterrupted(
        [] { return ::open(kMaildirsize, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    struct stat status;
    if (fd.empty() || ::fstat(fd.get(), &status) == -1 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    const kavro::CFile file = kavro::readingStream(fd);
    if (file == nullptr) {
        return std::nullopt;
    }
    std::string text(kLargestMaildirsize + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0 || text.size() > kLargestMaildirsize) {
        return std::nullopt;
    }
    return text;
}

/// What the file says; the limits are set as far as they could be read.
std::optional<Usage> read_usage(long& sizeLimit, long& countLimit) {
    const auto text = read_maildirsize();
    if (!text) {
        return std::nullopt;
    }
    const auto end = text->find('\n');
    const auto header = end == std::string::npos ? std::nullopt : parse_header(text->substr(0, end));
    if (header) {
        sizeLimit = header->size;
        countLimit = header->count;
    }
    if (!header || header->size < 0) {
        kavro_log(KAVRO_LOG_ERROR, "maildirsize quota header is corrupted. Please run mxrepair utility to fix.");
        return std::nullopt;
    }
    return sum_records(std::string_view(*text).substr(end + 1));
}

}  // namespace

int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, std::uint64_t sizeLimit,
                                std::uint64_t countLimit) {
    const QuietFdOwner directory = kavro::mail::openMailDirectory(maildir);
    kavro::WorkingDirectoryScope scope;
    return !directory.empty() && scope.enter(directory.get()) && write_here(uid, gid, sizeLimit, countLimit) ? 1 : 0;
}

int get_maildirpp_usage_and_limits(const char* maildir, int strict, std::uint64_t* size, std::uint64_t* count,
                                   long* sizeLimit, long* countLimit) {
    *size = *count = 0;
    *sizeLimit = *countLimit = LONG_MAX;
    const QuietFdOwner directory = kavro::mail::openMailDirectory(maildir);
    kavro::WorkingDirectoryScope scope;
    if (directory.empty() || !scope.enter(directory.get())) {
        return 0;
    }
    if (const auto usage = read_usage(*sizeLimit, *countLimit)) {
        *size = static_cast<std::uint64_t>(usage->size);
        *count = static_cast<std::uint64_t>(usage->count);
        return 1;
    }
    if (strict != 0) {
        return 0;
    }
    long newestMtime = 0;
    return get_maildirpp_messages_usage(size, count, &newestMtime);
}

int get_maildirpp_usage(const char* maildir, std::uint64_t* size, std::uint64_t* count) {
    long sizeLimit = 0;
    long countLimit = 0;
    return get_maildirpp_usage_and_limits(maildir, 0, size, count, &sizeLimit, &countLimit);
}
