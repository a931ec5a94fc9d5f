// The records of one mailname in the lookup tables, together with its storage and its delivery file.
#pragma once

#include <string>

#include "postfix/database_helper.h"
#include "storage/maildir_manager.h"

namespace kavro::mail::postfix {

class RenameTransaction;

/// Stateless; failures of tables and storage are exceptions. Domain aliases come from the session mail data.
class MailnameManager {
public:
    /// Storage, a fresh delivery file, no mailbox quota of its own, records.
    static void createMailname(const std::string& domain, const std::string& mailname);
    /// The same with a mailbox quota in bytes.
    static void createMailname(const std::string& domain, const std::string& mailname, long quota);
    static void createMailnameRecord(BatchDatabaseHelper& batch, const std::string& domain,
                                     const std::string& mailname);
    /// Removes records, then storage as told. Records of the mailname's mail aliases stay.
    static void removeMailname(const std::string& domain, const std::string& mailname, OnRemoval onRemoval);
    /// Renames in both tables, then the storage; the transaction takes back what was done.
    static void renameMailname(RenameTransaction& transaction, const std::string& domain,
                               const std::string& oldMailname, const std::string& newMailname);
    /// The same as a transaction of its own.
    static void renameMailname(const std::string& domain, const std::string& oldMailname,
                               const std::string& newMailname);
    /// Renames the address under one domain alias only.
    static void renameMailnameOnDomainAlias(const std::string& domainAlias, const std::string& oldMailname,
                                            const std::string& newMailname);

    static void createMailAlias(BatchDatabaseHelper& batch, const std::string& domain, const std::string& mailname,
                                const std::string& alias);
    static void createMailAlias(const std::string& domain, const std::string& mailname, const std::string& alias);
    static void removeMailAlias(const std::string& domain, const std::string& mailname, const std::string& alias);

    static void addForward(const std::string& domain, const std::string& mailname, const std::string& address);
    static void removeForward(const std::string& domain, const std::string& mailname, const std::string& address);
    static void enableDelivery(const std::string& domain, const std::string& mailname);
    static void disableDelivery(const std::string& domain, const std::string& mailname);
};

}  // namespace kavro::mail::postfix
