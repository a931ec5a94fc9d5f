// Commands for one alias of a mail domain.
#include <string>

#include "frontend/command_table.h"
#include "frontend/mail_db_options.h"
#include "frontend/option_groups.h"
#include "frontend/option_types.h"
#include "postfix/backend_operations.h"
#include "postfix/running_postfix.h"

namespace backend = kavro::mail::postfix::mxadmin_commands;

namespace mxadmin_commands {

int addDomainAlias(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "add a domain alias",
        std::string("--add-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name>") +
            kUnknownRecipientsSynopsis + kDomainDataSynopsis);
    formDomainAliasOptions(helper);
    formNotexistingMailOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.domainAlias = "domain-alias-name"});
    const NonexistingMailnamesAction action = buildNotexistingMailnamesAction(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    return backend::addDomainAlias(domainOption(helper), domainOption(helper, "domain-alias-name"), action, true);
}

int removeDomainAlias(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "remove a domain alias",
        "--del-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name>");
    formDomainAliasOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.domainAlias = "domain-alias-name"});
    const kavro::mail::postfix::RoutingNotice notice;
    return backend::removeDomainAlias(domainOption(helper), domainOption(helper, "domain-alias-name"), true);
}

int renameDomainAlias(int argc, char** argv) {
    ProgramOptionsHelper helper(
        "rename a given domain alias",
        std::string("--rename-domain-alias --domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> "
                    "--new-domain-alias-name=<new_domain_alias_name>") +
            kUnknownRecipientsSynopsis + kDomainDataSynopsis);
    addDomainNameOption(helper);
    helper.addOptions()("old-domain-alias-name", boost::program_options::value<DomainNameTOpt>(),
                        "old domain alias name", true)(
        "new-domain-alias-name", boost::program_options::value<DomainNameTOpt>(), "new domain alias name", true);
    addMailDataOptions(helper);
    formNotexistingMailOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper, {.domainAlias = "old-domain-alias-name"});
    const NonexistingMailnamesAction action = buildNotexistingMailnamesAction(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    return backend::renameDomainAlias(domainOption(helper), domainOption(helper, "old-domain-alias-name"),
                                      domainOption(helper, "new-domain-alias-name"), action);
}

}  // namespace mxadmin_commands
