// The mail storage of the class layer: one directory per domain, one home per mailname, each with its Maildir and its
// quota.
#pragma once

#include <sys/types.h>

#include <boost/filesystem.hpp>
#include <string>

namespace kavro::mail {

/// What becomes of storage when its owner is removed.
enum class OnRemoval : int { Keep = 0, Remove = 1, Backup = 2 };

/// Holds uid and gid of the mail user. One instance per process, shared with MaildirPPManager. A domain or mailname
/// with "/" or equal to "." or ".." is refused with std::runtime_error before it becomes part of a path. A domain root
/// that is a link, unless root made it, leads nowhere: homes below it are neither made nor renamed nor removed.
class MaildirManager {
public:
    /// The shared instance; looks the mail user up anew. Throws SystemError when there is no such user.
    static MaildirManager& getInstance();
    void init();

    std::string getDomainRelativeRoot(const std::string& domain);
    boost::filesystem::path getDomainRoot(const std::string& domain);
    std::string getMailnameRelativeHome(const std::string& domain, const std::string& mailname);
    boost::filesystem::path getMailnameHome(const std::string& domain, const std::string& mailname);
    std::string getMailnameRelativeMaildir(const std::string& domain, const std::string& mailname);

    void createDomainRoot(const std::string& domain);
    void createMailnameHome(const std::string& domain, const std::string& mailname);
    /// Refuses an existing target, also an empty one: a live domain is never replaced.
    void renameDomainRoot(const std::string& oldDomain, const std::string& newDomain);
    void renameMailnameHome(const std::string& domain, const std::string& oldMailname, const std::string& newMailname);
    void backupDomainRoot(const std::string& domain);
    void backupMailnameHome(const std::string& domain, const std::string& mailname);
    /// Remove the tree; one that is not there is no error. Boost's filesystem_error names the tree that is left, which
    /// for a domain may have the name of a backup already. A link goes alone: where it led is returned, else an empty
    /// path.
    boost::filesystem::path removeDomainRoot(const std::string& domain);
    boost::filesystem::path removeMailnameHome(const std::string& domain, const std::string& mailname);

protected:
    MaildirManager() = default;

private:
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

/// Quotas in bytes; negative: none. Failures throw FSError.
class MaildirPPManager : public MaildirManager {
public:
    static MaildirPPManager& getInstance();

    void setMailboxQuota(const std::string& domain, const std::string& mailname, long quota);
    void removeMailboxQuota(const std::string& domain, const std::string& mailname);
    void setDefaultMailboxQuota(const std::string& domain, long quota);
    void removeDefaultMailboxQuota(const std::string& domain);
    void setDomainQuota(const std::string& domain, long quota);
    void removeDomainQuota(const std::string& domain);

private:
    MaildirPPManager() = default;
};

/// Moves a directory aside under a name that its inode number makes unique. True with an empty `backup` when there is
/// nothing to move; false, with errno, when the source cannot be examined; Boost's exception when the rename fails.
bool backupRename(const boost::filesystem::path& source, boost::filesystem::path& backup);

}  // namespace kavro::mail
