// Counting the messages of a mailbox, and the modification times that tell whether messages moved meanwhile.
#include "storage/maildir_usage.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <optional>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/directory_listing.h"
#include "storage/maildirpp_quota.h"
#include "util/log.h"

using kavro::retryInterrupted;
using kavro::mail::DirectoryListing;

namespace kavro::mail {

bool isCountedSubfolder(std::string_view name) noexcept {
    return name.size() > 1 && name[0] == '.' && name[1] != '.' && name.substr(1) != "Trash";
}

}  // namespace kavro::mail

namespace {

struct MailboxUsage {
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long newestMtime = 0;
};

/// Vanished between two looks: mail is delivered, read and removed while it is counted.
bool hasVanished(int error) {
    return error == ENOENT || error == ENOTDIR;
}

/// The size that delivery agents write into a message's name: ",S=", digits, then ":" or the end. Nothing for a size
/// above the largest signed 64-bit number.
std::optional<std::uint64_t> sizeFromName(std::string_view name) {
    constexpr std::string_view MARK = ",S=";
    for (auto at = name.find(MARK); at != std::string_view::npos; at = name.find(MARK, at + MARK.size())) {
        const char* begin = name.data() + at + MARK.size();
        const char* end = name.data() + name.size();
        const char* stop = std::find_if(begin, end, [](char c) { return c < '0' || c > '9'; });
        if (stop != begin && (stop == end || *stop == ':')) {
            std::int64_t size = 0;
            if (std::from_chars(begin, stop, size).ec == std::errc()) {
                return static_cast<std::uint64_t>(size);
            }
            return std::nullopt;
        }
    }
    return std::nullopt;
}

/// Sizes that names or sparse files claim may add up to more than the quota file can hold: the sum stops there.
void addSize(std::uint64_t& total, std::uint64_t size) {
    constexpr std::uint64_t LARGEST = INT64_MAX;
    total = size > LARGEST - total ? LARGEST : total + size;
}

/// Adds the entries of one message directory, named relative to the folder that is open. False with errno; what is no
/// directory or not there, a link too, holds nothing.
bool countMessages(int folder, const char* name, std::size_t pathLength, MailboxUsage& usage) {
    DirectoryListing listing(folder, name);
    if (!listing.isOpen()) {
        return hasVanished(errno);
    }
    struct stat status;
    if (retryInterrupted([&] { return ::fstat(listing.fd(), &status); }) == -1) {
        return false;
    }
    usage.newestMtime = std::max(usage.newestMtime, static_cast<long>(status.st_mtime));

    DirectoryListing::Entry entry;
    DirectoryListing::Step step;
    while ((step = listing.next(entry)) == DirectoryListing::Step::Entry) {
        if (pathLength + 1 + entry.name.size() >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return false;
        }
        std::optional<std::uint64_t> size = sizeFromName(entry.name);
        if (!size) {
            if (retryInterrupted(
                    [&] { return ::fstatat(listing.fd(), entry.name.data(), &status, AT_SYMLINK_NOFOLLOW); }) == -1) {
                if (hasVanished(errno)) {
                    continue;
                }
                return false;
            }
            size = static_cast<std::uint64_t>(status.st_size);
        }
        addSize(usage.size, *size);
        ++usage.count;
    }
    return step == DirectoryListing::Step::End;
}

/// Adds what is new and what was seen in a folder that is open.
bool countFolder(int folder, std::size_t pathLength, MailboxUsage& usage) {
    constexpr std::size_t NAME_LENGTH = 4;  // "/new"
    return countMessages(folder, "new", pathLength + NAME_LENGTH, usage) &&
           countMessages(folder, "cur", pathLength + NAME_LENGTH, usage);
}

bool countMailbox(MailboxUsage& usage) {
    DirectoryListing listing(AT_FDCWD, ".");
    if (!listing.isOpen() || !countFolder(listing.fd(), 0, usage)) {
        return false;
    }
    DirectoryListing::Entry entry;
    DirectoryListing::Step step;
    while ((step = listing.next(entry)) == DirectoryListing::Step::Entry) {
        if (!kavro::mail::isCountedSubfolder(entry.name)) {
            continue;
        }
        const kavro::QuietFdOwner folder(retryInterrupted(
            [&] { return ::openat(listing.fd(), entry.name.data(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (folder.empty() ? !hasVanished(errno) : !countFolder(folder.get(), entry.name.size(), usage)) {
            return false;
        }
    }
    return step == DirectoryListing::Step::End;
}

/// What is reported of one message directory.
struct MessageDirectory {
    const char* suffix;
    const char* nameTooLong;
    const char* statFailed;
};

constexpr MessageDirectory MESSAGE_DIRECTORIES[] = {
    {"/cur", "Maildir subfolder 'cur' name too long to fit the allowed buffer", "Maildir subfolder 'cur' stat failed"},
    {"/new", "Maildir subfolder 'new' name too long to fit the allowed buffer", "Maildir subfolder 'new' stat failed"},
};

int failWith(int error, const char* message) {
    errno = error;
    messlog2(0, 0, "%s", message);
    return 0;
}

}  // namespace

int get_maildirpp_messages_usage(std::uint64_t* size, std::uint64_t* count, long* newestMtime) {
    MailboxUsage usage;
    const bool counted = countMailbox(usage);
    *size = usage.size;
    *count = usage.count;
    *newestMtime = usage.newestMtime;
    return counted ? 1 : 0;
}

int get_maildirpp_folder_mtime(const char* folder, long* newest) {
    for (const MessageDirectory& directory : MESSAGE_DIRECTORIES) {
        const std::string path = std::string(folder) + directory.suffix;
        struct stat status;
        if (path.size() >= PATH_MAX) {
            return failWith(ENAMETOOLONG, directory.nameTooLong);
        }
        if (retryInterrupted([&] { return ::stat(path.c_str(), &status); }) == -1) {
            return failWith(EIO, directory.statFailed);
        }
        *newest = std::max(*newest, static_cast<long>(status.st_mtime));
    }
    return 1;
}
