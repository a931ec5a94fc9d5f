// The shared options, with the descriptions that the help shows.
#include "frontend/option_groups.h"

#include <boost/program_options/value_semantic.hpp>
#include <stdexcept>
#include <string>

#include "frontend/option_types.h"
#include "postfix/database_helper.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace po = boost::program_options;

namespace {

/// The option's text; empty when it is absent.
std::string textOf(const ProgramOptionsHelper& helper, const char* name) {
    return helper.has(name) ? helper.get<std::string>(name) : std::string();
}

}  // namespace

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

NonexistingMailnamesAction buildNotexistingMailnamesAction(const ProgramOptionsHelper& helper) {
    NonexistingMailnamesAction action;
    if (helper.has("set-bounce")) {
        action.kind = NonexistingMailnamesAction::Bounce;
        action.bounceText = textOf(helper, "phrase");
        if (!kavro::isUtf8(action.bounceText)) {
            throw std::runtime_error(action.bounceText + " - phrase has incorrect format.");
        }
    } else if (helper.has("set-catchall")) {
        action.kind = NonexistingMailnamesAction::CatchAll;
        action.catchAllAddress = kavro::idn::emailToAscii(textOf(helper, "email"));
        if (action.catchAllAddress.empty()) {
            throw MissingMandatoryOption("email");
        }
        if (!kavro::mail::postfix::DatabaseHelper::acceptsRecord("@", action.catchAllAddress)) {
            throw std::runtime_error(action.catchAllAddress + " - email has incorrect format.");
        }
    } else if (!helper.has("set-reject")) {
        kavro_log(KAVRO_LOG_ERROR,
                  "Action for notexisting mail names is not specified (--set-bounce/--set-catchall/--set-reject)");
        // The quotes close and open again inside the name, so that the message lists all three options.
        throw MissingMandatoryOption("set-bounce\" or \"--set-catchall\" or \"--set-reject");
    }
    return action;
}

const std::string& domainOption(const ProgramOptionsHelper& helper, const char* name) {
    return helper.get<DomainNameTOpt>(name).str();
}

const std::string& mailnameOption(const ProgramOptionsHelper& helper, const char* name) {
    return helper.get<MailNameTOpt>(name).str();
}
