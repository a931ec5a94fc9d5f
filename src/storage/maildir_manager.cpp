// Creation, renaming and removal of domain roots and mailname homes; quotas, failures as exceptions.
#include "storage/maildir_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "process/retry.h"
#include "process/system_error.h"
#include "storage/mail_tree.h"
#include "storage/mailbox_quota.h"
#include "util/accounts.h"
#include "util/config.h"
#include "util/directory_tree.h"

namespace kavro::mail {
namespace fs = boost::filesystem;
namespace {

constexpr mode_t kStorageUmask = 077;

/// Sets the process's umask and puts the old one back on every way out.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) noexcept : old_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(old_); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t old_;
};

fs::path mailRoot() {
    return zcpConfGetDefaultByIndex(kMailRootKey);
}

/// A failed rename, in the form that Boost's own rename throws.
[[noreturn]] void throwRenameError(const fs::path& from, const fs::path& to, int error) {
    throw fs::filesystem_error("boost::filesystem::rename", from, to, {error, boost::system::system_category()});
}

/// Renames unless something has the new name already, be it an empty directory that rename(2) would replace.
void renameNoReplace(const fs::path& from, const fs::path& to) {
    int result =
        retryInterrupted([&] { return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE); });
    // Not every file system knows the flag.
    if (result == -1 && (errno == EINVAL || errno == ENOSYS)) {
        struct stat status;
        if (retryInterrupted([&] { return ::lstat(to.c_str(), &status); }) == 0) {
            errno = EEXIST;
        } else if (errno == ENOENT) {
            result = retryInterrupted([&] { return ::rename(from.c_str(), to.c_str()); });
        }
    }
    if (result == -1) {
        throwRenameError(from, to, errno);
    }
}

/// Where a link in place of a directory leads, when it leads to one; else empty.
fs::path directoryBehindLink(const fs::path& path) {
    boost::system::error_code error;
    const bool isLink = fs::is_symlink(fs::symlink_status(path, error));
    return isLink && fs::is_directory(path, error) ? fs::absolute(fs::read_symlink(path, error), path.parent_path())
                                                   : fs::path();
}

/// Reports a failed removal (-1 with errno) in the form that Boost's remove_all throws.
void checkRemoval(int result, const fs::path& tree) {
    if (result == -1) {
        throw fs::filesystem_error("boost::filesystem::remove_all", tree, {errno, boost::system::system_category()});
    }
}

/// The plain functions have reported the cause; the exception names the step and the place.
void checkQuota(int result, const char* operation, const boost::filesystem::path& path) {
    if (result == 0) {
        // Kept: the error code is 0, so the text ends with "Success".
        throw FSError(operation, path, 0);
    }
}

}  // namespace

MaildirManager& MaildirManager::getInstance() {
    return MaildirPPManager::getInstance();
}

void MaildirManager::init() {
    const passwd* user = find_user(kMailUser);
    if (user == nullptr) {
        // Kept: no blank before "not"; callers match this text.
        throw SystemError(std::string("user ") + kMailUser + "not found", errno);
    }
    uid_ = user->pw_uid;
    gid_ = user->pw_gid;
}

std::string MaildirManager::getDomainRelativeRoot(const std::string& domain) {
    return lowerPathComponent(domain);
}

fs::path MaildirManager::getDomainRoot(const std::string& domain) {
    return mailRoot() / getDomainRelativeRoot(domain);
}

std::string MaildirManager::getMailnameRelativeHome(const std::string& domain, const std::string& mailname) {
    return (fs::path(lowerPathComponent(domain)) / lowerPathComponent(mailname)).string();
}

fs::path MaildirManager::getMailnameHome(const std::string& domain, const std::string& mailname) {
    return mailboxPath(lowerPathComponent(domain), lowerPathComponent(mailname));
}

std::string MaildirManager::getMailnameRelativeMaildir(const std::string& domain, const std::string& mailname) {
    return (fs::path(getMailnameRelativeHome(domain, mailname)) / "Maildir").string();
}

void MaildirManager::createDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    const UmaskGuard mask(kStorageUmask);
    createDomainDirectory(root, {uid_, gid_});
}

void MaildirManager::createMailnameHome(const std::string& domain, const std::string& mailname) {
    const fs::path home = getMailnameHome(domain, mailname);
    const UmaskGuard mask(kStorageUmask);
    createMailnameTree(home, {uid_, gid_});
}

void MaildirManager::renameDomainRoot(const std::string& oldDomain, const std::string& newDomain) {
    renameNoReplace(getDomainRoot(oldDomain), getDomainRoot(newDomain));
}

