// The host's own name among mail domains: it has records of its own in the virtual table, which give way when a domain
// takes that name and come back when a domain gives it up.
#pragma once

#include <string>
#include <vector>

#include "postfix/database_helper.h"
#include "postfix/rename_transaction.h"

namespace kavro::mail::postfix {

/// Lives as long as one rename, whose transaction takes its changes back: records removed come back as they were (a
/// live domain of that name has standard addresses, but no marker), records made go.
class safeDomainFromToHostnameRenamer {
public:
    /// Asks for the host's name; it stays empty, which no domain is, when that cannot be found out. The transaction
    /// must outlive the object.
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

}  // namespace kavro::mail::postfix
