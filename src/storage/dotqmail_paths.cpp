// Paths of mailname homes and their delivery files, and the edits that start from a mailname and a domain.
#include <cerrno>
#include <climits>
#include <cstdio>

#include "storage/dotqmail.h"
#include "storage/path_component.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace {

/// One kind of path: what follows the mailname home, and what is reported when it does not fit.
struct PathKind {
    const char* ending;
    const char* described;
};

constexpr PathKind DOTQMAIL = {"/.qmail", ".qmail path"};
constexpr PathKind MAILNAME_HOME = {"", "mailname home path"};

int writePath(char* dst, std::size_t size, const char* mailname, const char* domain, const PathKind& kind) {
    errno = 0;
    if (domain == nullptr || is_mailname_valid(mailname) == 0) {
        messlog2(0, 0, "empty mailname or maildomain");
        return -1;
    }
    const kavro::CString ascii(idn_toascii(domain));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_toascii(%s) failed: %s", domain, idn_strerror(idn_errno));
        return -1;
    }
    if (!kavro::mail::isPathComponent(ascii.get())) {
        messlog2(0, 0, "%s", kavro::mail::notPathComponentText(ascii.get()).c_str());
        return -1;
    }
    const int length = std::snprintf(dst, size, "%s/%s/%s%s", zcpConfGetDefaultByIndex(CONF_KAVRO_MAILNAMES_D),
                                     ascii.get(), mailname, kind.ending);
    if (length < 0 || static_cast<std::size_t>(length) >= size) {
        errno = 0;
        messlog2(0, 0, "Either domain name '%s' or mailname '%s' are too long to store %s in the provided buffer",
                 domain, mailname, kind.described);
        return -1;
    }
    // Kept: the mail root is lower-cased as well.
    ascii_lower(dst);
    return 0;
}

/// Calls `edit` with the path of the mailname's delivery file.
template <typename Edit>
int editDotqmail(const char* mailname, const char* domain, Edit edit) {
    char path[PATH_MAX];
    return get_dotqmail_path(path, sizeof path, mailname, domain) != 0 ? -1 : edit(path);
}

}  // namespace

int get_dotqmail_path(char* dst, std::size_t size, const char* mailname, const char* domain) {
    return writePath(dst, size, mailname, domain, DOTQMAIL);
}

int get_mailhome_path(char* dst, std::size_t size, const char* mailname, const char* domain) {
    return writePath(dst, size, mailname, domain, MAILNAME_HOME);
}

int add_mailname_delivery(const char* mailname, const char* domain) {
    return editDotqmail(mailname, domain, dotqmail_add_delivery);
}

int remove_mailname_delivery(const char* mailname, const char* domain) {
    return editDotqmail(mailname, domain, dotqmail_remove_delivery);
}

int add_mn_forward(const char* mailname, const char* domain, const char* address) {
    return editDotqmail(mailname, domain, [address](const char* path) { return dotqmail_add_forward(path, address); });
}

int rm_mn_forward(const char* mailname, const char* domain, const char* address) {
    return editDotqmail(mailname, domain,
                        [address](const char* path) { return dotqmail_remove_forward(path, address); });
}
