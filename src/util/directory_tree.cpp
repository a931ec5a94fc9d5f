// By descriptors and single names: no path is resolved twice, so a directory that somebody swaps for a link meanwhile
// leads nowhere.
#include "util/directory_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/file_io.h"
#include "util/working_directory.h"

namespace {

using kavro::retryInterrupted;

constexpr mode_t kPrivateMode = 0700;
/// Levels that the removal goes down by recursion, each with an open descriptor. What lies deeper is first moved up to
/// the top of the tree.
constexpr int kDepthAtOnce = 64;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr long kBlockSize = 512;

int unlink_at(int parent, const char* name, int flags = 0) {
    return retryInterrupted([=] { return ::unlinkat(parent, name, flags); });
}

int set_owner_and_mode(int fd, mode_t mode, uid_t uid, gid_t gid) {
    constexpr auto kKeep = static_cast<uid_t>(-1);
    if ((uid != kKeep || gid != static_cast<gid_t>(-1)) &&
        retryInterrupted([=] { return ::fchown(fd, uid, gid); }) == -1) {
        return -1;
    }
    return retryInterrupted([=] { return ::fchmod(fd, mode); });
}

/// Makes one directory whose parent is there. It is private until it has its owner and mode, and goes again when it
/// cannot have them. An existing directory, or a link to one, is left as it is.
int make_directory(const char* path, mode_t mode, uid_t uid, gid_t gid) {
    if (retryInterrupted([=] { return ::mkdir(path, kPrivateMode); }) == -1) {
        struct stat existing {};
        if (errno != EEXIST || ::stat(path, &existing) == -1) {
            return -1;
        }
        if (S_ISDIR(existing.st_mode)) {
            return 0;
        }
        errno = ENOTDIR;
        return -1;
    }
    const kavro::QuietFdOwner directory(retryInterrupted([=] { return ::open(path, kOpenDirectory); }));
    if (directory.empty() || set_owner_and_mode(directory.get(), mode, uid, gid) == -1) {
        const kavro::ErrnoKeeper keeper;
        unlink_at(AT_FDCWD, path, AT_REMOVEDIR);
        return -1;
    }
    return 0;
}

/// Removal of the contents of one directory tree.
class TreeRemover {
public:
    explicit TreeRemover(int top) : top_(top) {}

    /// Empties the top directory. False with errno.
    bool run() {
        do {
            moved_ = 0;
            if (!empty(top_, ".", 0)) {
                return false;
            }
        } while (moved_ > 0);
        return true;
    }

private:
    bool empty(int parent, const char* directoryName, int depth) {
        const kavro::CDirectory directory = kavro::openDirectoryAt(parent, directoryName);
        if (directory == nullptr) {
            return false;
        }
        const int fd = ::dirfd(directory.get());
        while (const dirent* entry = kavro::nextEntry(directory.get())) {
            if (!remove(fd, entry->d_name, entry->d_type == DT_DIR, depth)) {
                return false;
            }
        }
        return errno == 0;
    }

    bool remove(int parent, const char* name, bool isDirectory, int depth) {
        if (!isDirectory) {
            if (unlink_at(parent, name) == 0 || errno == ENOENT) {
                return true;
            }
            if (errno != EISDIR) {
                return false;
            }
        }
        if (depth + 1 < kDepthAtOnce) {
            return (empty(parent, name, depth + 1) && unlink_at(parent, name, AT_REMOVEDIR) == 0) || errno == ENOENT;
        }
        // An empty directory needs no way up.
        return unlink_at(parent, name, AT_REMOVEDIR) == 0 || moveToTop(parent, name);
    }

    /// For the next round.
    bool moveToTop(int parent, const char* name) {
        for (;;) {
            const std::string newName = ".removed-" + std::to_string(++names_);
            if (retryInterrupted([&] { return ::renameat(parent, name, top_, newName.c_str()); }) == 0) {
                ++moved_;
                return true;
            }
            if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOTDIR) {
                return false;
            }
        }
    }

    int top_;
    unsigned long moved_ = 0;
    unsigned long names_ = 0;
};

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

int make_dir_p(const char* path, mode_t mode, uid_t uid, gid_t gid) {
    if (make_directory(path, mode, uid, gid) == 0) {
        return 0;
    }
    if (errno != ENOENT) {
        return -1;
    }
    // Downwards from the first name: each prefix that ends before a slash.
    const std::string whole(path);
    for (std::size_t slash = whole.find('/', 1); slash != std::string::npos; slash = whole.find('/', slash + 1)) {
        if (whole[slash - 1] != '/' && make_directory(whole.substr(0, slash).c_str(), mode, uid, gid) == -1) {
            return -1;
        }
    }
    return make_directory(path, mode, uid, gid);
}

int rm_tree(const char* path) {
    return rm_tree_at(AT_FDCWD, path);
}

int rm_tree_at(int parent, const char* name) {
    if (unlink_at(parent, name) == 0 || errno == ENOENT) {
        return 0;
    }
    if (errno != EISDIR) {
        return -1;
    }
    const kavro::QuietFdOwner top(retryInterrupted([=] { return ::openat(parent, name, kOpenDirectory); }));
    if (top.empty() || !TreeRemover(top.get()).run()) {
        return -1;
    }
    return unlink_at(parent, name, AT_REMOVEDIR);
}

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
