// Domains: rename of a domain or a domain alias across the tables.
#include "postfix/domain_manager.h"
#include "postfix/host_renamer.h"
#include "postfix/tables.h"
#include "postfix/undoable_table_step.h"

namespace kavro::mail::postfix {

void DomainManager::renameDomain(const std::string& oldDomain, const std::string& newDomain) {
    using database::ElementsFilter;
    using database::KeyValueFilter;
    using database::ReplaceElementFilterRef;

    const ReplaceDomainPart replaceDomain(oldDomain, newDomain, false);
    const ReplaceDomainPart replaceBack(newDomain, oldDomain, false);

    safeDomainFromToHostnameRenamer hostRenamer;
    hostRenamer.preRenameToHostname(newDomain);

    // Kept: all three report a failed undo under the name of the domains table.
    const UndoableTableStep domainStep(
        kVirtualDomainsTable, kVirtualDomainsHumanName,
        ElementsFilter<ReplaceElementFilterRef>(ReplaceElementFilterRef(oldDomain, newDomain)),
        ReplaceElementFilterRef(newDomain, oldDomain));
    const UndoableTableStep aliasStep(kVirtualTable, kVirtualDomainsHumanName,
                                      ElementsFilter<ReplaceDomainPart>(replaceDomain), replaceBack);

    MaildirManager& storage = MaildirManager::getInstance();
    const std::string oldRoot = storage.getDomainRelativeRoot(oldDomain);
    const std::string newRoot = storage.getDomainRelativeRoot(newDomain);
    const UndoableTableStep mailboxStep(
        kVmailboxTable, kVirtualDomainsHumanName,
        KeyValueFilter<ReplaceDomainPart, ReplaceDomainPath>(replaceDomain, ReplaceDomainPath(oldRoot, newRoot)),
        replaceBack);

    // Undone before the table steps are: what it makes would else be taken for the domain's own records.
    safeDomainFromToHostnameRenamer hostRestorer(hostRenamer.hostName());
    hostRestorer.postRenameFromHostname(oldDomain);
    storage.renameDomainRoot(oldDomain, newDomain);
}

void DomainManager::renameDomainAlias(const std::string& oldAlias, const std::string& newAlias) {
    safeDomainFromToHostnameRenamer hostRenamer;
    hostRenamer.preRenameToHostname(newAlias);
    DatabaseHelper::filterElements(kVirtualTable, ReplaceDomainPart(oldAlias, newAlias, false));
    hostRenamer.postRenameFromHostname(oldAlias);
}

}  // namespace kavro::mail::postfix
