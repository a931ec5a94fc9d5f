// The records that mail domains and their aliases own in the lookup tables, and the storage root that goes with a
// domain.
#pragma once

#include <string>
#include <vector>

#include "postfix/database_helper.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix {

class RenameTransaction;

/// Stateless. Forms without a batch apply their changes at once. Failures of tables and storage are exceptions. Names
/// of aliases, mailnames and lists come from the session mail data.
class DomainManager {
public:
    /// Storage root and records; leftovers of a former domain or alias of that name are removed first.
    static void createDomain(const std::string& domain, bool disabled);
    /// The same with a domain quota in bytes.
    static void createDomain(const std::string& domain, long quota, bool disabled);
    static void createDomainRecord(BatchDatabaseHelper& batch, const std::string& domain, bool disabled);
    /// Removes the domain with all references to it, and its storage as told: a failing removal of the storage is
    /// passed over, a failing backup is not. Bounce commands stay in the aliases table.
    static void removeDomain(const std::string& domain, OnRemoval onRemoval);
    /// Removes all keys and list elements in the domain, with `subdomains` also those in its subdomains.
    static void removeDomainReferences(const std::string& domain, bool subdomains);
    static void enableDomain(BatchDatabaseHelper& batch, const std::string& domain);
    static void enableDomain(const std::string& domain);
    static void disableDomain(const std::string& domain);
    /// Renames in all tables, then the storage root; the transaction takes back what was done. Refused with
    /// PostfixError before anything is changed when the new name is a domain alias.
    static void renameDomain(RenameTransaction& transaction, const std::string& oldDomain,
                             const std::string& newDomain);
    /// The same as a transaction of its own.
    static void renameDomain(const std::string& oldDomain, const std::string& newDomain);

    /// Keys of the six addresses that every domain answers for.
    static std::vector<std::string> standardDomainAddresses(const std::string& domain);
    static void createStandardDomainAddresses(BatchDatabaseHelper& batch, const std::string& domain);
    static void createStandardDomainAddresses(const std::string& domain);
    static void removeStandardDomainAddresses(BatchDatabaseHelper& batch, const std::string& domain);
    static void removeStandardDomainAddresses(const std::string& domain);

    /// The alias and its view of every mailname and mail alias of the domain.
    static void createDomainAlias(BatchDatabaseHelper& batch, const std::string& domain, const std::string& alias);
    static void createDomainAlias(const std::string& domain, const std::string& alias);
    static void removeDomainAlias(const std::string& alias);
    /// Taken back when it fails. Refused with PostfixError, before anything is changed, for one name in two letter
    /// cases and when both names are domain aliases.
    static void renameDomainAlias(const std::string& oldAlias, const std::string& newAlias);

    /// Mail for unknown recipients of the domain and its aliases goes to the target.
    static void createCatchall(BatchDatabaseHelper& batch, const std::string& domain, const std::string& target);
    static void createCatchall(const std::string& domain, const std::string& target);
    static void createCatchallFor(BatchDatabaseHelper& batch, const std::vector<std::string>& domains,
                                  const std::string& target);
    static void removeCatchall(BatchDatabaseHelper& batch, const std::string& domain);
    static void removeCatchall(const std::string& domain);

    /// Mail for unknown recipients of the domain and its aliases is answered with the message.
    static void setBounce(BatchDatabaseHelper& batch, const std::string& domain, const std::string& message);
    static void setBounce(const std::string& domain, const std::string& message);
    static void setBounceFor(BatchDatabaseHelper& batch, const std::vector<std::string>& domains,
                             const std::string& message);
};

// Mailing lists of a domain, seen through one of its aliases.

/// One record in the virtual table. 0, or 1 after a reported std::exception, 2 after a reported other one.
int createListAliasForDomainAlias(const std::string& domain, const std::string& domainAlias,
                                  const std::string& listName);
int removeListAliasForDomainAlias(const std::string& domainAlias, const std::string& listName);

}  // namespace kavro::mail::postfix
