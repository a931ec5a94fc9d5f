// The backend operation behind each command: the order of its steps across all stores. Table and storage failures are
// exceptions; failures of side stores are warnings or the result. 0 success, else failure, usually 1.
#pragma once

#include <string>

#include "auth/env_password.h"
#include "postfix/unknown_recipients.h"

namespace kavro::mail::postfix::mxadmin_commands {

int addDomain(const std::string& domain);
int addDomain(const std::string& domain, long quota);
int removeDomain(const std::string& domain);
int enableDomain(const std::string& domain);
int disableDomain(const std::string& domain);
int renameDomain(const std::string& oldDomain, const std::string& newDomain);
int setDomainDiskQuota(const std::string& domain, long quota);
/// `single` tells other backends whether one alias is changed or the whole domain's; this one does the same for both.
int addDomainAlias(const std::string& domain, const std::string& alias, const NonexistingMailnamesAction& action,
                   bool single);
int removeDomainAlias(const std::string& domain, const std::string& alias, bool single);
int renameDomainAlias(const std::string& domain, const std::string& oldAlias, const std::string& newAlias,
                      const NonexistingMailnamesAction& action);
int processNotexistingMailnamesAction(const NonexistingMailnamesAction& action, const std::string& domain);

int addMailname(const std::string& domain, const std::string& mailname);
int addMailname(const std::string& domain, const std::string& mailname, long quota);
int removeMailname(const std::string& domain, const std::string& mailname);
int renameMailname(const std::string& domain, const std::string& oldMailname, const std::string& newMailname,
                   const PasswordAccessor& password);
int addMailbox(const std::string& domain, const std::string& mailname, const PasswordAccessor& password,
               bool domainDisabled);
int removeMailbox(const std::string& domain, const std::string& mailname);
int setPassword(const std::string& domain, const std::string& mailname, const PasswordAccessor& password,
                bool domainDisabled);
int setMailboxDiskQuota(const std::string& domain, const std::string& mailname, long quota);
int addAlias(const std::string& domain, const std::string& mailname, const std::string& alias);
int removeAlias(const std::string& domain, const std::string& mailname, const std::string& alias);

/// Sends SIGINT to the process that runs the program, if there is one.
void killproc(const std::string& path);

}  // namespace kavro::mail::postfix::mxadmin_commands
