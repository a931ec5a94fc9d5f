// What other programs of the panel call and no command does: paths of mailname homes and their delivery files, the
// edits that start from a mailname and a domain, and whether a message still fits into a mailbox.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

#include "storage/dotqmail.h"
#include "storage/mail_tree.h"
#include "storage/maildirsize.h"
#include "util/log.h"
#include "util/names.h"

namespace {

/// One kind of path: what follows the mailname home, and what is reported when it does not fit.
struct PathKind {
    const char* ending;
    const char* described;
};

constexpr PathKind kDotqmail = {"/.qmail", ".qmail path"};
constexpr PathKind kMailnameHome = {"", "mailname home path"};

int write_path(char* dst, std::size_t size, const char* mailname, const char* domain, const PathKind& kind) {
    errno = 0;
    if (domain == nullptr || is_mailname_valid(mailname) == 0) {
        messlog2(0, 0, "empty mailname or maildomain");
        return -1;
    }
    const std::string home = kavro::mail::lowerCaseHome(domain, mailname);
    if (home.empty()) {
        return -1;
    }
    const int length = std::snprintf(dst, size, "%s%s", home.c_str(), kind.ending);
    if (length < 0 || static_cast<std::size_t>(length) >= size) {
        errno = 0;
        messlog2(0, 0, "Either domain name '%s' or mailname '%s' are too long to store %s in the provided buffer",
                 domain, mailname, kind.described);
        return -1;
    }
    return 0;
}

/// Calls `edit` with the path of the mailname's delivery file.
template <typename Edit>
int edit_dotqmail(const char* mailname, const char* domain, Edit edit) {
    char path[PATH_MAX];
    return get_dotqmail_path(path, sizeof path, mailname, domain) != 0 ? -1 : edit(path);
}

/// True when `used` (negative: nothing) and what is added, of any integral type, pass the limit; 0 is none.
template <typename Added>
bool exceeds(long limit, std::uint64_t used, Added added) {
    const auto counted = std::max(static_cast<std::int64_t>(used), std::int64_t{0});
    std::int64_t total = 0;
    return limit != 0 && (__builtin_add_overflow(counted, added, &total) || total > limit);
}

}  // namespace

int get_dotqmail_path(char* dst, std::size_t size, const char* mailname, const char* domain) {
    return write_path(dst, size, mailname, domain, kDotqmail);
}

int get_mailhome_path(char* dst, std::size_t size, const char* mailname, const char* domain) {
    return write_path(dst, size, mailname, domain, kMailnameHome);
}

int add_mailname_delivery(const char* mailname, const char* domain) {
    return edit_dotqmail(mailname, domain, dotqmail_add_delivery);
}

int remove_mailname_delivery(const char* mailname, const char* domain) {
    return edit_dotqmail(mailname, domain, dotqmail_remove_delivery);
}

int add_mn_forward(const char* mailname, const char* domain, const char* address) {
    return edit_dotqmail(mailname, domain, [address](const char* path) { return dotqmail_add_forward(path, address); });
}

int rm_mn_forward(const char* mailname, const char* domain, const char* address) {
    return edit_dotqmail(mailname, domain,
                         [address](const char* path) { return dotqmail_remove_forward(path, address); });
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
