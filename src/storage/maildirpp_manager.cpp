// Quotas of the class layer: the plain quota functions, their failures as exceptions.
#include "storage/maildirpp_manager.h"

#include "storage/default_quota.h"
#include "storage/fs_error.h"
#include "storage/maildirpp_quota.h"

namespace kavro::mail {
namespace {

/// The plain functions have reported the cause; the exception names the step and the place.
void check(int result, const char* operation, const boost::filesystem::path& path) {
    if (result == 0) {
        // Kept: the error code is 0, so the text ends with "Success".
        throw FSError(operation, path, 0);
    }
}

}  // namespace

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
    check(store_mbox_quota(domain.c_str(), mailname.c_str(), quota), "unable to store mbox quota", home);
}

void MaildirPPManager::removeMailboxQuota(const std::string& domain, const std::string& mailname) {
    const auto home = getMailnameHome(domain, mailname);
    check(rm_mbox_quota(domain.c_str(), mailname.c_str()), "unable to remove quota", home);
}

void MaildirPPManager::setDefaultMailboxQuota(const std::string& domain, long quota) {
    const auto root = getDomainRoot(domain);
    check(store_default_mbox_quota(domain.c_str(), quota), "unable to store default mbox quota", root);
}

void MaildirPPManager::removeDefaultMailboxQuota(const std::string& domain) {
    const auto root = getDomainRoot(domain);
    check(rm_default_mbox_quota(domain.c_str()), "unable to remove default mbox quota", root);
}

void MaildirPPManager::setDomainQuota(const std::string& domain, long quota) {
    const auto root = getDomainRoot(domain);
    check(store_domain_quota(domain.c_str(), quota), "unable to store domain quota", root);
}

void MaildirPPManager::removeDomainQuota(const std::string& domain) {
    const auto root = getDomainRoot(domain);
    check(rm_domain_quota(domain.c_str()), "unable to remove domain quota", root);
}

}  // namespace kavro::mail
