// Sizes of files and directory trees.
#include "util/dir_size.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>

#include "process/retry.h"
#include "util/file_io.h"
#include "util/working_directory.h"

namespace {

constexpr long kBlockSize = 512;

long entry_size(const struct stat& entry, int inBlocks) {
    return inBlocks != 0 ? entry.st_blocks : entry.st_size;
}

/// A sum that stops at the largest number: sparse files can claim more.
void add_size(long& total, long size) {
    if (__builtin_add_overflow(total, size, &total)) {
        total = LONG_MAX;
    }
}

/// Sum over what is in a directory named relative to another; 0 when it cannot be read. Going down by descriptors, the
/// walk needs no way back.
long count_directory(int parent, const char* name, int inBlocks) {
    const kavro::CDirectory directory = kavro::openDirectoryAt(parent, name);
    if (directory == nullptr) {
        return 0;
    }
    const int fd = ::dirfd(directory.get());
    long total = 0;
    while (const dirent* entry = kavro::nextEntry(directory.get())) {
        struct stat status {};
        if (kavro::retryInterrupted([&] { return ::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW); }) == -1) {
            continue;
        }
        add_size(total, entry_size(status, inBlocks));
        if (S_ISDIR(status.st_mode)) {
            add_size(total, count_directory(fd, entry->d_name, inBlocks));
        }
    }
    return total;
}

}  // namespace

long count_cur_dir(int inBlocks) {
    return count_directory(AT_FDCWD, ".", inBlocks);
}

long get_dir_size(const char* path, int inBlocks) {
    struct stat status {};
    if (kavro::retryInterrupted([&] { return ::lstat(path, &status); }) == -1) {
        return -1;
    }
    long total = entry_size(status, inBlocks);
    if (S_ISDIR(status.st_mode)) {
        kavro::WorkingDirectoryScope scope;
        if (!scope.enter(path)) {
            return -1;
        }
        add_size(total, count_cur_dir(inBlocks));
        if (!scope.restore()) {
            return -1;
        }
    }
    if (inBlocks != 0 && __builtin_mul_overflow(total, kBlockSize, &total)) {
        return LONG_MAX;
    }
    return total;
}
