// Look-ups of system users and groups; owner and mode of a file.
#include "util/accounts.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/errno_keeper.h"
#include "util/log.h"

namespace {

/// Null, with errno 0 when there is no such user. The record is the C library's own and lives until the next look-up.
const passwd* findUser(const char* name) {
    const passwd* user = nullptr;
    do {
        errno = 0;
        user = ::getpwnam(name);
    } while (user == nullptr && errno == EINTR);
    return user;
}

/// Opens a file to change its owner and mode, and never what a link in its place points at: the program works in trees
/// that the mail user can write. -1 with errno, ELOOP for a symbolic link.
int openWithoutFollowing(const char* path) {
    return kavro::retryInterrupted(
        [path] { return ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
}

}  // namespace

int kavro_getpw(const char* name, uid_t* uid, gid_t* gid, char** home) {
    const passwd* user = findUser(name);
    if (user == nullptr) {
        messlog2(0, 0, "Unable to getpwnam for user %s", name);
        return -1;
    }
    if (home != nullptr) {
        *home = ::strdup(user->pw_dir);
        if (*home == nullptr) {
            return -1;
        }
    }
    if (uid != nullptr) {
        *uid = user->pw_uid;
    }
    if (gid != nullptr) {
        *gid = user->pw_gid;
    }
    return 0;
}

unsigned kavro_ugid(const char* name, int which) {
    uid_t uid = 0;
    gid_t gid = 0;
    if (kavro_getpw(name, &uid, &gid, nullptr) == -1) {
        return 0;
    }
    return which == 0 ? uid : gid;
}

int kavro_getgr(const char* name, gid_t* gid) {
    const group* found = nullptr;
    do {
        errno = 0;
        found = ::getgrnam(name);
    } while (found == nullptr && errno == EINTR);
    if (found == nullptr) {
        return -1;
    }
    *gid = found->gr_gid;
    return 0;
}

int file_set_user_mode(const char* path, const char* user, mode_t mode) {
    const passwd* found = findUser(user);
    if (found == nullptr) {
        messlog2(0, 0, "user %s not found", user);
        return -1;
    }
    return file_set_perms(path, found->pw_uid, found->pw_gid, mode);
}

int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode) {
    errno = 0;
    kavro::QuietFdOwner file(openWithoutFollowing(path));
    if (file.empty() && (errno == ENOENT || errno == ENOTDIR)) {
        errno = 0;
        return 0;
    }
    if (file.empty() || ::fchown(file.get(), uid, gid) == -1) {
        messlog2(0, 0, "ERROR: unable to chown %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    if (::fchmod(file.get(), mode) == -1) {
        messlog2(0, 0, "ERROR: unable to chmod %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    return 0;
}
