// What other programs of the panel call and no command does: paths of mailname homes and their delivery files, the
// edits that start from a mailname and a domain, and the names of the IMAP/POP3 server.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include "storage/dotqmail.h"
#include "storage/imap_server.h"
#include "storage/mail_tree.h"
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

const char* getImapPop3ServerHumanReadableName() {
    const auto* server = kavro::mail::imapServer(detectImapPop3Server());
    return server == nullptr ? "" : server->name;
}

const char* getImapPop3ServerPkgctlComponentName() {
    const auto* server = kavro::mail::imapServer(detectImapPop3Server());
    return server == nullptr ? "" : server->component;
}
