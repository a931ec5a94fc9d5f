// The mail tree: each home's directories and files, and the tree beside the records. What the mail user could have put
// in the way is looked at by descriptors that follow no links.
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "mxrepair/check.h"
#include "mxrepair/mailbox_files.h"
#include "process/descriptors.h"
#include "process/system_error.h"
#include "storage/mail_tree.h"
#include "storage/maildir_manager.h"
#include "storage/maildir_usage.h"
#include "storage/maildirsize.h"
#include "util/accounts.h"
#include "util/file_io.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::FdOwner;
using kavro::SqliteStatement;
using kavro::mail::MaildirManager;

constexpr const char* kStorage = "mail storage";
constexpr const char* kLookAtIt = "look at it, and put what belongs there in its place";
constexpr unsigned kModeBits = 07777;
constexpr mode_t kRootMode = 0750;
constexpr mode_t kHomeMode = 0700;
constexpr mode_t kDeliveryMode = 0600;

FdOwner openDirectory(int parent, const char* name) {
    return FdOwner(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// One home and what is wrong with it.
class HomeCheck {
public:
    HomeCheck(CheckContext& context, const passwd& user, int root, std::string domain, std::string name)
        : context_(context),
          user_(user),
          domain_(std::move(domain)),
          name_(std::move(name)),
          path_(kavro::mail::mailboxPath(domain_, name_)),
          home_(openDirectory(root, name_.c_str())) {}

    /// What has no record need not be a home: nothing is made in it, nor given away.
    void run(bool recorded) {
        if (home_.empty()) {
            report("", errno == ELOOP || errno == ENOTDIR ? "is no directory, or a link" : std::strerror(errno));
            return;
        }
        if (recorded && !checkHomeLayout()) {
            return;
        }
        if (recorded) {
            checkDeliveryFile();
        }
        checkDeliveryDraft();
        const FdOwner maildir = openDirectory(home_.get(), "Maildir");
        if (!maildir.empty()) {
            if (recorded) {
                checkQuotaFile(maildir.get());
            }
            checkTemporaryFiles(maildir.get());
        }
    }

private:
    void report(const std::string& entry, const std::string& problem) { add(entry, problem, kLookAtIt, {}); }

    void add(const std::string& entry, const std::string& problem, const std::string& remedy,
             std::function<void()> mend) {
        const fs::path path = entry.empty() ? path_ : path_ / entry;
        context_.findings.add({kStorage, path.string(), domain_, problem, remedy, std::move(mend)});
    }

    bool isRight(const struct stat& status, mode_t mode) const {
        return status.st_uid == user_.pw_uid && status.st_gid == user_.pw_gid && (status.st_mode & kModeBits) == mode;
    }

    /// False when something stands in a directory's place. One finding for all directories that can be mended, since
    /// making a home anew mends all of them.
    bool checkHomeLayout() {
        for (const LayoutEntry& entry : kHomeLayout) {
            struct stat status {};
            const bool there = ::fstatat(home_.get(), entry.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
            if (there && !S_ISDIR(status.st_mode)) {
                report(entry.name, S_ISLNK(status.st_mode) ? "a link in a directory's place" : "is no directory");
                return false;
            }
            if (there ? !isRight(status, kHomeMode) : entry.required) {
                add(std::strcmp(entry.name, ".") == 0 ? "" : entry.name,
                    there ? "owner or mode is wrong" : "directory is missing",
                    "makes the home's directories, and sets popuser:popuser 0700",
                    [this] { MaildirManager::getInstance().createMailnameHome(domain_, name_); });
                return true;
            }
        }
        return true;
    }

    void checkDeliveryFile() {
        struct stat status {};
        const bool there = ::fstatat(home_.get(), ".qmail", &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (there && !S_ISREG(status.st_mode)) {
            report(".qmail", "is a link, or no regular file");
        } else if (!there || status.st_size == 0) {
            add(".qmail", there ? "is empty" : "is missing", "makes one that delivers into the mailbox",
                [this] { makeDeliveryFile(home_.get(), ".qmail", path_.string()); });
        } else if (!isRight(status, kDeliveryMode)) {
            add(".qmail", "owner or mode is wrong", "sets popuser:popuser 0600",
                [this] { setRights((path_ / ".qmail").string(), user_.pw_uid, user_.pw_gid, kDeliveryMode); });
        }
    }

    void checkDeliveryDraft() {
        struct stat status {};
        if (::fstatat(home_.get(), ".qmail.tmp", &status, AT_SYMLINK_NOFOLLOW) == 0) {
            add(".qmail.tmp", "a temporary file that was left over", "removes it",
                [this] { ::unlinkat(home_.get(), ".qmail.tmp", 0); });
        }
    }

    /// The quota functions work in the process's directory.
    void checkQuotaFile(int maildir) {
        struct stat status {};
        const char* const name = "Maildir/maildirsize";
        if (::fchdir(maildir) != 0) {
            return;
        }
        if (::fstatat(maildir, "maildirsize", &status, AT_SYMLINK_NOFOLLOW) != 0) {
            add(name, "is missing", "makes one without a limit, --sync the one of the document",
                [this] { writeQuotaFile(0, 0); });
            return;
        }
        if (!S_ISREG(status.st_mode)) {
            report(name, "is a link, or no regular file");
            return;
        }
        std::uint64_t size = 0;
        std::uint64_t count = 0;
        long sizeLimit = 0;
        long countLimit = 0;
        const bool usable = get_maildirpp_usage_and_limits(".", 1, &size, &count, &sizeLimit, &countLimit) == 1;
        // A header that cannot be read limits nothing either.
        const bool limited = sizeLimit != LONG_MAX && sizeLimit >= 0;
        const std::uint64_t keptSize = limited ? static_cast<std::uint64_t>(sizeLimit) : 0;
        const std::uint64_t keptCount = limited && countLimit != LONG_MAX ? static_cast<std::uint64_t>(countLimit) : 0;
        if (!usable) {
            add(name, "is damaged",
                limited ? "counts the mailbox anew, the limit stays"
                        : "counts the mailbox anew, without a limit; --sync sets the document's",
                [this, keptSize, keptCount] { writeQuotaFile(keptSize, keptCount); });
            return;
        }
        if (status.st_uid != user_.pw_uid || status.st_gid != user_.pw_gid) {
            add(name, "owner is wrong", "counts the mailbox anew, the limit stays",
                [this, keptSize, keptCount] { writeQuotaFile(keptSize, keptCount); });
            return;
        }
        std::uint64_t realSize = 0;
        std::uint64_t realCount = 0;
        long newest = 0;
        if (get_maildirpp_messages_usage(&realSize, &realCount, &newest) == 1 &&
            (realSize != size || realCount != count)) {
            add(name, "shows a usage that is wrong", "counts the mailbox anew, the limit stays",
                [this, keptSize, keptCount] { writeQuotaFile(keptSize, keptCount); });
        }
    }

    void writeQuotaFile(std::uint64_t sizeLimit, std::uint64_t countLimit) const {
        if (write_maildirpp_maildirsize(".", user_.pw_uid, user_.pw_gid, sizeLimit, countLimit) != 1) {
            throw std::runtime_error("cannot write " + (path_ / "Maildir/maildirsize").string());
        }
    }

    /// Quota files that a process did not live to put in place; their names hold its number.
    void checkTemporaryFiles(int maildir) {
        const kavro::CDirectory directory = kavro::openDirectoryAt(maildir, "tmp");
        while (const dirent* entry = directory == nullptr ? nullptr : kavro::nextEntry(directory.get())) {
            const std::string name = entry->d_name;
            unsigned pid = 0;
            if (name.ends_with("-maildirsize") && std::sscanf(name.c_str(), "%*u.%u.", &pid) == 1 &&
                ::kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH) {
                add("Maildir/tmp/" + name, "a temporary file that was left over", "removes it",
                    [&] { ::unlinkat(::dirfd(directory.get()), name.c_str(), 0); });
            }
        }
    }

    CheckContext& context_;
    const passwd& user_;
    std::string domain_;
    std::string name_;
    fs::path path_;
    FdOwner home_;
};

void checkRoot(CheckContext& context, const passwd& user, const std::string& domain, Progress& progress) {
    const fs::path path = fs::path(mailRoot()) / domain;
    const FdOwner root = kavro::mail::openDomainRoot(path);
    if (root.empty()) {
        context.findings.add({kStorage, path.string(), domain,
                              errno == ELOOP ? "a link that root did not make" : std::strerror(errno), kLookAtIt});
        return;
    }
    struct stat status {};
    if (::fstat(root.get(), &status) == 0 &&
        (status.st_uid != user.pw_uid || status.st_gid != user.pw_gid || (status.st_mode & kModeBits) != kRootMode)) {
        context.findings.add({kStorage, path.string(), domain, "owner or mode is wrong", "sets popuser:popuser 0750",
                              [domain] { MaildirManager::getInstance().createDomainRoot(domain); }});
    }
    context.node.query(
        "SELECT name, EXISTS(SELECT 1 FROM record r WHERE r.key=h.name || '@' || h.domain AND"
        " r.map='vmailbox') FROM home h WHERE domain=? ORDER BY name",
        {domain}, [&](const SqliteStatement& row) {
            progress.step();
            HomeCheck(context, user, root.get(), domain, row.text(0)).run(row.number(1) != 0);
        });
}

/// Where a domain that has lost its storage may have it: a domain without records whose homes are those of the records.
std::string formerName(NodeState& node, const std::string& domain) {
    std::string found;
    node.query(
        "SELECT r.domain FROM root r WHERE NOT EXISTS(SELECT 1 FROM record v WHERE v.map='virtual_domains' AND"
        " v.key=r.domain) AND NOT EXISTS(SELECT 1 FROM auth_domain a WHERE a.domain=r.domain AND a.off<>0)"
        " AND (EXISTS(SELECT 1 FROM home h JOIN record m ON m.domain=?1 AND m.name=h.name"
        "   AND m.map IN ('vmailbox', 'virtual') WHERE h.domain=r.domain)"
        "  OR (NOT EXISTS(SELECT 1 FROM home h WHERE h.domain=r.domain)"
        "   AND NOT EXISTS(SELECT 1 FROM mailname m WHERE m.domain=?1))) LIMIT 1",
        {domain}, [&found](const SqliteStatement& row) { found = row.text(0); });
    return found;
}

/// Domains whose records have no storage root.
void checkMissingRoots(CheckContext& context) {
    context.each(
        "SELECT domain FROM node_domain n WHERE NOT EXISTS(SELECT 1 FROM root r WHERE r.domain=n.domain) ORDER BY 1",
        [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            Finding finding{kStorage, (fs::path(mailRoot()) / domain).string(), domain, "directory is missing", ""};
            const std::string former = formerName(context.node, domain);
            if (!former.empty()) {
                finding.problem += ", and " + former + " has storage without records: a rename was cut short";
                finding.remedy = "use --fix with --finish-rename=" + former + ":" + domain +
                                 " or --undo-rename=" + former + ":" + domain;
            } else {
                finding.remedy = "makes it";
                finding.mend = [domain] { MaildirManager::getInstance().createDomainRoot(domain); };
            }
            return finding;
        });
}

/// A home is not made anew where one without a record may be it under another name, or a whole root may be.
void checkMissingHomes(CheckContext& context) {
    context.each(
        "SELECT m.domain, m.name, EXISTS(SELECT 1 FROM home o WHERE o.domain=m.domain AND NOT EXISTS(SELECT 1"
        "  FROM mailname x WHERE x.domain=o.domain AND x.name=o.name))"
        " FROM mailname m WHERE NOT EXISTS(SELECT 1 FROM home h WHERE h.domain=m.domain AND h.name=m.name)"
        " ORDER BY m.domain, m.name",
        [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            const std::string name = row.text(1);
            const fs::path path = kavro::mail::mailboxPath(domain, name);
            Finding finding{kStorage, path.string(), domain, "a mailbox without its home", "makes an empty one"};
            if (row.number(2) != 0 || !formerName(context.node, domain).empty()) {
                finding.remedy =
                    "see the storage without records; --sync with the domain's document makes an empty one";
            } else {
                finding.mend = [domain, name, path] {
                    makeWholeHome(kavro::mail::openDomainRoot(path.parent_path()).get(), name, path.string(), -1);
                };
            }
            return finding;
        });
}

void checkUnusedHomes(CheckContext& context) {
    context.each(
        "SELECT h.domain, h.name FROM home h WHERE NOT EXISTS(SELECT 1 FROM mailname m WHERE m.domain=h.domain"
        " AND m.name=h.name) ORDER BY 1, 2",
        [](const SqliteStatement& row) {
            return Finding{kStorage, kavro::mail::mailboxPath(row.text(0), row.text(1)), row.text(0),
                           "a home without a mailbox record",
                           "run --sync with the domain's document, or remove it when its mail is not wanted"};
        });
}

}  // namespace

void checkTree(CheckContext& context) {
    const passwd* account = find_user(kMailUser);
    const passwd user = *account;  // later look-ups overwrite what this one points at
    checkRights(context, kStorage, "", mailRoot(), kMailUser, kMailUser, 0755);
    {
        Progress progress(kStorage);
        context.node.query("SELECT domain FROM root ORDER BY domain", {},
                           [&](const SqliteStatement& row) { checkRoot(context, user, row.text(0), progress); });
    }
    if (::chdir("/") != 0) {
        kavro::throwSystemError("chdir", errno);
    }
    if (context.tablesLoaded) {
        checkMissingRoots(context);
        checkMissingHomes(context);
        checkUnusedHomes(context);
    }
    context.each("SELECT path FROM saved ORDER BY path", [](const SqliteStatement& row) {
        const std::string path = row.text(0);
        const std::string below = path.substr(mailRoot().size() + 1);
        const std::string::size_type end = std::min(below.find('/'), below.find(kSavedMark));
        return Finding{kStorage, path, below.substr(0, end), "a tree that was moved aside",
                       "remove it when its mail is not wanted"};
    });
}

}  // namespace mxrepair
