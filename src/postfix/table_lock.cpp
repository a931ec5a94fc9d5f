// The lock, and what is done under it first.
#include "postfix/table_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "postfix/map_copy.h"
#include "postfix/tables.h"
#include "process/retry.h"
#include "util/lock_file.h"
#include "util/log.h"

namespace kavro::mail::postfix {

namespace {

/// A turnstile: a lock on the file's first byte, of the same open file but of another kind than flock(2)'s. flock(2)
/// lets new shared holders in while an exclusive one waits, which additions without a pause would starve.
int turnstile(int fd, short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return retryInterrupted([&] { return ::fcntl(fd, F_OFD_SETLKW, &range); });
}

}  // namespace

TableLock::TableLock(const std::string& table, Mode mode) : file_(openHashedLockFile(table)) {
    const int operation = mode == Mode::Shared ? LOCK_SH : LOCK_EX;
    if (!file_.empty() && turnstile(file_.get(), F_WRLCK) == 0 &&
        retryInterrupted([&] { return ::flock(file_.get(), operation); }) == 0) {
        turnstile(file_.get(), F_UNLCK);
        return;
    }
    kavro_log(KAVRO_LOG_WARNING, "Unable to lock the lookup table %s: %s", table.c_str(), std::strerror(errno));
    file_.close_nothrow();
}

TableLock beginChange(const std::string& table, TableLock::Mode mode) {
    for (;;) {
        TableLock lock(table, mode);
        requireRegularMap(table);
        if (!mapCopyExists(table)) {
            return lock;
        }
        // The lock is given up first: the lock of the text source comes before it.
        { const TableLock released = std::move(lock); }
        putBackInterruptedRebuild(table);
    }
}

bool putBackInterruptedRebuild(const std::string& table) {
    const MKLock rewriting(textSourcePath(table), MKLock::kHashedName, MKLock::kWait);
    const TableLock lock(table, TableLock::Mode::Exclusive);
    requireRegularMap(table);
    if (!putMapCopyBack(table)) {
        return false;
    }
    ::unlink(textSourcePath(table).c_str());
    return true;
}

}  // namespace kavro::mail::postfix
