// Backend operations on mailnames and their aliases, and on mailboxes: delivery, passwords, quotas.
#include <cstdio>
#include <string>

#include "auth/auth_database.h"
#include "handlers/handlers_database.h"
#include "postfix/backend_operations.h"
#include "postfix/mailname_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/rename_transaction.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"
#include "session/auth_mass_operations.h"
#include "session/session_queries.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix::mxadmin_commands {

namespace {

unsigned char passwordFlags(const PasswordAccessor& password, bool domainDisabled) {
    return static_cast<unsigned char>(password.flags() | (domainDisabled ? MAIL_AUTH_DOMAIN_DISABLED : 0));
}

}  // namespace

int addMailname(const std::string& domain, const std::string& mailname) {
    MailnameManager::createMailname(domain, mailname);
    return 0;
}

int addMailname(const std::string& domain, const std::string& mailname, long quota) {
    MailnameManager::createMailname(domain, mailname, quota);
    return 0;
}

int removeMailname(const std::string& domain, const std::string& mailname) {
    if (rm_mails_from_domains(mailname.c_str(), domain.c_str()) == -1) {
        return 1;
    }
    MailnameManager::removeMailname(domain, mailname, OnRemoval::Remove);
    return mh_db_remove_addr(addressOf(mailname, domain).c_str());
}

int renameMailname(const std::string& domain, const std::string& oldMailname, const std::string& newMailname,
                   const PasswordAccessor& password) {
    const std::string oldAddress = addressOf(oldMailname, domain);
    const bool usersStay = password.password() != nullptr && *password.password() != '\0';
    bool rowRenamed = false;
    const auto renameUser = [&](const std::string& from, const std::string& to, bool* changed) {
        return mailAuthRenameCounted(from.c_str(), to.c_str(), domain.c_str(), changed);
    };
    RenameTransaction transaction;  // its way back uses what stands above
    MailnameManager::renameMailname(transaction, domain, oldMailname, newMailname);

    int result = 0;
    if (usersStay) {
        transaction.inParts(
            kAuthDatabaseHumanName, [&] { result = renameUser(oldMailname, newMailname, &rowRenamed); },
            [&] {
                if (rowRenamed && renameUser(newMailname, oldMailname, nullptr) != 0) {
                    throw PostfixAuthenticationDBError("the user keeps the new name");
                }
            });
    } else {
        // Removed users cannot come back, so from here on the rename stands whatever fails.
        transaction.commit();
        result = rm_mname_from_domains(oldMailname.c_str(), domain.c_str()) == -1 ? 1 : 0;
    }
    // A rename that is taken back keeps its handlers.
    if (result == 0 && usersStay) {
        result = mh_db_move(oldMailname.c_str(), domain.c_str(), newMailname.c_str(), domain.c_str());
    } else if (result == 0) {
        result = mh_db_clone(oldMailname.c_str(), domain.c_str(), newMailname.c_str(), domain.c_str());
        result |= mh_db_remove_addr(oldAddress.c_str());
    }
    if (result == 0) {
        transaction.commit();
    } else if (!usersStay) {
        warn("WARNING: the mailname was renamed all the same; users or handlers are left of ", oldAddress);
    }
    return result;
}

int addAlias(const std::string& domain, const std::string& mailname, const std::string& alias) {
    MailnameManager::createMailAlias(domain, mailname, alias);
    if (mailAuthClone(mailname.c_str(), domain.c_str(), alias.c_str(), domain.c_str()) == -1) {
        return 1;
    }
    char** domainAliases = nullptr;
    if (get_domaliases_by_domain(nullptr, &domainAliases, domain.c_str()) != 0) {
        return 1;
    }

    const auto cloneHandlersTo = [&](const std::string& target) {
        if (mh_db_clone(mailname.c_str(), domain.c_str(), alias.c_str(), target.c_str()) == 0) {
            return 0;
        }
        // Kept: no line feed, callers match this text.
        std::fprintf(stderr, "Unable to clone mail handlers for %s@%s", alias.c_str(), target.c_str());
        return 1;
    };
    int result = 0;
    for (const std::string& domainAlias : takeNames(domainAliases)) {
        if (mailAuthClone(alias.c_str(), domain.c_str(), alias.c_str(), domainAlias.c_str()) == -1) {
            std::fprintf(stderr, "Unable to clone auth record for %s@%s\n", alias.c_str(), domainAlias.c_str());
            result = 1;
        }
        result |= cloneHandlersTo(domainAlias);
    }
    return result | cloneHandlersTo(domain);
}

int removeAlias(const std::string& domain, const std::string& mailname, const std::string& alias) {
    MailnameManager::removeMailAlias(domain, mailname, alias);
    if (rm_mname_from_domains(alias.c_str(), domain.c_str()) == -1) {
        return 1;
    }
    return mh_db_remove_addr(addressOf(alias, domain).c_str());
}

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
