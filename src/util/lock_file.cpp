// By flock(2). The files stay: only the kernel's lock on the open file counts, which ends with the process at the
// latest.
#include "util/lock_file.h"

#include <fcntl.h>
#include <openssl/md5.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "process/retry.h"
#include "process/system_error.h"
#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr mode_t kLockFileMode = 0644;
/// Lock descriptors stay clear of the standard ones: 0 means "held by another", and what is printed must not land in
/// a lock file when the process was started with closed standard streams.
constexpr int kLowestDescriptor = 3;

/// Newly allocated; null with errno.
char* lock_file_path(const char* name, bool hashed) {
    return ::strdup(hashed ? kavro::hashedLockPath(name).c_str() : name);
}

/// A descriptor of 3 or more, or -1 with errno. A hashed name has no business being a link.
int open_lock_file(const char* path, bool hashed) {
    const int fd = kavro::openRegular(path, O_RDWR | O_CREAT | O_TRUNC | (hashed ? O_NOFOLLOW : 0), kLockFileMode);
    if (fd == -1 || fd >= kLowestDescriptor) {
        return fd;
    }
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, kLowestDescriptor);
    const kavro::ErrnoKeeper keeper;
    ::close(fd);
    return moved;
}

mk_lock_t* take_lock(const char* name, int hashed, int operation) {
    kavro::CString path(lock_file_path(name, hashed != 0));
    auto* lock = static_cast<mk_lock_t*>(std::calloc(1, sizeof(mk_lock_t)));
    if (path == nullptr || lock == nullptr) {
        std::free(lock);
        errno = ENOMEM;
        return nullptr;
    }
    lock->path = path.release();
    lock->fd = open_lock_file(lock->path, hashed != 0);
    if (lock->fd == -1) {
        messlog2(0, 0, "Unable to open file \"%s\": %s.", lock->path, std::strerror(errno));
        return lock;
    }
    if (kavro::retryInterrupted([&] { return ::flock(lock->fd, operation); }) == -1) {
        const kavro::ErrnoKeeper keeper;
        ::close(lock->fd);
        lock->fd = keeper.saved() == EWOULDBLOCK ? 0 : -1;
    }
    return lock;
}

}  // namespace

mk_lock_t* mk_lock(const char* name, int hashed) {
    return take_lock(name, hashed, LOCK_EX);
}

mk_lock_t* mk_nonblock_lock(const char* name, int hashed) {
    return take_lock(name, hashed, LOCK_EX | LOCK_NB);
}

int is_locked(const mk_lock_t* lock) {
    return lock != nullptr && lock->fd > 0 ? 1 : 0;
}

int is_already_locked(const int* fd) {
    return fd == nullptr || *fd == 0 ? 1 : 0;
}

int rm_lock(mk_lock_t* lock) {
    if (lock == nullptr) {
        return 0;
    }
    int result = 0;
    // An interrupted close has closed already.
    if (lock->fd > 0 && ::close(lock->fd) == -1 && errno != EINTR) {
        messlog2(0, 0, "An error occured during closing '%s' file: %s\n", lock->path, std::strerror(errno));
        result = -1;
    }
    const kavro::ErrnoKeeper keeper;
    std::free(lock->path);
    std::free(lock);
    return result;
}

namespace kavro {

std::string hashedLockPath(std::string_view name) {
    std::array<unsigned char, MD5_DIGEST_LENGTH> digest{};
// The EVP interface would initialise the whole library, configuration file and provider look-up included, for one short
// digest in nearly every run of the program.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    ::MD5(reinterpret_cast<const unsigned char*>(name.data()), name.size(), digest.data());
#pragma GCC diagnostic pop
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string path = std::string(kLockFilesDirectory) + '/';
    for (const unsigned char byte : digest) {
        path += kDigits[byte >> 4U];
        path += kDigits[byte & 0xFU];
    }
    return path;
}

int openHashedLockFile(const std::string& name) {
    return open_lock_file(hashedLockPath(name).c_str(), true);
}

MKLock::MKLock(const std::string& name, int FilenameFlag, int BlockFlag) {
    if (BlockFlag != kWait && BlockFlag != kFailAtOnce) {
        return;
    }
    const int hashed = FilenameFlag == kHashedName ? 1 : 0;
    mk_lock_t* lock = BlockFlag == kWait ? mk_lock(name.c_str(), hashed) : mk_nonblock_lock(name.c_str(), hashed);
    if (lock == nullptr) {
        throw std::bad_alloc();
    }
    if (is_locked(lock) != 0) {
        lock_ = lock;
        return;
    }
    const int code = errno;
    const bool heldByAnother = is_already_locked(&lock->fd) != 0;
    rm_lock(lock);
    if (heldByAnother) {
        throw std::runtime_error("lock(" + name + ") failed: file is already locked");
    }
    throwSystemError("lock() failed", code);
}

MKLock::~MKLock() {
    const ErrnoKeeper keeper;
    rm_lock(lock_);
}

}  // namespace kavro
