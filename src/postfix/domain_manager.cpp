// Domains and domain aliases: creation, removal, enabling, disabling.
#include "postfix/domain_manager.h"

#include "postfix/postfix_errors.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"
#include "process/report_exception.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix {

namespace {

/// Names that every domain answers for, in the order in which they are written.
constexpr const char* kStandardNames[] = {"postmaster", "mailer-daemon", "root", "anonymous", "drweb", "kluser"};

/// The records of a domain whose storage is there.
void createRecordsAnew(const std::string& domain, bool disabled) {
    DomainManager::removeDomainAlias(domain);
    BatchDatabaseHelper batch;
    DomainManager::createDomainRecord(batch, domain, disabled);
}

/// The result codes of the list aliases, which report their own exceptions.
template <typename Change>
int reportingExceptions(const Change& change) {
    try {
        change();
        return 0;
    } catch (const std::exception& error) {
        reportException(error);
        return 1;
    } catch (...) {
        reportUntypedException();
        return 2;
    }
}

}  // namespace

void DomainManager::createDomain(const std::string& domain, bool disabled) {
    MaildirManager::getInstance().createDomainRoot(domain);
    createRecordsAnew(domain, disabled);
}

void DomainManager::createDomain(const std::string& domain, long quota, bool disabled) {
    MaildirPPManager& storage = MaildirPPManager::getInstance();
    storage.createDomainRoot(domain);
    storage.setDomainQuota(domain, quota);
    createRecordsAnew(domain, disabled);
}

void DomainManager::createDomainRecord(BatchDatabaseHelper& batch, const std::string& domain, bool disabled) {
    // Kept: an enabled domain gets its standard addresses twice.
    createStandardDomainAddresses(batch, domain);
    if (!disabled) {
        enableDomain(batch, domain);
    }
}

void DomainManager::removeDomain(const std::string& domain, OnRemoval onRemoval) {
    DatabaseHelper::removeRecord(kVirtualDomainsTable, domain);
    if (onRemoval == OnRemoval::Remove) {
        try {
            warnOfMailLeft(domain, MaildirManager::getInstance().removeDomainRoot(domain).string());
        } catch (const std::exception& error) {
            // Storage that cannot be deleted must not keep the records alive.
            warn("WARNING: unable to remove all mail of ", domain + ": " + error.what());
        }
    } else if (onRemoval == OnRemoval::Backup) {
        MaildirManager::getInstance().backupDomainRoot(domain);
    }
    removeDomainReferences(domain, false);
}

void DomainManager::removeDomainReferences(const std::string& domain, bool subdomains) {
    const NotInDomainFilter notInDomain(domain, subdomains);
    DatabaseHelper::filterElements(kVirtualTable, notInDomain);
    DatabaseHelper::filterElements(kVmailboxTable, notInDomain);
}

void DomainManager::enableDomain(BatchDatabaseHelper& batch, const std::string& domain) {
    batch.addChange(kVirtualDomainsTable, domain, domain + '/');
    createStandardDomainAddresses(batch, domain);
}

void DomainManager::enableDomain(const std::string& domain) {
    BatchDatabaseHelper batch;
    enableDomain(batch, domain);
}

void DomainManager::disableDomain(const std::string& domain) {
    DatabaseHelper::removeRecord(kVirtualDomainsTable, domain);
    removeStandardDomainAddresses(domain);
}

std::vector<std::string> DomainManager::standardDomainAddresses(const std::string& domain) {
    std::vector<std::string> keys;
    for (const char* name : kStandardNames) {
        keys.push_back(addressOf(name, domain));
    }
    return keys;
}

void DomainManager::createStandardDomainAddresses(BatchDatabaseHelper& batch, const std::string& domain) {
    std::vector<DatabaseHelper::Record> records;
    for (const char* name : kStandardNames) {
        records.emplace_back(addressOf(name, domain), std::string(name) + kLocalDomain);
    }
    batch.addChanges(kVirtualTable, records.begin(), records.end());
}

void DomainManager::createStandardDomainAddresses(const std::string& domain) {
    BatchDatabaseHelper batch;
    createStandardDomainAddresses(batch, domain);
}

void DomainManager::removeStandardDomainAddresses(BatchDatabaseHelper& batch, const std::string& domain) {
    const std::vector<std::string> keys = standardDomainAddresses(domain);
    batch.removeChanges(kVirtualTable, keys.begin(), keys.end());
}

void DomainManager::removeStandardDomainAddresses(const std::string& domain) {
    BatchDatabaseHelper batch;
    removeStandardDomainAddresses(batch, domain);
}

void DomainManager::createDomainAlias(BatchDatabaseHelper& batch, const std::string& domain, const std::string& alias) {
    createStandardDomainAddresses(batch, alias);
    std::vector<DatabaseHelper::Record> records{{alias, kDomainAliasMarker}};
    for (const std::string& mailname : mailnamesOf(domain)) {
        const std::string target = addressOf(mailname, domain);
        for (const std::string& mailAlias : mailAliasesOf(mailname, domain)) {
            records.emplace_back(addressOf(mailAlias, alias), target);
        }
        records.emplace_back(addressOf(mailname, alias), target);
    }
    batch.addChanges(kVirtualTable, records.begin(), records.end());
}

void DomainManager::createDomainAlias(const std::string& domain, const std::string& alias) {
    BatchDatabaseHelper batch;
    createDomainAlias(batch, domain, alias);
}

void DomainManager::removeDomainAlias(const std::string& alias) {
    DatabaseHelper::filterElements(kVirtualTable, NotInDomainFilter(alias, false));
}

int createListAliasForDomainAlias(const std::string& domain, const std::string& domainAlias,
                                  const std::string& listName) {
    return reportingExceptions([&] {
        const std::vector<DatabaseHelper::Record> records{
            {addressOf(listName, domainAlias), addressOf(listName, domain)}};
        DatabaseHelper::addRecords(kVirtualTable, records.begin(), records.end());
    });
}

int removeListAliasForDomainAlias(const std::string& domainAlias, const std::string& listName) {
    return reportingExceptions([&] {
        const std::vector<std::string> keys{addressOf(listName, domainAlias)};
        DatabaseHelper::removeRecords(kVirtualTable, keys.begin(), keys.end());
    });
}

}  // namespace kavro::mail::postfix
