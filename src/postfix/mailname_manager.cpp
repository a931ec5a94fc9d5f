// Mailnames: creation, removal, rename, mail aliases, delivery.
#include "postfix/mailname_manager.h"

#include <vector>

#include "postfix/postfix_errors.h"
#include "postfix/rename_transaction.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"
#include "storage/dotqmail.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix {

namespace {

DotQMailManager deliveryFileOf(const std::string& domain, const std::string& mailname) {
    return DotQMailManager(MaildirManager::getInstance().getMailnameHome(domain, mailname));
}

void createStorage(const std::string& domain, const std::string& mailname) {
    MaildirManager& storage = MaildirManager::getInstance();
    storage.createMailnameHome(domain, mailname);
    DotQMailManager(storage.getMailnameHome(domain, mailname)).reset();
}

/// One name of the domain and of each of its aliases, all leading to one mailname.
void addNameEverywhere(BatchDatabaseHelper& batch, const std::string& domain, const std::string& name,
                       const std::string& mailname) {
    const std::string target = addressOf(mailname, domain);
    std::vector<DatabaseHelper::Record> records{{addressOf(name, domain), target}};
    for (const std::string& domainAlias : domainAliasesOf(domain)) {
        records.emplace_back(addressOf(name, domainAlias), target);
    }
    batch.addChanges(kVirtualTable, records.begin(), records.end());
}

}  // namespace

void MailnameManager::createMailname(const std::string& domain, const std::string& mailname) {
    createStorage(domain, mailname);
    MaildirPPManager::getInstance().removeMailboxQuota(domain, mailname);
    BatchDatabaseHelper batch;
    createMailnameRecord(batch, domain, mailname);
}

void MailnameManager::createMailname(const std::string& domain, const std::string& mailname, long quota) {
    createStorage(domain, mailname);
    MaildirPPManager::getInstance().setMailboxQuota(domain, mailname, quota);
    BatchDatabaseHelper batch;
    createMailnameRecord(batch, domain, mailname);
}

void MailnameManager::createMailnameRecord(BatchDatabaseHelper& batch, const std::string& domain,
                                           const std::string& mailname) {
    batch.addChange(kVmailboxTable, addressOf(mailname, domain),
                    MaildirManager::getInstance().getMailnameRelativeMaildir(domain, mailname) + '/');
    addNameEverywhere(batch, domain, mailname, mailname);
}

void MailnameManager::removeMailname(const std::string& domain, const std::string& mailname, OnRemoval onRemoval) {
    const std::string address = addressOf(mailname, domain);
    DatabaseHelper::removeRecord(kVmailboxTable, address);
    for (const std::string& domainAlias : domainAliasesOf(domain)) {
        DatabaseHelper::removeRecord(kVirtualTable, addressOf(mailname, domainAlias));
    }
    DatabaseHelper::removeRecord(kVirtualTable, address);

    if (onRemoval == OnRemoval::Remove) {
        warnOfMailLeft(address, MaildirManager::getInstance().removeMailnameHome(domain, mailname).string());
    } else if (onRemoval == OnRemoval::Backup) {
        MaildirManager::getInstance().backupMailnameHome(domain, mailname);
    }
}

void MailnameManager::renameMailname(RenameTransaction& transaction, const std::string& domain,
                                     const std::string& oldMailname, const std::string& newMailname) {
    using database::ElementsFilter;
    using database::KeyValueFilter;
    using database::ReplaceElementFilterRef;

    MaildirManager& storage = MaildirManager::getInstance();
    const std::string oldAddress = addressOf(oldMailname, domain);
    const std::string newAddress = addressOf(newMailname, domain);
    const ReplaceElementFilterRef replaceAddress(oldAddress, newAddress);
    const ReplaceElementFilterRef replaceBack(newAddress, oldAddress);
    const ReplaceElementFilterRef replaceMaildir(storage.getMailnameRelativeMaildir(domain, oldMailname),
                                                 storage.getMailnameRelativeMaildir(domain, newMailname));

    transaction.filterTable(kVmailboxTable, kVmailboxHumanName, KeyValueFilter(replaceAddress, replaceMaildir),
                            replaceBack);
    transaction.filterTable(kVirtualTable, kVirtualHumanName, ElementsFilter(replaceAddress), replaceBack);
    transaction.whole(
        kStorageHumanName, [&] { storage.renameMailnameHome(domain, oldMailname, newMailname); },
        [&storage, domain, oldMailname, newMailname] { storage.renameMailnameHome(domain, newMailname, oldMailname); });
}

void MailnameManager::renameMailname(const std::string& domain, const std::string& oldMailname,
                                     const std::string& newMailname) {
    RenameTransaction transaction;
    renameMailname(transaction, domain, oldMailname, newMailname);
    transaction.commit();
}

void MailnameManager::renameMailnameOnDomainAlias(const std::string& domainAlias, const std::string& oldMailname,
                                                  const std::string& newMailname) {
    const std::string oldAddress = addressOf(oldMailname, domainAlias);
    const std::string newAddress = addressOf(newMailname, domainAlias);
    DatabaseHelper::filterElements(kVirtualTable, database::ReplaceElementFilterRef(oldAddress, newAddress));
}

void MailnameManager::createMailAlias(BatchDatabaseHelper& batch, const std::string& domain,
                                      const std::string& mailname, const std::string& alias) {
    addNameEverywhere(batch, domain, alias, mailname);
}

void MailnameManager::createMailAlias(const std::string& domain, const std::string& mailname,
                                      const std::string& alias) {
    BatchDatabaseHelper batch;
    createMailAlias(batch, domain, mailname, alias);
}

void MailnameManager::removeMailAlias(const std::string& domain, const std::string& /*mailname*/,
                                      const std::string& alias) {
    DatabaseHelper::removeRecord(kVirtualTable, addressOf(alias, domain));
    for (const std::string& domainAlias : domainAliasesOf(domain)) {
        DatabaseHelper::removeRecord(kVirtualTable, addressOf(alias, domainAlias));
    }
}

void MailnameManager::addForward(const std::string& domain, const std::string& mailname, const std::string& address) {
    deliveryFileOf(domain, mailname).addRedirect(address, DotQMailManager::Position::Last);
}

void MailnameManager::removeForward(const std::string& domain, const std::string& mailname,
                                    const std::string& address) {
    deliveryFileOf(domain, mailname).removeRedirect(address);
}

void MailnameManager::enableDelivery(const std::string& domain, const std::string& mailname) {
    deliveryFileOf(domain, mailname).enableDelivery();
}

void MailnameManager::disableDelivery(const std::string& domain, const std::string& mailname) {
    deliveryFileOf(domain, mailname).disableDelivery();
}

}  // namespace kavro::mail::postfix
