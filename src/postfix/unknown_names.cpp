// Domains: what happens to mail for names that do not exist, by a catch-all or by a bounce.
#include "postfix/bounce_command.h"
#include "postfix/domain_manager.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"

namespace kavro::mail::postfix {

namespace {

constexpr const char* kBounceName = "_kavro_bounce_";

std::vector<std::string> withAliases(const std::string& domain) {
    std::vector<std::string> domains = domainAliasesOf(domain);
    domains.insert(domains.begin(), domain);
    return domains;
}

}  // namespace

void DomainManager::createCatchall(BatchDatabaseHelper& batch, const std::string& domain, const std::string& target) {
    createCatchallFor(batch, withAliases(domain), target);
}

void DomainManager::createCatchall(const std::string& domain, const std::string& target) {
    BatchDatabaseHelper batch;
    createCatchall(batch, domain, target);
}

void DomainManager::createCatchallFor(BatchDatabaseHelper& batch, const std::vector<std::string>& domains,
                                      const std::string& target) {
    std::vector<DatabaseHelper::Record> records;
    records.reserve(domains.size());
    for (const std::string& domain : domains) {
        records.emplace_back('@' + domain, target);
    }
    batch.addChanges(kVirtualTable, records.begin(), records.end());
}

void DomainManager::removeCatchall(BatchDatabaseHelper& batch, const std::string& domain) {
    std::vector<std::string> keys;
    for (const std::string& alias : domainAliasesOf(domain)) {
        keys.push_back('@' + alias);
    }
    keys.push_back('@' + domain);
    batch.removeChanges(kVirtualTable, keys.begin(), keys.end());
}

void DomainManager::removeCatchall(const std::string& domain) {
    BatchDatabaseHelper batch;
    removeCatchall(batch, domain);
}

void DomainManager::setBounce(BatchDatabaseHelper& batch, const std::string& domain, const std::string& message) {
    setBounceFor(batch, withAliases(domain), message);
}

void DomainManager::setBounce(const std::string& domain, const std::string& message) {
    BatchDatabaseHelper batch;
    setBounce(batch, domain, message);
}

void DomainManager::setBounceFor(BatchDatabaseHelper& batch, const std::vector<std::string>& domains,
                                 const std::string& message) {
    const std::string command = bounceCommand(message);
    std::vector<DatabaseHelper::Record> records;
    for (const std::string& domain : domains) {
        batch.addChange(kAliasesTable, kBounceName + domain, command);
        records.emplace_back('@' + domain, kBounceName + domain + kLocalDomain);
    }
    batch.addChanges(kVirtualTable, records.begin(), records.end());
}

}  // namespace kavro::mail::postfix
