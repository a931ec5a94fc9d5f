// Advisory lock files: plain functions and the scoped guard MKLock.
#pragma once

#include <string>
#include <string_view>

/// Directory of hashed lock files.
inline constexpr const char* kLockFilesDirectory = "/var/lock/files";

/// A lock file. Release with rm_lock.
struct mk_lock_t {
    int fd;      ///< positive: held; 0: held by another; -1: could not be taken
    char* path;  ///< owned
};

/// Takes an exclusive flock(2), waiting for it. `hashed`: the file is the name's MD5 under kLockFilesDirectory, else
/// `name` is its path. Never null but for want of memory; see mk_lock_t::fd. errno tells the cause.
mk_lock_t* mk_lock(const char* name, int hashed);
/// The same without waiting.
mk_lock_t* mk_nonblock_lock(const char* name, int hashed);
/// 1 when the lock is held.
int is_locked(const mk_lock_t* lock);
/// 1 for null or a descriptor of 0.
int is_already_locked(const int* fd);
/// Releases and frees; the file stays. 0, or -1 when closing failed.
int rm_lock(mk_lock_t* lock);

namespace kavro {

/// Path of a name's hashed lock file.
std::string hashedLockPath(std::string_view name);
/// Opens the lock file of a name under kLockFilesDirectory, makes it when it is missing, and locks nothing. A
/// close-on-exec descriptor of 3 or more, or -1 with errno.
int openHashedLockFile(const std::string& name);

/// A lock held for a scope.
class MKLock {
public:
    static constexpr int kHashedName = 0;  ///< FilenameFlag: lock file under /var/lock/files
    static constexpr int kPlainPath = 1;   ///< FilenameFlag: the name is the path
    static constexpr int kWait = 0;        ///< BlockFlag: wait
    static constexpr int kFailAtOnce = 1;  ///< BlockFlag: fail when held by another

    /// Throws the system error "lock() failed", or std::runtime_error when it is held by another and BlockFlag is 1.
    /// Any other BlockFlag takes no lock.
    MKLock(const std::string& name, int FilenameFlag, int BlockFlag);
    MKLock(const MKLock&) = delete;
    MKLock& operator=(const MKLock&) = delete;
    ~MKLock();

private:
    mk_lock_t* lock_ = nullptr;
};

}  // namespace kavro
