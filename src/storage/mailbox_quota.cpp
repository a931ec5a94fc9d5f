// Done in the home or the Maildir, which is entered by a descriptor and left again.
#include "storage/mailbox_quota.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"
#include "storage/mail_tree.h"
#include "storage/maildirsize.h"
#include "util/accounts.h"
#include "util/c_memory.h"
#include "util/directory_tree.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"
#include "util/working_directory.h"

namespace {

/// The quota of a mail record that has none of its own.
constexpr std::int64_t kNoQuota = -1;

/// What the attachment store takes, 0 where there is none. Nothing when that cannot be told.
std::optional<long> attachments_size() {
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

/// Ends the process when the name cannot be a directory of the mail storage.
void require_path_component(const char* name) {
    if (!kavro::mail::isPathComponent(name)) {
        messlog2(1, 0, "%s", kavro::mail::notPathComponentText(name).c_str());
    }
}

/// Ends the process when the path, the longest below the home, is too long.
void require_short_path(const std::string& path) {
    if (path.size() >= PATH_MAX) {
        messlog2(1, 0, "user mailbox path is too long");
    }
}

/// True when `used` (negative: nothing) and what is added, of any integral type, pass the limit; 0 is none.
template <typename Added>
bool exceeds(long limit, std::uint64_t used, Added added) {
    const auto counted = std::max(static_cast<std::int64_t>(used), std::int64_t{0});
    std::int64_t total = 0;
    return limit != 0 && (__builtin_add_overflow(counted, added, &total) || total > limit);
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
    return kavro_getpw(kMailUser, &uid, &gid, nullptr) == 0 ? write_maildirpp_maildirsize(maildir, uid, gid, limit, 0)
                                                            : 0;
}

int store_mbox_quota(const char* domain, const char* mailname, long quota) {
    const std::string home = kavro::mail::lowerCaseHome(domain, mailname);
    if (home.empty()) {
        return 0;
    }
    if (home.size() >= PATH_MAX) {
        errno = 0;
        messlog2(0, 0, "domain and/or user name too long to be stored on the filesystem");
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
        const std::optional<long> attachments = attachments_size();
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

int store_default_mbox_quota(const char* domain, long quota) {
    const mail_db_data_t* data = loaded_session_mail_data(__func__);
    if (data == nullptr) {
        return 0;
    }
    const char* loaded = data->domain_name == nullptr ? "" : data->domain_name;
    if (std::strcmp(loaded, domain) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Session mail DB info is invalid, expected one for domain '%s', got '%s'", domain,
                  loaded);
        return 0;
    }
    for (std::size_t i = 0; i < data->mails_count; ++i) {
        const mail_db_mail_t& mail = data->mails[i];
        if (mail.quota == kNoQuota && store_mbox_quota(domain, mail.name, quota) == 0) {
            kavro_log(KAVRO_LOG_ERROR, "Unable to set default mbox quota for domain '%s' (processing '%s')", domain,
                      mail.name);
            return 0;
        }
    }
    return 1;
}

int rm_default_mbox_quota(const char* domain) {
    return store_default_mbox_quota(domain, kNoQuota);
}

int store_domain_quota(const char* domain, long quota) {
    return store_default_mbox_quota(domain, quota);
}

int rm_domain_quota(const char* domain) {
    return rm_default_mbox_quota(domain);
}

int rm_mbox_quota(const char* domain, const char* mailname) {
    const mail_db_data_t* data = loaded_session_mail_data(__func__);
    return data == nullptr ? 0 : store_mbox_quota(domain, mailname, data->domain_quota);
}

int check_maildirpp_overquota(const char* maildir, std::uint64_t addSize, long addCount) {
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long sizeLimit = 0;
    long countLimit = 0;
    if (get_maildirpp_usage_and_limits(maildir, 1, &size, &count, &sizeLimit, &countLimit) == 0) {
        return 0;
    }
    return exceeds(sizeLimit, size, addSize) || exceeds(countLimit, count, addCount) ? 1 : 0;
}

std::uint64_t get_mbox_size(const char* mailname, const char* domain, int inBlocks) {
    errno = 0;
    const kavro::CString asciiDomain(idn_toascii(domain));
    if (asciiDomain == nullptr) {
        messlog2(1, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
    }
    const kavro::CString lowerMailname(::strdup(mailname));
    if (lowerMailname == nullptr) {
        messlog2(1, 0, "fail to convert mail name to lower case format");
    }
    require_path_component(ascii_lower(asciiDomain.get()));
    require_path_component(ascii_lower(lowerMailname.get()));

    const std::string home = kavro::mail::mailboxPath(asciiDomain.get(), lowerMailname.get());
    errno = 0;
    require_short_path(home + "/@attachments");
    const std::string maildir = home + "/Maildir";

    // Kept: with `inBlocks` the attachments are measured as disk space, the mail still in bytes.
    std::uint64_t attachments = 0;
    {
        const kavro::QuietFdOwner directory = kavro::mail::openMailDirectory(home);
        kavro::WorkingDirectoryScope scope;
        if (!directory.empty() && scope.enter(directory.get())) {
            attachments = static_cast<std::uint64_t>(std::max(get_dir_size("@attachments", inBlocks), 0L));
        }
    }
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    if (get_maildirpp_usage(maildir.c_str(), &size, &count) == 0) {
        messlog2(0, 0, "Unable to calculate Maildir++ size: %s", std::strerror(errno));
        return attachments;
    }
    constexpr std::uint64_t kLargest = INT64_MAX;
    return std::min(attachments + size, kLargest);
}