void MaildirManager::renameMailnameHome(const std::string& domain, const std::string& oldMailname,
                                        const std::string& newMailname) {
    const fs::path from = getMailnameHome(domain, oldMailname);
    const fs::path to = getMailnameHome(domain, newMailname);
    // rename(2) would report success and the caller would go on to drop the old name's records, which are the live
    // ones.
    if (from == to) {
        throwRenameError(from, to, EEXIST);
    }
    const QuietFdOwner root = openDomainRoot(from.parent_path());
    if (root.empty() || retryInterrupted([&] {
                            return ::renameat(root.get(), from.filename().c_str(), root.get(), to.filename().c_str());
                        }) == -1) {
        throwRenameError(from, to, errno);
    }
}

void MaildirManager::backupDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    fs::path backup;
    if (!backupRename(root, backup)) {
        throw FSError("rename", root, backup, errno);
    }
}

void MaildirManager::backupMailnameHome(const std::string& domain, const std::string& mailname) {
    const fs::path home = getMailnameHome(domain, mailname);
    fs::path backup;
    const bool leadsElsewhere = openDomainRoot(home.parent_path()).empty() && errno == ELOOP;
    if (leadsElsewhere || !backupRename(home, backup)) {
        throw FSError("rename", home, backup, errno);
    }
}

fs::path MaildirManager::removeDomainRoot(const std::string& domain) {
    const fs::path root = getDomainRoot(domain);
    fs::path left = directoryBehindLink(root);
    fs::path doomed;
    try {
        if (!backupRename(root, doomed)) {
            doomed = root;
        }
    } catch (const fs::filesystem_error&) {
        // What cannot be moved aside is removed in its place.
        doomed = root;
    }
    // Links are not followed, at whatever depth.
    checkRemoval(rm_tree(doomed.c_str()), doomed);
    return left;
}

fs::path MaildirManager::removeMailnameHome(const std::string& domain, const std::string& mailname) {
    const fs::path home = getMailnameHome(domain, mailname);
    const QuietFdOwner root = openDomainRoot(home.parent_path());
    if (root.empty()) {
        checkRemoval(errno == ENOENT || errno == ENOTDIR ? 0 : -1, home);
        return {};
    }
    fs::path left = directoryBehindLink(home);
    checkRemoval(rm_tree_at(root.get(), home.filename().c_str()), home);
    return left;
}

MaildirPPManager& MaildirPPManager::getInstance() {
    static MaildirPPManager manager;
    manager.init();
    return manager;
}

void MaildirPPManager::setMailboxQuota(const std::string& domain, const std::string& mailname, long quota) {
    if (quota < 0) {
        removeMailboxQuota(domain, mailname);
        return;
    }
    const auto home = getMailnameHome(domain, mailname);
    checkQuota(store_mbox_quota(domain.c_str(), mailname.c_str(), quota), "unable to store mbox quota", home);
}

void MaildirPPManager::removeMailboxQuota(const std::string& domain, const std::string& mailname) {
    const auto home = getMailnameHome(domain, mailname);
    checkQuota(rm_mbox_quota(domain.c_str(), mailname.c_str()), "unable to remove quota", home);
}

void MaildirPPManager::setDefaultMailboxQuota(const std::string& domain, long quota) {
    const auto root = getDomainRoot(domain);
    checkQuota(store_default_mbox_quota(domain.c_str(), quota), "unable to store default mbox quota", root);
}

void MaildirPPManager::removeDefaultMailboxQuota(const std::string& domain) {
    const auto root = getDomainRoot(domain);
    checkQuota(rm_default_mbox_quota(domain.c_str()), "unable to remove default mbox quota", root);
}

void MaildirPPManager::setDomainQuota(const std::string& domain, long quota) {
    const auto root = getDomainRoot(domain);
    checkQuota(store_domain_quota(domain.c_str(), quota), "unable to store domain quota", root);
}

void MaildirPPManager::removeDomainQuota(const std::string& domain) {
    const auto root = getDomainRoot(domain);
    checkQuota(rm_domain_quota(domain.c_str()), "unable to remove domain quota", root);
}

bool backupRename(const fs::path& source, fs::path& backup) {
    struct stat status;
    if (retryInterrupted([&] { return ::stat(source.c_str(), &status); }) == -1) {
        if (errno != ENOENT && errno != ENOTDIR) {
            return false;
        }
        backup.clear();
        return true;
    }
    // No two live directories of one file system share an inode number.
    backup = source.string() + ".KavroSaved." + std::to_string(status.st_ino);
    if (retryInterrupted([&] { return ::rename(source.c_str(), backup.c_str()); }) == -1) {
        throwRenameError(source, backup, errno);
    }
    return true;
}

}  // namespace kavro::mail
