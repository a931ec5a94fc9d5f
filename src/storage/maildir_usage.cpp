// One pass over "new" and "cur" of each folder; modification times tell whether messages moved meanwhile.
#include "storage/maildir_usage.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/file_io.h"
#include "util/log.h"

using kavro::retryInterrupted;

namespace {

struct MailboxUsage {
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long newestMtime = 0;
};

/// Vanished between two looks: mail is delivered, read and removed while it is counted.
bool has_vanished(int error) {
    return error == ENOENT || error == ENOTDIR;
}

/// The size that delivery agents write into a message's name: ",S=", digits, then ":" or the end. Nothing for a size
/// above the largest signed 64-bit number.
std::optional<std::uint64_t> size_from_name(std::string_view name) {
    constexpr std::string_view kMark = ",S=";
    for (auto at = name.find(kMark); at != std::string_view::npos; at = name.find(kMark, at + kMark.size())) {
        const char* begin = name.data() + at + kMark.size();
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
void add_size(std::uint64_t& total, std::uint64_t size) {
    constexpr std::uint64_t kLargest = INT64_MAX;
    total = size > kLargest - total ? kLargest : total + size;
}

/// Adds the entries of one message directory, named relative to the folder that is open. False with errno; what is no
/// directory or not there, a link too, holds nothing.
bool count_messages(int folder, const char* name, std::size_t pathLength, MailboxUsage& usage) {
    const kavro::CDirectory directory = kavro::openDirectoryAt(folder, name);
    if (directory == nullptr) {
        return has_vanished(errno);
    }
    const int fd = ::dirfd(directory.get());
    struct stat status;
    if (retryInterrupted([&] { return ::fstat(fd, &status); }) == -1) {
        return false;
    }
    usage.newestMtime = std::max(usage.newestMtime, static_cast<long>(status.st_mtime));

    while (const dirent* entry = kavro::nextEntry(directory.get())) {
        const std::string_view file(entry->d_name);
        if (pathLength + 1 + file.size() >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return false;
        }
        std::optional<std::uint64_t> size = size_from_name(file);
        if (!size) {
            if (retryInterrupted([&] { return ::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW); }) == -1) {
                if (has_vanished(errno)) {
                    continue;
                }
                return false;
            }
            size = static_cast<std::uint64_t>(status.st_size);
        }
        add_size(usage.size, *size);
        ++usage.count;
    }
    return errno == 0;
}

/// Adds what is new and what was seen in a folder that is open.
bool count_folder(int folder, std::size_t pathLength, MailboxUsage& usage) {
    constexpr std::size_t kNameLength = 4;  // "/new"
    return count_messages(folder, "new", pathLength + kNameLength, usage) &&
           count_messages(folder, "cur", pathLength + kNameLength, usage);
}

bool count_mailbox(MailboxUsage& usage) {
    const kavro::CDirectory directory = kavro::openDirectoryAt(AT_FDCWD, ".");
    const int fd = directory == nullptr ? -1 : ::dirfd(directory.get());
    if (fd == -1 || !count_folder(fd, 0, usage)) {
        return false;
    }
    while (const dirent* entry = kavro::nextEntry(directory.get())) {
        if (!kavro::mail::isCountedSubfolder(entry->d_name)) {
            continue;
        }
        const kavro::QuietFdOwner folder(retryInterrupted(
            [&] { return ::openat(fd, entry->d_name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (folder.empty() ? !has_vanished(errno) : !count_folder(folder.get(), std::strlen(entry->d_name), usage)) {
            return false;
        }
    }
    return errno == 0;
}

/// What is reported of one message directory.
struct MessageDirectory {
    const char* suffix;
    const char* nameTooLong;
    const char* statFailed;
};

constexpr MessageDirectory kMessageDirectories[] = {
    {"/cur", "Maildir subfolder 'cur' name too long to fit the allowed buffer", "Maildir subfolder 'cur' stat failed"},
    {"/new", "Maildir subfolder 'new' name too long to fit the allowed buffer", "Maildir subfolder 'new' stat failed"},
};

int fail_with(int error, const char* message) {
    errno = error;
    messlog2(0, 0, "%s", message);
    return 0;
}

}  // namespace

namespace kavro::mail {

bool isCountedSubfolder(std::string_view name) noexcept {
    return name.size() > 1 && name[0] == '.' && name[1] != '.' && name.substr(1) != "Trash";
}

}  // namespace kavro::mail

int get_maildirpp_messages_usage(std::uint64_t* size, std::uint64_t* count, long* newestMtime) {
    MailboxUsage usage;
    const bool counted = count_mailbox(usage);
    *size = usage.size;
    *count = usage.count;
    *newestMtime = usage.newestMtime;
    return counted ? 1 : 0;
}

int get_maildirpp_folder_mtime(const char* folder, long* newest) {
    for (const MessageDirectory& directory : kMessageDirectories) {
        const std::string path = std::string(folder) + directory.suffix;
        struct stat status;
        if (path.size() >= PATH_MAX) {
            return fail_with(ENAMETOOLONG, directory.nameTooLong);
        }
        if (retryInterrupted([&] { return ::stat(path.c_str(), &status); }) == -1) {
            return fail_with(EIO, directory.statFailed);
        }
        *newest = std::max(*newest, static_cast<long>(status.st_mtime));
    }
    return 1;
}
