// Backend operations on mailboxes: delivery, passwords, quotas.
#include <string>

#include "auth/auth_database.h"
#include "postfix/backend_operations.h"
#include "postfix/mailname_manager.h"
#include "session/auth_mass_operations.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix::mxadmin_commands {

namespace {

unsigned char passwordFlags(const PasswordAccessor& password, bool domainDisabled) {
    return static_cast<unsigned char>(password.flags() | (domainDisabled ? MAIL_AUTH_DOMAIN_DISABLED : 0));
}

}  // namespace

int addMailbox(const std::string& domain, const std::string& mailname, const PasswordAccessor& password,
               bool domainDisabled) {
    MailnameManager::enableDelivery(domain, mailname);
    const int result = set_passwd_for_domains(mailname.c_str(), domain.c_str(), password.password(),
                                              passwordFlags(password, domainDisabled));
    return result == -1 ? 1 : 0;
}

int removeMailbox(const std::string& domain, const std::string& mailname) {
    MailnameManager::disableDelivery(domain, mailname);
    return rm_mails_from_domains(mailname.c_str(), domain.c_str()) == -1 ? 1 : 0;
}

int setPassword(const std::string& domain, const std::string& mailname, const PasswordAccessor& password,
                bool domainDisabled) {
    const int result = set_mass_postbox_passwd(mailname.c_str(), domain.c_str(), password.password(),
                                               passwordFlags(password, domainDisabled));
    return result == -1 ? 1 : 0;
}

int setMailboxDiskQuota(const std::string& domain, const std::string& mailname, long quota) {
    MaildirPPManager::getInstance().setMailboxQuota(domain, mailname, quota);
    return 0;
}

}  // namespace kavro::mail::postfix::mxadmin_commands
