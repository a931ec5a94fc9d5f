// Backend operations on whole domains.
#include <signal.h>

#include "auth/auth_database.h"
#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "postfix/backend_operations.h"
#include "postfix/domain_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/rename_transaction.h"
#include "postfix/tables.h"
#include "services/rename_plugins.h"
#include "session/auth_mass_operations.h"
#include "storage/maildir_manager.h"
#include "util/log.h"
#include "util/process_search.h"

namespace kavro::mail::postfix::mxadmin_commands {

namespace {

/// Keeps its answers about domains; told to look again when one was added.
constexpr const char* kAddressRewriter = "/usr/lib/postfix/trivial-rewrite";

}  // namespace

void killproc(const std::string& path) {
    const pid_t process = findProcessByPath(path.c_str());
    if (process >= 1) {
        ::kill(process, SIGINT);
    }
}

int addDomain(const std::string& domain) {
    DomainManager::createDomain(domain, false);
    killproc(kAddressRewriter);
    return 0;
}

int addDomain(const std::string& domain, long quota) {
    DomainManager::createDomain(domain, quota, false);
    killproc(kAddressRewriter);
    return 0;
}

int removeDomain(const std::string& domain) {
    if (domain_auth_action(domain.c_str(), mailAuthRemoveDomain, "remove auth record") == -1) {
        return 1;
    }
    DomainManager::removeDomain(domain, OnRemoval::Remove);
    if (mh_db_remove_all(domain.c_str()) == -1 || mh_db_remove_addr(domain.c_str()) == -1) {
        warn("WARNING: unable to properly remove all mail handlers for ", domain);
    }
    return 0;
}

int enableDomain(const std::string& domain) {
    if (domain_auth_action(domain.c_str(), mailAuthEnableDomain, "enable auth records") == -1) {
        return 1;
    }
    DomainManager::enableDomain(domain);
    mh_db_switch_by_addr(domain.c_str(), 1);
    return 0;
}

int disableDomain(const std::string& domain) {
    if (domain_auth_action(domain.c_str(), mailAuthDisableDomain, "disable auth records") == -1) {
        return 1;
    }
    DomainManager::disableDomain(domain);
    mh_db_switch_by_addr(domain.c_str(), 0);
    return 0;
}

int renameDomain(const std::string& oldDomain, const std::string& newDomain) {
    bool rowRenamed = false;
    const auto renameAuth = [](const std::string& from, const std::string& to, bool* changed) {
        if (mailAuthRenameDomainCounted(from.c_str(), to.c_str(), changed) != 0) {
            throw PostfixAuthenticationDBError("unable to update domain name in mail authentication database");
        }
    };
    RenameTransaction transaction;  // its way back uses what stands above
    DomainManager::renameDomain(transaction, oldDomain, newDomain);
    transaction.logFailureAs("Unable to properly restore Postfix Virtual Domains Database used by Kavro");

    mailAuthDBSelectStyle(kPostfixStyle);
    transaction.whole(
        kAuthDatabaseHumanName, [&] { renameAuth(oldDomain, newDomain, &rowRenamed); },
        [&] {
            // Without a row of the old name, a row of the new one is another domain's.
            if (rowRenamed) {
                renameAuth(newDomain, oldDomain, nullptr);
            }
        });
    if (RenameDomainInServices(oldDomain.c_str(), newDomain.c_str()) != 0) {
        throw PostfixError("unable to rename some of services");
    }
    if (mh_db_move(nullptr, oldDomain.c_str(), nullptr, newDomain.c_str()) == -1) {
        throw PostfixError("Unable to move domain handlers");
    }
    transaction.commit();
    return 0;
}

int setDomainDiskQuota(const std::string& domain, long quota) {
    MaildirPPManager::getInstance().setDomainQuota(domain, quota);
    return 0;
}

}  // namespace kavro::mail::postfix::mxadmin_commands
