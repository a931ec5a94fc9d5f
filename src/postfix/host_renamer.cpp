// Records of the host's own name around a rename.
#include "postfix/host_renamer.h"

#include <strings.h>

#include "postfix/domain_manager.h"
#include "postfix/tables.h"
#include "util/hostname.h"

namespace kavro::mail::postfix {

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

}  // namespace

safeDomainFromToHostnameRenamer::safeDomainFromToHostnameRenamer(RenameTransaction& transaction)
    : transaction_(&transaction) {
    char name[kHostNameSize] = {};
    if (get_hostname_fqdn(name, sizeof name) == 0) {
        hostName_ = name;
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

}  // namespace kavro::mail::postfix
