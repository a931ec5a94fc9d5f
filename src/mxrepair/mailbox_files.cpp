// Small files, written at once and given to the mail user by descriptor. Nothing is synced: who made many of them syncs
// the file system when done.
#include "mxrepair/mailbox_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "process/descriptors.h"
#include "process/system_error.h"
#include "storage/dotqmail.h"
#include "storage/imap_server.h"
#include "util/accounts.h"

namespace mxrepair {

namespace {

constexpr mode_t kDeliveryMode = 0600;
constexpr mode_t kQuotaMode = 0644;
/// Where no delivery agent is installed, the mailbox itself is named; every command that edits the file knows this
/// line.
constexpr const char* kMailboxLine = "./Maildir/";

struct MailUser {
    uid_t uid = kavro_ugid(MAIL_USER, 0);
    gid_t gid = kavro_ugid(MAIL_USER, 1);
};

/// Makes a file with that text unless one is there. False when there is one.
bool makeFile(int directory, const char* name, const std::string& path, const std::string& text, mode_t mode) {
    static const MailUser user;
    const kavro::FdOwner file(
        ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.empty()) {
        if (errno == EEXIST) {
            return false;
        }
        kavro::throwSystemError("cannot make " + path, errno);
    }
    if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::fchown(file.get(), user.uid, user.gid) != 0 || ::fchmod(file.get(), mode) != 0) {
        const int error = errno;
        ::unlinkat(directory, name, 0);
        kavro::throwSystemError("cannot make " + path, error);
    }
    return true;
}

}  // namespace

std::string deliveryText() {
    const kavro::mail::ImapServer* server = kavro::mail::imapServer(detectImapPop3Server());
    return std::string("| true\n") + (server != nullptr ? server->deliveryLine : kMailboxLine) + '\n';
}

void makeDeliveryFile(int home, const std::string& path) {
    static const std::string text = deliveryText();
    struct stat found {};
    if (!makeFile(home, ".qmail", path, text, kDeliveryMode) &&
        ::fstatat(home, ".qmail", &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(found.st_mode) && found.st_size == 0 &&
        ::unlinkat(home, ".qmail", 0) == 0) {
        makeFile(home, ".qmail", path, text, kDeliveryMode);
    }
}

void makeQuotaFile(int maildir, const std::string& path, long limit) {
    char text[100];
    std::snprintf(text, sizeof text, "%ldS,0C\n%12ld%12lld\n", limit, 0L, 0LL);
    makeFile(maildir, "maildirsize", path, text, kQuotaMode);
}

long limitOf(long quota) {
    if (quota < 0) {
        return 0;
    }
    return quota == 0 ? 1 : quota;
}

}  // namespace mxrepair
