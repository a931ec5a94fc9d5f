// Small files, written at once as the mail user. Nothing is synced: who made many of them syncs
// the file system when done.
#include "mxrepair/mailbox_files.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "process/descriptors.h"
#include "process/retry.h"
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

/// Makes a file with that text unless one is there. False when there is one.
bool makeFile(int directory, const std::string& name, const std::string& path, const std::string& text, mode_t mode) {
    const kavro::FdOwner file(
        ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (file.empty()) {
        if (errno == EEXIST) {
            return false;
        }
        kavro::throwSystemError("cannot make " + path, errno);
    }
    if (kavro::writeAll(file.get(), text.data(), text.size()) != text.size()) {
        const int error = errno;
        ::unlinkat(directory, name.c_str(), 0);
        kavro::throwSystemError("cannot make " + path, error);
    }
    return true;
}

/// Into the mailbox. A mailname without a mailbox may have had other lines, but nothing tells so any more, and a
/// message that waits in a mailbox is better than one that was dropped.
const std::string& newDeliveryText() {
    static const std::string text = [] {
        const kavro::mail::ImapServer* server = kavro::mail::imapServer(detectImapPop3Server());
        return std::string("| true\n") + (server != nullptr ? server->deliveryLine : kMailboxLine) + '\n';
    }();
    return text;
}

/// No mail yet, and the limit in bytes.
std::string newQuotaText(long limit) {
    char text[100];
    std::snprintf(text, sizeof text, "%ldS,0C\n%12ld%12lld\n", limit, 0L, 0LL);
    return text;
}

}  // namespace

AsMailUser::AsMailUser() {
    static const uid_t uid = kavro_ugid(kMailUser, 0);
    static const gid_t gid = kavro_ugid(kMailUser, 1);
    gid_ = static_cast<gid_t>(::setfsgid(gid));
    uid_ = static_cast<uid_t>(::setfsuid(uid));
}

AsMailUser::~AsMailUser() {
    ::setfsuid(uid_);
    ::setfsgid(gid_);
}

void makeHomeDirectories(int root, const std::string& name, const std::string& path, bool requiredOnly) {
    const AsMailUser user;
    for (const LayoutEntry& entry : kHomeLayout) {
        // The first one is the home itself.
        const std::string directory = &entry == kHomeLayout.data() ? name : name + '/' + entry.name;
        if ((entry.required || !requiredOnly) && ::mkdirat(root, directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            kavro::throwSystemError("cannot make " + path + ", directory " + entry.name, errno);
        }
    }
}

void makeWholeHome(int root, const std::string& name, const std::string& path, long quota) {
    makeHomeDirectories(root, name, path, false);
    const AsMailUser user;
    struct stat attachments {};
    // An empty attachment store has a size, too.
    if (quota >= 0 && ::fstatat(root, (name + "/@attachments").c_str(), &attachments, AT_SYMLINK_NOFOLLOW) == 0) {
        quota = std::max(0L, quota - static_cast<long>(attachments.st_size));
    }
    makeFile(root, name + "/.qmail", path, newDeliveryText(), kDeliveryMode);
    makeFile(root, name + "/Maildir/maildirsize", path, newQuotaText(limitOf(quota)), kQuotaMode);
}

void makeDeliveryFile(int directory, const std::string& name, const std::string& path) {
    const std::string& text = newDeliveryText();
    const AsMailUser user;
    struct stat found {};
    if (!makeFile(directory, name, path, text, kDeliveryMode) &&
        ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(found.st_mode) &&
        found.st_size == 0 && ::unlinkat(directory, name.c_str(), 0) == 0) {
        makeFile(directory, name, path, text, kDeliveryMode);
    }
}

long limitOf(long quota) {
    if (quota < 0) {
        return 0;
    }
    return quota == 0 ? 1 : quota;
}

}  // namespace mxrepair
