// The host's own name among mail domains: it has records of its own in the virtual table, which give way when a domain
// takes that name and come back when a domain gives it up.
#pragma once

#include <string>
#include <vector>

#include "postfix/database_helper.h"

namespace kavro::mail::postfix {

/// Lives as long as one rename. The destructor undoes its own changes while an exception is propagating; an undo that
/// fails is reported on the error stream.
class safeDomainFromToHostnameRenamer {
public:
    /// Asks for the host's name; it stays empty, which no domain is, when that cannot be found out.
    safeDomainFromToHostnameRenamer();
    explicit safeDomainFromToHostnameRenamer(const std::string& hostName);
    safeDomainFromToHostnameRenamer(const safeDomainFromToHostnameRenamer&) = delete;
    safeDomainFromToHostnameRenamer& operator=(const safeDomainFromToHostnameRenamer&) = delete;
    ~safeDomainFromToHostnameRenamer();

    const std::string& hostName() const { return hostName_; }

    /// Removes the host's records when a domain is about to become `newDomain`, its name in any letter case. Undoing
    /// puts back what there was: a live domain of that name has standard addresses, but no marker.
    void preRenameToHostname(const std::string& newDomain);
    /// Creates the host's records when a domain was `oldDomain`.
    void postRenameFromHostname(const std::string& oldDomain);

private:
    bool isHostName(const std::string& domain) const;
    void createHostRecords() const;
    void removeHostRecords() const;
    void rememberHostRecords();

    int exceptionsBefore_;
    std::string hostName_;
    bool hostRecordsRestored_ = false;
    bool hostRecordsRemoved_ = false;
    std::vector<DatabaseHelper::Record> removed_;
};

}  // namespace kavro::mail::postfix
