// Commands for the mailbox of one mailname: delivery, password, size and quota.
#include <cstdint>
#include <iostream>
#include <string>

#include "auth/env_password.h"
#include "frontend/command_table.h"
#include "frontend/mail_db_options.h"
#include "frontend/option_groups.h"
#include "frontend/output.h"
#include "postfix/backend_operations.h"
#include "storage/mailbox_quota.h"

namespace backend = kavro::mail::postfix::mxadmin_commands;

namespace mxadmin_commands {

namespace {

/// A backend operation with a password: domain, mailname, password, whether the domain is disabled.
using PasswordOperation = int (*)(const std::string& domain, const std::string& mailname,
                                  const PasswordAccessor& password, bool domainDisabled);

int changePassword(int argc, char** argv, const char* command, const char* description, PasswordOperation operation) {
    ProgramOptionsHelper helper(description,
                                std::string(command) +
                                    " --domain-name=<domain_name> --mailname=<mail_name> [--mail-domain-disabled|-D]" +
                                    kMailDataSynopsis + kPasswordSynopsis);
    addMailnameOptions(helper);
    addDomainDisabledOption(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "mailname"});
    // Taken as late as possible, so that it is held no longer than the backend needs it. Loading the mail data
    // starts no child that could inherit it.
    const PasswordAccessor password;
    return operation(domainOption(helper), mailnameOption(helper), password, helper.has("mail-domain-disabled"));
}

}  // namespace

int addMailbox(int argc, char** argv) {
    return changePassword(argc, argv, "--add-mailbox", "add mailname's mailbox", backend::addMailbox);
}

int setPassword(int argc, char** argv) {
    return changePassword(argc, argv, "--set-password", "set mailname's password", backend::setPassword);
}

int removeMailbox(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "remove mailname's mailbox",
        std::string("--remove-mailbox --domain-name=<domain_name> --mailname=<mail_name>") + kMailDataSynopsis);
    addMailnameOptions(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "mailname"});
    return backend::removeMailbox(domainOption(helper), mailnameOption(helper));
}

int setMailboxDiskQuota(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "set mailbox disk quota",
        std::string("--set-mailbox-disk-quota --domain-name=<domain_name> --mailname=<mail_name> "
                    "--disk-quota=<quota>") +
            kDefaultQuotaSynopsis);
    addMailnameOptions(helper);
    addDiskQuotaOption(helper, true);
    addDefaultQuotaOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.mailname = "mailname"});
    return backend::setMailboxDiskQuota(domainOption(helper), mailnameOption(helper), helper.get<long>("disk-quota"));
}

int getMailboxSize(int argc, char** argv) {
    ProgramOptionsHelper helper("get mailbox size",
                                "--get-mailbox-size [--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>");
    helper.addOptions()("in-blocks", "count result in blocks rather than bytes");
    addMailnameOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const auto size = static_cast<std::int64_t>(
        get_mbox_size(mailnameOption(helper).c_str(), domainOption(helper).c_str(), helper.has("in-blocks") ? 1 : 0));
    if (size < 0) {
        return kExitFailure;
    }
    // No newline: callers read the bare number.
    std::cout << size;
    return finishOutput(std::cout) ? kExitSuccess : kExitFailure;
}

}  // namespace mxadmin_commands
