// Loading of a command's session mail data.
#include "frontend/command_mail_data.h"

#include "frontend/option_groups.h"
#include "process/end_signals.h"

namespace {

const MailDbOptionsProcessor& describe(MailDbOptionsProcessor& processor, const ProgramOptionsHelper& helper,
                                       const MailDataNames& names) {
    processor.withDomain(domainOption(helper));
    if (names.domainAlias != nullptr) {
        processor.withDomainAlias(domainOption(helper, names.domainAlias));
    }
    if (names.mailname != nullptr) {
        processor.withMailname(mailnameOption(helper, names.mailname));
    }
    if (names.mailAlias != nullptr) {
        processor.withMailAlias(mailnameOption(helper, names.mailAlias));
    }
    return processor;
}

}  // namespace

CommandMailData::CommandMailData(const ProgramOptionsHelper& helper, const MailDataNames& names, bool required)
    : processor_(helper), reader_(describe(processor_, helper, names), required) {
    kavro::process::deferEndSignals();
}
