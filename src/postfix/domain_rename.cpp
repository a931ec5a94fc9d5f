// Domains: rename of a domain or a domain alias across the tables and the storage.
#include <strings.h>

#include <algorithm>

#include "postfix/domain_manager.h"
#include "postfix/host_renamer.h"
#include "postfix/postfix_errors.h"
#include "postfix/record_filters.h"
#include "postfix/rename_transaction.h"
#include "postfix/tables.h"

namespace kavro::mail::postfix {

namespace {

[[noreturn]] void refuse(const std::string& what, const std::string& oldName, const std::string& newName,
                         const std::string& reason) {
    throw PostfixError(what + ' ' + oldName + " cannot be renamed to " + newName + ": " + reason);
}

}  // namespace

void DomainManager::renameDomain(RenameTransaction& transaction, const std::string& oldDomain,
                                 const std::string& newDomain) {
    using database::ElementsFilter;
    using database::KeyValueFilter;
    using database::ReplaceElementFilterRef;

    safeDomainFromToHostnameRenamer hostRenamer(transaction);
    // Under the marker of a domain alias the renamed domain's mail would bounce.
    if (!hostRenamer.findMarkers({newDomain}, newDomain).empty()) {
        refuse("domain", oldDomain, newDomain, "that name is a domain alias");
    }
    hostRenamer.preRenameToHostname(newDomain);

    const ReplaceDomainPart replaceDomain(oldDomain, newDomain, false);
    const ReplaceDomainPart replaceBack(newDomain, oldDomain, false);
    // Kept: all three report a failed undo under the name of the domains table.
    transaction.filterTable(kVirtualDomainsTable, kVirtualDomainsHumanName,
                            ElementsFilter(ReplaceElementFilterRef(oldDomain, newDomain)),
                            ReplaceElementFilterRef(newDomain, oldDomain));
    transaction.filterTable(kVirtualTable, kVirtualDomainsHumanName, ElementsFilter(replaceDomain), replaceBack);
    MaildirManager& storage = MaildirManager::getInstance();
    const ReplaceDomainPath replaceRoot(storage.getDomainRelativeRoot(oldDomain),
                                        storage.getDomainRelativeRoot(newDomain));
    transaction.filterTable(kVmailboxTable, kVirtualDomainsHumanName, KeyValueFilter(replaceDomain, replaceRoot),
                            replaceBack);

    hostRenamer.postRenameFromHostname(oldDomain);
    transaction.whole(
        kVirtualDomainsHumanName, [&] { storage.renameDomainRoot(oldDomain, newDomain); },
        [&storage, oldDomain, newDomain] { storage.renameDomainRoot(newDomain, oldDomain); });
}

void DomainManager::renameDomain(const std::string& oldDomain, const std::string& newDomain) {
    RenameTransaction transaction;
    renameDomain(transaction, oldDomain, newDomain);
    transaction.commit();
}

void DomainManager::renameDomainAlias(const std::string& oldAlias, const std::string& newAlias) {
    if (::strcasecmp(oldAlias.c_str(), newAlias.c_str()) == 0) {
        refuse("domain alias", oldAlias, newAlias, "it is the same name");
    }
    RenameTransaction transaction;
    safeDomainFromToHostnameRenamer hostRenamer(transaction);
    // With the new marker alone a rename that was interrupted is given again.
    if (hostRenamer.findMarkers({oldAlias, newAlias}, newAlias).size() == 2) {
        refuse("domain alias", oldAlias, newAlias, "both are domain aliases");
    }
    hostRenamer.preRenameToHostname(newAlias);
    const ReplaceDomainPart replaceDomain(oldAlias, newAlias, false);
    transaction.filterTable(kVirtualTable, kVirtualDomainsHumanName, database::ElementsFilter(replaceDomain),
                            ReplaceDomainPart(newAlias, oldAlias, false));
    hostRenamer.postRenameFromHostname(oldAlias);
    transaction.commit();
}

}  // namespace kavro::mail::postfix
