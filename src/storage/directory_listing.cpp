// Reading of directories through getdents64(2).
#include "storage/directory_listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "process/retry.h"

namespace kavro::mail {
namespace {

/// About a thousand messages' names; below malloc's mmap threshold, so that the next listing finds it warm.
constexpr std::size_t BUFFER_SIZE = 65536;

}  // namespace

DirectoryListing::DirectoryListing(int parent, const char* name)
    : fd_(retryInterrupted([=] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); })) {
    if (isOpen()) {
        buffer_ = std::make_unique_for_overwrite<char[]>(BUFFER_SIZE);
    }
}

DirectoryListing::~DirectoryListing() {
    const ErrnoKeeper keeper;
    if (isOpen()) {
        ::close(fd_);
    }
}

DirectoryListing::Step DirectoryListing::next(Entry& entry) {
    for (;;) {
        if (position_ == filled_) {
            const ssize_t got = retryInterrupted([this] { return ::getdents64(fd_, buffer_.get(), BUFFER_SIZE); });
            // A directory that was removed after it was opened lists nothing.
            if (got == 0 || (got == -1 && errno == ENOENT)) {
                return Step::End;
            }
            if (got == -1) {
                return Step::Failed;
            }
            filled_ = static_cast<std::size_t>(got);
            position_ = 0;
        }
        const auto* record = reinterpret_cast<const dirent64*>(buffer_.get() + position_);
        position_ += record->d_reclen;
        entry = {record->d_name, record->d_type};
        if (entry.name != "." && entry.name != "..") {
            return Step::Entry;
        }
    }
}

}  // namespace kavro::mail
