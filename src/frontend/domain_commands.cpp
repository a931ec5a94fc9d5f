// Commands for a whole mail domain.
#include <string>
#include <vector>

#include "frontend/command_table.h"
#include "frontend/mail_db_options.h"
#include "frontend/option_groups.h"
#include "frontend/option_types.h"
#include "postfix/backend_operations.h"
#include "postfix/running_postfix.h"
#include "process/end_signals.h"
#include "session/session_queries.h"

namespace backend = kavro::mail::postfix::mxadmin_commands;

namespace mxadmin_commands {

namespace {

/// Calls `change` for every domain alias of the session data, in its order. An alias that fails does not keep the
/// others from being changed; the results are joined bit by bit.
template <typename Change>
int forEachDomainAlias(const std::string& domain, Change change) {
    std::vector<std::string> aliases;
    append_domainaliases_by_domain(aliases, domain);
    int result = 0;
    for (const std::string& alias : aliases) {
        result |= change(alias);
    }
    return result;
}

}  // namespace

int addDomain(int argc, char** argv) {
    ProgramOptionsHelper helper("add a domain",
                                "--add-domain --domain-name=<domain> [--disk-quota=quota] [--wait-stdin]");
    addDomainNameOption(helper);
    addDiskQuotaOption(helper, false);
    addWaitStdinOption(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    if (helper.has("disk-quota")) {
        return backend::addDomain(domainOption(helper), helper.get<long>("disk-quota"));
    }
    return backend::addDomain(domainOption(helper));
}

int removeDomain(int argc, char** argv) {
    ProgramOptionsHelper helper("remove a domain",
                                std::string("--remove-domain --domain-name=<domain>") + kDomainDataSynopsis);
    addDomainNameOption(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    return backend::removeDomain(domainOption(helper));
}

int renameDomain(int argc, char** argv) {
    ProgramOptionsHelper helper("rename a domain",
                                "--rename-domain --old-domain-name=<domain> --new-domain-name=<domain>");
    helper.addOptions()("old-domain-name", boost::program_options::value<DomainNameTOpt>(), "old domain name", true)(
        "new-domain-name", boost::program_options::value<DomainNameTOpt>(), "new domain name", true);
    standardOptionsParse(helper, argc, argv);
    kavro::process::deferEndSignals();
    const kavro::mail::postfix::RoutingNotice notice;
    return backend::renameDomain(domainOption(helper, "old-domain-name"), domainOption(helper, "new-domain-name"));
}

int enableDomain(int argc, char** argv) {
    ProgramOptionsHelper helper("enable a domain", std::string("--turn-on-domain --domain-name=<domain>") +
                                                       kUnknownRecipientsSynopsis + kDomainDataSynopsis);
    addDomainNameOption(helper);
    addMailDataOptions(helper);
    formNotexistingMailOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper);
    const std::string& domain = domainOption(helper);
    const NonexistingMailnamesAction action = buildNotexistingMailnamesAction(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    const int result = forEachDomainAlias(
        domain, [&](const std::string& alias) { return backend::addDomainAlias(domain, alias, action, false); });
    return result | backend::enableDomain(domain);
}

int disableDomain(int argc, char** argv) {
    ProgramOptionsHelper helper("disable a domain",
                                std::string("--turn-off-domain --domain-name=<domain>") + kDomainDataSynopsis);
    addDomainNameOption(helper);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper);
    const std::string& domain = domainOption(helper);
    const kavro::mail::postfix::RoutingNotice notice;
    const int result = forEachDomainAlias(
        domain, [&](const std::string& alias) { return backend::removeDomainAlias(domain, alias, false); });
    return result | backend::disableDomain(domain);
}

int setDomainDiskQuota(int argc, char** argv) {
    ProgramOptionsHelper helper("set a domain disk quota",
                                std::string("--set-domain-disk-quota --domain-name=<domain> --disk-quota=quota") +
                                    kMailDataSynopsis +
                                    "\n\tSpecify only mailnames without personal quota via --mail-addresses.");
    addDomainNameOption(helper);
    addDiskQuotaOption(helper, true);
    addMailDataOptions(helper);
    standardOptionsParse(helper, argc, argv);
    const CommandMailData data(helper);
    return backend::setDomainDiskQuota(domainOption(helper), helper.get<long>("disk-quota"));
}

}  // namespace mxadmin_commands
