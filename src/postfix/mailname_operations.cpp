// Backend operations on mailnames and their aliases.
#include <cstdio>
#include <string>

#include "auth/auth_database.h"
#include "handlers/handlers_database.h"
#include "postfix/backend_operations.h"
#include "postfix/mailname_manager.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"
#include "session/auth_mass_operations.h"
#include "session/session_queries.h"

namespace kavro::mail::postfix::mxadmin_commands {

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
    MailnameManager::renameMailname(domain, oldMailname, newMailname);
    if (password.password() == nullptr || *password.password() == '\0') {
        if (rm_mname_from_domains(oldMailname.c_str(), domain.c_str()) == -1) {
            return 1;
        }
    } else if (const int result = mailAuthRename(oldMailname.c_str(), newMailname.c_str(), domain.c_str());
               result != 0) {
        return result;
    }
    const int cloned = mh_db_clone(oldMailname.c_str(), domain.c_str(), newMailname.c_str(), domain.c_str());
    const int removed = mh_db_remove_addr(addressOf(oldMailname, domain).c_str());
    return cloned | removed;
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

}  // namespace kavro::mail::postfix::mxadmin_commands
