// The records of catch-alls and bounces.
#include "postfix/unknown_recipients.h"

#include <algorithm>
#include <vector>

#include "postfix/backend_operations.h"
#include "postfix/domain_manager.h"
#include "postfix/session_names.h"
#include "postfix/tables.h"
#include "process/shell_quote.h"
#include "util/log.h"

namespace kavro::mail::postfix {

namespace {

constexpr const char* kBounceName = "_kavro_bounce_";

std::vector<std::string> withAliases(const std::string& domain) {
    std::vector<std::string> domains = domainAliasesOf(domain);
    domains.insert(domains.begin(), domain);
    return domains;
}

}  // namespace

std::string bounceCommand(const std::string& message) {
    std::string command = "\"|/usr/lib/kavro-9.0/bouncemessage";
    if (!message.empty()) {
        std::string line = message;
        std::replace(line.begin(), line.end(), '\n', ' ');
        command += ' ' + sh_quote(sh_quote(line));
    }
    return command + '"';
}

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

namespace kavro::mail::postfix::mxadmin_commands {

int processNotexistingMailnamesAction(const NonexistingMailnamesAction& action, const std::string& domain) {
    BatchDatabaseHelper batch;
    const std::vector<std::string> domains{domain};
    switch (action.kind) {
        case NonexistingMailnamesAction::Bounce:
            DomainManager::setBounceFor(batch, domains, action.bounceText);
            return 0;
        case NonexistingMailnamesAction::CatchAll:
            DomainManager::createCatchallFor(batch, domains, action.catchAllAddress);
            return 0;
        case NonexistingMailnamesAction::Reject:
            // Postfix refuses unknown recipients by itself.
            return 0;
        default:
            kavro_log(KAVRO_LOG_ERROR, "Unrecognized action for notexisting mail names: %d", action.kind);
            return 1;
    }
}

}  // namespace kavro::mail::postfix::mxadmin_commands
