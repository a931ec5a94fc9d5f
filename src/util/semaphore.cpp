// By record locks of fcntl(2). One descriptor for the whole process: closing any other one of the same file would
// release all of them.
#include "util/semaphore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "process/retry.h"
#include "util/config.h"
#include "util/directory_tree.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr mode_t kSemaphoreFileMode = 0600;
constexpr mode_t kDirectoryMode = 0755;

int semaphoreFile = -1;

std::string semaphore_directory() {
    return std::string(kProductRoot) + "/var";
}

std::string semaphore_path() {
    return semaphore_directory() + "/utilities.sem";
}

int open_semaphore_file() {
    return kavro::openRegular(semaphore_path().c_str(), O_WRONLY | O_CREAT, kSemaphoreFileMode);
}

void refuse_negative(long n, const char* function) {
    if (n < 0) {
        messlog2(EXIT_FAILURE, 0, "%s() failed for semnum %ld: semnum must not be negative", function, n);
    }
}

/// One lock request for byte n. 0, or -1 with errno.
int request(short type, int command, long n) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = n;
    range.l_len = 1;
    return kavro::retryInterrupted([&] { return ::fcntl(semaphoreFile, command, &range); });
}

void end_with_error(const char* function, long n) {
    messlog2(EXIT_FAILURE, 0, "%s() failed for semnum %ld: %s", function, n, std::strerror(errno));
}

}  // namespace

void init_sem() {
    if (semaphoreFile != -1) {
        return;
    }
    semaphoreFile = open_semaphore_file();
    if (semaphoreFile == -1 && errno == ENOENT &&
        make_dir_p(semaphore_directory().c_str(), kDirectoryMode, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) ==
            0) {
        semaphoreFile = open_semaphore_file();
    }
    if (semaphoreFile == -1) {
        messlog2(EXIT_FAILURE, 0, "failed to open semaphore file %s: %s", semaphore_path().c_str(),
                 std::strerror(errno));
    }
}

void sem_lock(long n) {
    refuse_negative(n, "sem_lock");
    if (request(F_WRLCK, F_SETLKW, n) == -1) {
        end_with_error("sem_lock", n);
    }
}

int sem_lock_nonblock(long n) {
    refuse_negative(n, "sem_lock");
    if (request(F_WRLCK, F_SETLK, n) == 0) {
        return 0;
    }
    if (errno != EAGAIN && errno != EACCES) {
        end_with_error("sem_lock", n);
    }
    return -1;
}

void sem_unlock(long n) {
    refuse_negative(n, "sem_unlock");
    if (request(F_UNLCK, F_SETLK, n) == -1) {
        end_with_error("sem_unlock", n);
    }
}

void shutdown_sem() {
    const int closed = semaphoreFile == -1 ? 0 : ::close(semaphoreFile);
    semaphoreFile = -1;
    if (closed == -1 && errno != EINTR) {
        messlog2(0, 0, "shutdown_sem(): failed to close semaphore file: %s", std::strerror(errno));
    }
}
