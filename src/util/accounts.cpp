// Owner and mode are set on a descriptor that was opened without following links: the program works in trees that the
// mail user can write.
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
#include "util/log.h"

namespace {

/// -1 with errno, ELOOP for a symbolic link.
int open_without_following(int directory, const char* name) {
    return kavro::retryInterrupted(
        [=] { return ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
}

/// `name` is looked up in the directory, `path` is what messages name.
int set_perms(int directory, const char* name, const char* path, uid_t uid, gid_t gid, mode_t mode) {
    errno = 0;
    const kavro::QuietFdOwner file(open_without_following(directory, name));
    if (file.empty() && (errno == ENOENT || errno == ENOTDIR)) {
        errno = 0;
        return 0;
    }
    if (file.empty() || kavro::retryInterrupted([&] { return ::fchown(file.get(), uid, gid); }) == -1) {
        messlog2(0, 0, "ERROR: unable to chown %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    if (kavro::retryInterrupted([&] { return ::fchmod(file.get(), mode); }) == -1) {
        messlog2(0, 0, "ERROR: unable to chmod %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    return 0;
}

int set_user_mode(int directory, const char* name, const char* path, const char* user, mode_t mode) {
    const passwd* found = find_user(user);
    if (found == nullptr) {
        messlog2(0, 0, "user %s not found", user);
        return -1;
    }
    return set_perms(directory, name, path, found->pw_uid, found->pw_gid, mode);
}

/// A file that a signal kept the C library from opening or reading is an account that is not there: it is looked for
/// once more.
template <typename LookUp>
auto find_account(LookUp lookUp) {
    for (bool again = false;; again = true) {
        errno = 0;
        const auto* found = lookUp();
        if (found != nullptr || (again && errno != EINTR)) {
            return found;
        }
    }
}

}  // namespace

const passwd* find_user(const char* name) {
    return find_account([name] { return ::getpwnam(name); });
}

int kavro_getpw(const char* name, uid_t* uid, gid_t* gid, char** home) {
    const passwd* user = find_user(name);
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
    const group* found = find_account([name] { return ::getgrnam(name); });
    if (found == nullptr) {
        return -1;
    }
    *gid = found->gr_gid;
    return 0;
}

int file_set_user_mode(const char* path, const char* user, mode_t mode) {
    return set_user_mode(AT_FDCWD, path, path, user, mode);
}

int file_set_user_mode_at(int directory, const char* path, const char* user, mode_t mode) {
    const char* slash = std::strrchr(path, '/');
    return set_user_mode(directory, slash == nullptr ? path : slash + 1, path, user, mode);
}

int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode) {
    return set_perms(AT_FDCWD, path, path, uid, gid, mode);
}
