// Owners of C streams and directory streams; opening of directories that are no links, and of files that are regular.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro {

/// Closes with fclose(3), whose answer is lost: a stream that was written is released and closed by hand.
struct FileCloser {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using CFile = std::unique_ptr<std::FILE, FileCloser>;

/// A stream that reads a descriptor and closes it. It goes on after a signal, where one of fdopen(3) gives up. Null
/// with errno; then the descriptor stays the owner's.
CFile readingStream(FdOwner& fd);

/// Closes with closedir(3), and the descriptor of the directory with it.
struct DirectoryCloser {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using CDirectory = std::unique_ptr<DIR, DirectoryCloser>;

/// Opens a directory. Null with errno.
inline CDirectory openDirectory(const char* path) noexcept {
    for (;;) {
        CDirectory directory(::opendir(path));
        if (directory != nullptr || errno != EINTR) {
            return directory;
        }
    }
}

/// Opens a directory named relative to another, never through a link in its place. Null with errno.
inline CDirectory openDirectoryAt(int parent, const char* name) noexcept {
    const int fd =
        retryInterrupted([=] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    CDirectory directory(fd == -1 ? nullptr : ::fdopendir(fd));
    if (directory == nullptr && fd != -1) {
        const ErrnoKeeper keeper;
        ::close(fd);
    }
    return directory;
}

/// The next entry but for "." and "..", read again while a signal interrupts it. Null at the end with errno 0, on
/// failure with another.
inline const dirent* nextEntry(DIR* directory) noexcept {
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory);
        if (entry == nullptr ? errno != EINTR
                             : std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            return entry;
        }
    }
}

/// open(2), close-on-exec, that never waits and refuses what is not a regular file: a FIFO would block the program, a
/// device may do anything. -1 with errno, EISDIR for a directory and EINVAL for anything else.
int openRegular(const char* path, int flags, mode_t mode = 0);

}  // namespace kavro
