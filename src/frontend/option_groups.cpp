// The shared options, with the descriptions that the help shows.
#include "frontend/option_groups.h"

#include <boost/program_options/value_semantic.hpp>
#include <string>

#include "frontend/option_types.h"

namespace po = boost::program_options;

void addWaitStdinOption(ProgramOptionsHelper& helper) {
    helper.addOptions()("wait-stdin", "wait for additional mail data from STDIN");
}

void addMailDataOptions(ProgramOptionsHelper& helper) {
    helper.addOptions()(MailDbOptions());
    addWaitStdinOption(helper);
}

void addDomainNameOption(ProgramOptionsHelper& helper) {
    helper.addOptions()("domain-name", po::value<DomainNameTOpt>(), "domain name", true);
}

void addMailnameOptions(ProgramOptionsHelper& helper) {
    addDomainNameOption(helper);
    helper.addOptions()("mailname", po::value<MailNameTOpt>(), "mailname", true);
}

void addDiskQuotaOption(ProgramOptionsHelper& helper, bool mandatory) {
    helper.addOptions()("disk-quota", po::value<long>(), "disk quota", mandatory);
}

void addDomainDisabledOption(ProgramOptionsHelper& helper) {
    helper.addOptions()("mail-domain-disabled,D", "the domain is disabled (currently unused)");
}

void addDefaultQuotaOptions(ProgramOptionsHelper& helper) {
    helper.addOptions()("default-domain-quota", po::value<long>(), "domain disk mailbox quota, i.e. the default one");
    addWaitStdinOption(helper);
}

void formAliasOptions(ProgramOptionsHelper& helper) {
    addMailnameOptions(helper);
    helper.addOptions()("alias", po::value<MailNameTOpt>(), "alias email", true);
    addMailDataOptions(helper);
}

void formDomainAliasOptions(ProgramOptionsHelper& helper) {
    addDomainNameOption(helper);
    helper.addOptions()("domain-alias-name", po::value<DomainNameTOpt>(), "domain alias name", true);
    addMailDataOptions(helper);
}

void formNotexistingMailOptions(ProgramOptionsHelper& helper) {
    // Kept: the description of "email" does not describe it; callers know the help as it is.
    helper.options().add_options()("set-catchall", "set a domain catchall address")(
        "email", po::value<std::string>(), "domain alias name")("set-bounce", "set a domain bounce")(
        "phrase", po::value<std::string>(), "phrase")("set-reject", "set domain reject flag");
}

const std::string& domainOption(const ProgramOptionsHelper& helper, const char* name) {
    return helper.get<DomainNameTOpt>(name).str();
}

const std::string& mailnameOption(const ProgramOptionsHelper& helper, const char* name) {
    return helper.get<MailNameTOpt>(name).str();
}
