// Backend operations on domain aliases.
#include <ostream>
#include <string>

#include "handlers/handlers_database.h"
#include "postfix/backend_operations.h"
#include "postfix/domain_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/session_names.h"
#include "process/error_stream.h"
#include "services/domain_keys.h"
#include "session/auth_mass_operations.h"

namespace kavro::mail::postfix::mxadmin_commands {

int addDomainAlias(const std::string& domain, const std::string& alias, const NonexistingMailnamesAction& action,
                   bool /*single*/) {
    DomainManager::createDomainAlias(domain, alias);
    if (mh_db_clone(nullptr, domain.c_str(), nullptr, alias.c_str()) == -1) {
        warn("WARNING: unable to clone all mail handlers for ", alias);
    }
    if (clone_domain_key(domain.c_str(), alias.c_str()) != 0) {
        warn("WARNING: cannot clone domain key for ", alias);
    }
    if (add_domain_auth_alias(domain.c_str(), alias.c_str()) == -1) {
        return 1;
    }
    int result = processNotexistingMailnamesAction(action, alias);
    for (const std::string& list : mailListsOf(domain)) {
        result |= createListAliasForDomainAlias(domain, alias, list);
    }
    return result;
}

int removeDomainAlias(const std::string& domain, const std::string& alias, bool /*single*/) {
    DomainManager::removeDomainAlias(alias);
    if (mh_db_remove_all(alias.c_str()) == -1) {
        warn("WARNING: unable to properly remove mail handlers for ", alias);
    }
    remove_domain_key(alias.c_str());
    int result = rm_domain_auth_alias(alias.c_str()) == -1 ? 1 : 0;
    for (const std::string& list : mailListsOf(domain)) {
        result |= removeListAliasForDomainAlias(alias, list);
    }
    return result;
}

int renameDomainAlias(const std::string& domain, const std::string& oldAlias, const std::string& newAlias,
                      const NonexistingMailnamesAction& action) {
    DomainManager::renameDomainAlias(oldAlias, newAlias);
    const bool handlersMoved = mh_db_clone(nullptr, oldAlias.c_str(), nullptr, newAlias.c_str()) != -1 &&
                               mh_db_remove_name(oldAlias.c_str()) != -1 && mh_db_remove_addr(oldAlias.c_str()) != -1;
    if (!handlersMoved) {
        warn("WARNING: unable to properly re-assign mail handlers from ", oldAlias + " to " + newAlias);
    }
    if (clone_domain_key(oldAlias.c_str(), newAlias.c_str()) != 0) {
        // Kept: the one warning that is not flushed.
        uerr << "WARNING: cannot create domainkey for " << newAlias << '\n';
    } else {
        // Never the only key of the two.
        remove_domain_key(oldAlias.c_str());
    }
    if (add_domain_auth_alias(domain.c_str(), newAlias.c_str()) == -1 || rm_domain_auth_alias(oldAlias.c_str()) == -1) {
        return 1;
    }
    return processNotexistingMailnamesAction(action, newAlias);
}

}  // namespace kavro::mail::postfix::mxadmin_commands
