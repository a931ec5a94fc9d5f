// The command table. Its texts are kept byte for byte: callers match them. The command that removes a domain alias is
// named unlike the others; callers know it by that name.
#include "frontend/command_table.h"

#include <algorithm>
#include <string_view>

#include "frontend/usage.h"

using namespace mxadmin_commands;

// clang-format off
constinit const std::array<Command, 23> kCommands = {{
    {"--add-mailname", addMailname, false,
     "--domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
     "adds mailname to the mail domain. Optionally sets the mailbox quota"},
    {"--remove-mailname", removeMailname, false,
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes mailname from the mail domain"},
    {"--rename-mailname", renameMailname, true,
     "--domain-name=<domain_name> --old-mailname=<old_mail_name> --new-mailname=<new_mail_name>",
     "renames a mailname in the mail domain. Optionally sets the mailbox password."},
    {"--add-mailbox", addMailbox, true,
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "adds a mailbox for a given mailname. Sets the mailbox password."},
    {"--remove-mailbox", removeMailbox, false,
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes a mailbox for a given mailname"},
    {"--set-password", setPassword, true,
     "--domain-name=<domain_name> --mailname=<mail_name>",
     "sets the password for a mailname"},
    {"--add-alias", addAlias, false,
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "adds an alias for mailname"},
    {"--remove-alias", removeAlias, false,
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "removes an alias for mailname"},
    {"--add-domain", addDomain, false,
     "--domain-name=<domain_name> [--disk-quota=<quota>]",
     "adds mail domain"},
    {"--remove-domain", removeDomain, false,
     "--domain-name=<domain_name>",
     "removes mail domain"},
    {"--rename-domain", renameDomain, false,
     "--old-domain-name=<domain> --new-domain-name=<domain>",
     "renames mail domain"},
    {"--turn-on-domain", enableDomain, false,
     "--domain-name=<domain_name>",
     "enables mail domain"},
    {"--turn-off-domain", disableDomain, false,
     "--domain-name=<domain_name>",
     "disables mail domain"},
    {"--add-domain-alias", addDomainAlias, false,
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "adds alias for <domain_name>"},
    {"--del-domain-alias", removeDomainAlias, false,
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "removes alias for <domain_name>"},
    {"--rename-domain-alias", renameDomainAlias, false,
     "--domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> "
     "--new-domain-alias-name=<new_domain_alias_name>",
     "renames alias for <domain_name>"},
    {"--get-mailbox-size", getMailboxSize, false,
     "[--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     "returns the size of mailbox for a mailname"},
    {"--set-mailbox-disk-quota", setMailboxDiskQuota, false,
     "--domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     "sets the disk quota for a mailbox. Negative quota == Unlimited"},
    {"--set-domain-disk-quota", setDomainDiskQuota, false,
     "--domain-name=<domain_name> --disk-quota=<quota>",
     "sets a disk space quota to a mail domain. Negative quota == Unlimited"},
    {"--help-commands", usageCommandsCmd, false, "", "displays mxadmin commands list and exit"},
    {"--help-legacy", usageLegacyCmd, false, "", "displays legacy mxadmin help and exit"},
    {"--help-stdin", usageStdinCmd, false, "",
     "displays information about passing data to mxadmin via standard input and exit"},
    {"-h, --help", usageShortCmd, false, "", "displays mxadmin usage summary and exit"},
}};
// clang-format on

const Command* findCommand(const char* word) {
    const auto* found = std::find_if(kCommands.begin(), kCommands.end(), [word](const Command& command) {
        const std::string_view words = command.words;
        const auto comma = words.find(", ");
        return word == words.substr(0, comma) || (comma != words.npos && word == words.substr(comma + 2));
    });
    return found == kCommands.end() ? nullptr : found;
}
