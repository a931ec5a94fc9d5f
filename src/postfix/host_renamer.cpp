// Records of the host's own name around a rename.
#include "postfix/host_renamer.h"

#include <strings.h>

#include <exception>

#include "postfix/domain_manager.h"
#include "postfix/postfix_errors.h"
#include "postfix/tables.h"
#include "util/hostname.h"

namespace kavro::mail::postfix {

namespace {

constexpr std::size_t kHostNameSize = 65;

}  // namespace

safeDomainFromToHostnameRenamer::safeDomainFromToHostnameRenamer() : exceptionsBefore_(std::uncaught_exceptions()) {
    char name[kHostNameSize] = {};
    if (get_hostname_fqdn(name, sizeof name) == 0) {
        hostName_ = name;
    }
}

safeDomainFromToHostnameRenamer::safeDomainFromToHostnameRenamer(const std::string& hostName)
    : exceptionsBefore_(std::uncaught_exceptions()), hostName_(hostName) {
}

safeDomainFromToHostnameRenamer::~safeDomainFromToHostnameRenamer() {
    if (std::uncaught_exceptions() <= exceptionsBefore_) {
        return;
    }
    try {
        if (hostRecordsRestored_) {
            removeHostRecords();
        }
        if (hostRecordsRemoved_) {
            DatabaseHelper::addRecords(kVirtualTable, removed_.begin(), removed_.end());
        }
    } catch (...) {
        reportFailedRestore(kVirtualDomainsHumanName);
    }
}

bool safeDomainFromToHostnameRenamer::isHostName(const std::string& domain) const {
    return !hostName_.empty() && ::strcasecmp(hostName_.c_str(), domain.c_str()) == 0;
}

void safeDomainFromToHostnameRenamer::createHostRecords() const {
    DatabaseHelper::addRecord(kVirtualTable, hostName_, "1");
    DomainManager::createStandardDomainAddresses(hostName_);
}

void safeDomainFromToHostnameRenamer::removeHostRecords() const {
    DatabaseHelper::removeRecord(kVirtualTable, hostName_);
    DomainManager::removeStandardDomainAddresses(hostName_);
}

void safeDomainFromToHostnameRenamer::rememberHostRecords() {
    std::vector<std::string> keys = DomainManager::standardDomainAddresses(hostName_);
    keys.insert(keys.begin(), hostName_);
    removed_ = DatabaseHelper::findRecords(kVirtualTable, keys);
}

void safeDomainFromToHostnameRenamer::preRenameToHostname(const std::string& newDomain) {
    if (isHostName(newDomain)) {
        rememberHostRecords();
        hostRecordsRemoved_ = true;
        removeHostRecords();
    }
}

void safeDomainFromToHostnameRenamer::postRenameFromHostname(const std::string& oldDomain) {
    if (isHostName(oldDomain)) {
        hostRecordsRestored_ = true;
        createHostRecords();
    }
}

}  // namespace kavro::mail::postfix
