// Writing of maildirsize. The file is counted and written whole beside the live one and renamed over it; deliveries go
// on meanwhile, so a change of the mailbox seen afterwards marks the new file as too old to be trusted.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/directory_listing.h"
#include "storage/maildir_usage.h"
#include "storage/maildirpp_quota.h"
#include "storage/mailname_tree.h"
#include "util/log.h"
#include "util/working_directory.h"

using kavro::QuietFdOwner;
using kavro::retryInterrupted;
using kavro::mail::DirectoryListing;

namespace {

constexpr const char* MAILDIRSIZE = "maildirsize";
constexpr std::size_t HOST_NAME_BUFFER = 65;
constexpr std::size_t CONTENT_BUFFER = 100;
constexpr int CREATION_ATTEMPTS = 5;
constexpr unsigned ATTEMPT_PAUSE_SECONDS = 2;
/// Older than this, a delivery agent counts the mailbox itself instead of trusting the file.
constexpr long RECALCULATION_AGE_SECONDS = 960;

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

bool createTemporary(TemporaryFile& file) {
    char host[HOST_NAME_BUFFER] = {};
    if (::gethostname(host, sizeof host) == -1) {
        messlog2(0, 0, "Unable to receive hostname");
        return false;
    }
    for (int attempt = 0; attempt < CREATION_ATTEMPTS; ++attempt) {
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
        ::sleep(ATTEMPT_PAUSE_SECONDS);
    }
    errno = EAGAIN;
    messlog2(0, 0, "Maximal allowed number of attempts to create a maildirsize file exceeded");
    return false;
}

bool writeText(int fd, const char* text, std::size_t length) {
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

bool isDirectory(const DirectoryListing& parent, const DirectoryListing::Entry& entry) {
    struct stat status;
    return entry.type == DT_DIR ||
           (retryInterrupted([&] { return ::fstatat(parent.fd(), entry.name.data(), &status, 0); }) == 0 &&
            S_ISDIR(status.st_mode));
}

void reportBadEntry(const std::string& name) {
    char directory[PATH_MAX];
    const char* here = ::getcwd(directory, sizeof directory) == nullptr ? "." : directory;
    errno = 0;
    messlog2(0, 0, "Bad/unrecognized entry %s within Maildir folder %s\n", name.c_str(), here);
}

/// The newest change of a counted directory as it is now. False when it cannot be told, reported.
bool newestChange(long& newest) {
    if (get_maildirpp_folder_mtime(".", &newest) == 0) {
        return false;
    }
    DirectoryListing listing(AT_FDCWD, ".");
    DirectoryListing::Entry entry;
    DirectoryListing::Step step = DirectoryListing::Step::Failed;
    while (listing.isOpen() && (step = listing.next(entry)) == DirectoryListing::Step::Entry) {
        if (!kavro::mail::isCountedSubfolder(entry.name)) {
            continue;
        }
        const std::string folder(entry.name);
        if (!isDirectory(listing, entry)) {
            reportBadEntry(folder);
        } else if (get_maildirpp_folder_mtime(folder.c_str(), &newest) == 0) {
            return false;
        }
    }
    if (step == DirectoryListing::Step::Failed) {
        messlog2(0, 0, "Unable to open Maildir folder. Has it just been removed?");
        return false;
    }
    return true;
}

/// Makes the file look so old that the next delivery counts anew.
void markStale(long newestCounted) {
    const timespec times[2] = {{0, UTIME_NOW}, {newestCounted - RECALCULATION_AGE_SECONDS, 0}};
    retryInterrupted([&] { return ::utimensat(AT_FDCWD, MAILDIRSIZE, times, AT_SYMLINK_NOFOLLOW); });
}

/// The whole work, with the Maildir as working directory.
bool writeHere(uid_t uid, gid_t gid, std::uint64_t sizeLimit, std::uint64_t countLimit) {
    TemporaryFile file;
    if (!createTemporary(file)) {
        return false;
    }
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long newestCounted = 0;
    if (retryInterrupted([&] { return ::fchown(file.fd(), uid, gid); }) == -1 ||
        get_maildirpp_messages_usage(&size, &count, &newestCounted) == 0) {
        return false;
    }
    char content[CONTENT_BUFFER];
    const int length =
        std::snprintf(content, sizeof content, "%ldS,%lldC\n%12ld%12lld\n", static_cast<long>(sizeLimit),
                      static_cast<long long>(countLimit), static_cast<long>(size), static_cast<long long>(count));
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof content) {
        errno = EINVAL;
        return false;
    }
    if (!writeText(file.fd(), content, static_cast<std::size_t>(length)) || !commit(file) ||
        !file.rename(MAILDIRSIZE)) {
        return false;
    }
    long newestNow = 0;
    if (!newestChange(newestNow) || newestNow > newestCounted) {
        markStale(newestCounted);
    }
    return true;
}

}  // namespace

int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, std::uint64_t sizeLimit,
                                std::uint64_t countLimit) {
    const QuietFdOwner directory = kavro::mail::openMailDirectory(maildir);
    kavro::WorkingDirectoryScope scope;
    return !directory.empty() && scope.enter(directory.get()) && writeHere(uid, gid, sizeLimit, countLimit) ? 1 : 0;
}
