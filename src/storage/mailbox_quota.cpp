// The quota of one mailbox: what its attachment store takes is not left for mail.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/maildirpp_quota.h"
#include "storage/mailname_tree.h"
#include "storage/path_component.h"
#include "util/accounts.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/dir_size.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"
#include "util/working_directory.h"

namespace {

/// The mailname home, lower-cased whole. Empty, reported, when the names do not give one.
std::string mailboxHome(const char* domain, const char* mailname) {
    errno = 0;
    const kavro::CString ascii(idn_toascii(domain));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_toascii(%s) failed: %s", domain, idn_strerror(idn_errno));
        return {};
    }
    for (const char* name : {static_cast<const char*>(ascii.get()), mailname}) {
        if (!kavro::mail::isPathComponent(name)) {
            messlog2(0, 0, "%s", kavro::mail::notPathComponentText(name).c_str());
            return {};
        }
    }
    std::string home = zcpConfGetDefaultByIndex(CONF_KAVRO_MAILNAMES_D);
    home.append("/").append(ascii.get()).append("/").append(mailname);
    if (home.size() >= PATH_MAX) {
        errno = 0;
        messlog2(0, 0, "domain and/or user name too long to be stored on the filesystem");
        return {};
    }
    ascii_lower(home.data());
    return home;
}

/// What the attachment store takes, 0 where there is none. Nothing when that cannot be told.
std::optional<long> attachmentsSize() {
    struct stat status;
    if (kavro::retryInterrupted([&] { return ::lstat("@attachments", &status); }) == -1) {
        return errno == ENOENT || errno == ENOTDIR ? std::optional(0L) : std::nullopt;
    }
    if (!S_ISDIR(status.st_mode)) {
        return 0L;
    }
    const long size = get_dir_size("@attachments", 0);
    return size < 0 ? std::nullopt : std::optional(size);
}

}  // namespace

int store_maildirpp_quota_raw(const char* maildir, long quota) {
    // No quota is written as 0, no limit; a quota of nothing as one byte, which stops delivery instead of lifting it.
    std::uint64_t limit = 0;
    if (quota >= 0) {
        limit = quota == 0 ? 1 : static_cast<std::uint64_t>(quota);
    }
    uid_t uid = 0;
    gid_t gid = 0;
    return kavro_getpw(MAIL_USER, &uid, &gid, nullptr) == 0 ? write_maildirpp_maildirsize(maildir, uid, gid, limit, 0)
                                                            : 0;
}

int store_mbox_quota(const char* domain, const char* mailname, long quota) {
    const std::string home = mailboxHome(domain, mailname);
    if (home.empty()) {
        return 0;
    }
    kavro::WorkingDirectoryScope scope;
    if (!scope.remembered()) {
        messlog2(0, 0, "unable to get current working directory");
        return 0;
    }
    const kavro::QuietFdOwner directory = kavro::mail::openMailDirectory(home);
    if (directory.empty() || !scope.enter(directory.get())) {
        messlog2(0, 0, "unable to change to mbox folder %s: %s", home.c_str(), std::strerror(errno));
        return 0;
    }
    if (quota >= 0) {
        const std::optional<long> attachments = attachmentsSize();
        if (!attachments) {
            messlog2(0, 0, "unable to count attachments folder size");
            // Kept: this failure alone leaves the process in the mailname home.
            scope.release();
            return 0;
        }
        quota -= *attachments;
        if (quota < 0) {
            errno = 0;
            messlog2(0, 0, "WARNING: @attachments directory is big enough to disable delivery!");
            quota = 0;
        }
    }
    return store_maildirpp_quota_raw("./Maildir", quota);
}
