// Domains: rename of a domain or a domain alias across the tables and the storage.
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "postfix/database_helper.h"
#include "postfix/domain_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/record_filters.h"
#include "postfix/rename_transaction.h"
#include "postfix/tables.h"
#include "util/hostname.h"

namespace kavro::mail::postfix {

// The host's own name among mail domains: it has records of its own in the virtual table, which give way when a domain
// takes that name and come back when a domain gives it up.

/// Lives as long as one rename, whose transaction takes its changes back: records removed come back as they were (a
/// live domain of that name has standard addresses, but no marker), records made go.
class safeDomainFromToHostnameRenamer {
public:
    /// Asks for the host's name; it stays empty, which no domain is, when that cannot be found out, and a warning says
    /// so. The transaction must outlive the object.
    explicit safeDomainFromToHostnameRenamer(RenameTransaction& transaction);

    /// In any letter case.
    bool isHostName(const std::string& domain) const;

    /// Looks in the virtual table, by one run, for the markers of these names, and for the host's records when
    /// `newDomain` is the host. Answers the markers found, but for the host's own. Throws PostfixDatabaseError.
    std::vector<std::string> findMarkers(const std::vector<std::string>& names, const std::string& newDomain);

    /// Removes the host's records when a domain is about to become `newDomain`; findMarkers has read them.
    void preRenameToHostname(const std::string& newDomain);
    /// Creates the host's records when a domain was `oldDomain`.
    void postRenameFromHostname(const std::string& oldDomain);

private:
    RenameTransaction* transaction_;
    std::string hostName_;
    std::vector<DatabaseHelper::Record> found_;  ///< the host's records, as they stood
};

namespace {

constexpr std::size_t kHostNameSize = 65;

void createHostRecords(const std::string& host) {
    DatabaseHelper::addRecord(kVirtualTable, host, kDomainAliasMarker);
    DomainManager::createStandardDomainAddresses(host);
}

void removeHostRecords(const std::string& host) {
    DatabaseHelper::removeRecord(kVirtualTable, host);
    DomainManager::removeStandardDomainAddresses(host);
}

[[noreturn]] void refuse(const std::string& what, const std::string& oldName, const std::string& newName,
                         const std::string& reason) {
    throw PostfixError(what + ' ' + oldName + " cannot be renamed to " + newName + ": " + reason);
}

}  // namespace

safeDomainFromToHostnameRenamer::safeDomainFromToHostnameRenamer(RenameTransaction& transaction)
    : transaction_(&transaction) {
    char name[kHostNameSize] = {};
    if (get_hostname_fqdn(name, sizeof name) == 0) {
        hostName_ = name;
    } else {
        warn("WARNING: this host's name is not known: a rename from or to it leaves the host's own records alone", "");
    }
}

bool safeDomainFromToHostnameRenamer::isHostName(const std::string& domain) const {
    return !hostName_.empty() && ::strcasecmp(hostName_.c_str(), domain.c_str()) == 0;
}

std::vector<std::string> safeDomainFromToHostnameRenamer::findMarkers(const std::vector<std::string>& names,
                                                                      const std::string& newDomain) {
    std::vector<std::string> keys = names;
    if (isHostName(newDomain)) {
        const std::vector<std::string> addresses = DomainManager::standardDomainAddresses(newDomain);
        keys.insert(keys.end(), addresses.begin(), addresses.end());
    }
    std::vector<std::string> markers;
    for (DatabaseHelper::Record& record : DatabaseHelper::findRecords(kVirtualTable, keys)) {
        const bool ofHost = isHostName(newDomain) && liesInDomain(record.first, newDomain, false);
        if (ofHost) {
            found_.push_back(std::move(record));
        } else if (record.second == kDomainAliasMarker && !isHostName(record.first)) {
            markers.push_back(std::move(record.first));
        }
    }
    return markers;
}

void safeDomainFromToHostnameRenamer::preRenameToHostname(const std::string& newDomain) {
    if (isHostName(newDomain)) {
        transaction_->inParts(
            kVirtualDomainsHumanName, [this] { removeHostRecords(hostName_); },
            [found = found_] { DatabaseHelper::addRecords(kVirtualTable, found.begin(), found.end()); });
    }
}

void safeDomainFromToHostnameRenamer::postRenameFromHostname(const std::string& oldDomain) {
    if (isHostName(oldDomain)) {
        transaction_->inParts(
            kVirtualDomainsHumanName, [this] { createHostRecords(hostName_); },
            [host = hostName_] { removeHostRecords(host); });
    }
}

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
