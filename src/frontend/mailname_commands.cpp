// Commands for one mailname and its aliases.
#include <string>

#include "auth/env_password.h"
#include "frontend/command_table.h"
#include "frontend/mail_db_options.h"
#include "frontend/option_groups.h"
#include "frontend/option_types.h"
#include "postfix/backend_operations.h"

namespace backend = kavro::mail::postfix::mxadmin_commands;

namespace mxadmin_commands {

namespace {

/// A backend operation for one alias of a mailname: domain, mailname, alias.
using AliasOperation = int (*)(const std::string& domain, const std::string& mailname, const std::string& alias);

int changeAlias(int argc, char** argv, const char* command, const char* description, AliasOperation operation) {
    ProgramOptionsHelper helper(description,
                                std::string(command) +
                                    " --domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>" +
                                    kDomainDataSynopsis);
    formAliasOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "mailname", .mailAlias = "alias"});
    return operation(domainOption(helper), mailnameOption(helper), mailnameOption(helper, "alias"));
}

}  // namespace

int addMailname(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "add a mailname",
        std::string("--add-mailname --domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]") +
            kDefaultQuotaSynopsis);
    addMailnameOptions(helper);
    addDiskQuotaOption(helper, false);
    addDefaultQuotaOptions(helper);
    standardOptionsParse(helper, argc, argv);
    // A quota of its own makes the domain's default quota needless.
    const bool hasQuota = helper.has("disk-quota");
    const CommandMailData data(helper, {.mailname = "mailname"}, !hasQuota);
    if (hasQuota) {
        return backend::addMailname(domainOption(helper), mailnameOption(helper), helper.get<long>("disk-quota"));
    }
    return backend::addMailname(domainOption(helper), mailnameOption(helper));
}

int removeMailname(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "remove a mailname",
        std::string("--remove-mailname --domain-name=<domain_name> --mailname=<mail_name>") + kMailDataSynopsis);
    addMailnameOptions(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "mailname"});
    return backend::removeMailname(domainOption(helper), mailnameOption(helper));
}

int renameMailname(int argc, char** argv) {
    ProgramOptionsHelper helper("rename a mailname",
                                std::string("--rename-mailname --domain-name=<domain_name> "
                                            "--old-mailname=<old_mail_name> --new-mailname=<new_mail_name> "
                                            "[--mail-domain-disabled|-D]") +
                                    kMailDataSynopsis + kPasswordSynopsis);
    addDomainNameOption(helper);
    helper.addOptions()("old-mailname", boost::program_options::value<MailNameTOpt>(), "old mailname", true)(
        "new-mailname", boost::program_options::value<MailNameTOpt>(), "new mailname", true);
    // Accepted, but of no effect here.
    addDomainDisabledOption(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "old-mailname"});
    const PasswordAccessor password;
    return backend::renameMailname(domainOption(helper), mailnameOption(helper, "old-mailname"),
                                   mailnameOption(helper, "new-mailname"), password);
}

int addAlias(int argc, char** argv) {
    return changeAlias(argc, argv, "--add-alias", "add alias for a given mailname", backend::addAlias);
}

int removeAlias(int argc, char** argv) {
    return changeAlias(argc, argv, "--remove-alias", "remove alias for a given mailname", backend::removeAlias);
}

}  // namespace mxadmin_commands
