// Options that several commands share.
#pragma once

#include <string>

#include "frontend/program_options_helper.h"
#include "postfix/unknown_recipients.h"

/// The switch "wait-stdin".
void addWaitStdinOption(ProgramOptionsHelper& helper);
/// The mail data lists and "wait-stdin": the options of every command that needs the whole domain.
void addMailDataOptions(ProgramOptionsHelper& helper);
/// "domain-name", mandatory.
void addDomainNameOption(ProgramOptionsHelper& helper);
/// "domain-name" and "mailname", both mandatory.
void addMailnameOptions(ProgramOptionsHelper& helper);
/// "disk-quota", in bytes.
void addDiskQuotaOption(ProgramOptionsHelper& helper, bool mandatory);
/// The switch "mail-domain-disabled", "-D".
void addDomainDisabledOption(ProgramOptionsHelper& helper);
/// "default-domain-quota", in bytes, and "wait-stdin".
void addDefaultQuotaOptions(ProgramOptionsHelper& helper);

/// Options of the commands for one mail alias.
void formAliasOptions(ProgramOptionsHelper& helper);
/// Options of the commands for one domain alias.
void formDomainAliasOptions(ProgramOptionsHelper& helper);
/// Options that choose what becomes of mail to unknown recipients.
void formNotexistingMailOptions(ProgramOptionsHelper& helper);
/// What they choose: bounce goes before catch-all, catch-all before reject. Throws MissingMandatoryOption when nothing
/// is chosen, logged, or when the catch-all has no address; IdnaError for an address that cannot be converted;
/// std::runtime_error for a text or an address that no record can hold.
NonexistingMailnamesAction buildNotexistingMailnamesAction(const ProgramOptionsHelper& helper);

/// Values of a name option that is present.
const std::string& domainOption(const ProgramOptionsHelper& helper, const char* name = "domain-name");
const std::string& mailnameOption(const ProgramOptionsHelper& helper, const char* name = "mailname");

// Pieces of the synopses. Kept byte for byte: callers match the help.
inline constexpr const char* kDomainDataSynopsis =
    "\n\t[--domain-aliases=<alias1,alias2,...> "
    "--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>] [--wait-stdin]";
inline constexpr const char* kMailDataSynopsis =
    "\n\t[--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>] [--wait-stdin]";
inline constexpr const char* kDefaultQuotaSynopsis = "\n\t[--default-domain-quota=<quota>] [--wait-stdin]";
inline constexpr const char* kUnknownRecipientsSynopsis =
    " <--set-bounce 'text'| --set-catchall 'email' | --set-reject>";
inline constexpr const char* kPasswordSynopsis =
    "\n        The noncrypted password is transferred in the environment variable ZCP_PASSWORD,"
    "\n        or crypted password is transferred in the environment variable ZCP_CRYPTED_PASSWORD";
