// Standard input is read when asked for, or when the command needs data and its lists hold none.
#include "frontend/mail_db_options.h"

#include <cstdio>
#include <iostream>
#include <new>
#include <stdexcept>

#include "frontend/option_groups.h"
#include "postfix/database_helper.h"
#include "process/end_signals.h"
#include "session/json_parser.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"

namespace {

/// Result of a probing read that found no input ready.
constexpr int kNoInputReady = -1;

bool readStdin(const MailDbOptionsProcessor& processor, bool required) {
    if (processor.waitForStdin()) {
        return read_session_mail_db_info(stdin, 0) == 0;
    }
    if (!required) {
        return true;
    }
    if (processor.isEnough()) {
        fillSessionMailDbInfo(processor);
        return true;
    }
    int result = read_session_mail_db_info(stdin, 1);
    if (result == kNoInputReady) {
        std::cout << "This command requires additional data to be passed via STDIN in JSON format.\n"
                     "To get help on expected input data format call this utility with --help-stdin option.\n"
                     "Type ^D (send EOF) to abort."
                  << std::endl;
        result = read_session_mail_db_info(stdin, 0);
    }
    return result == 0;
}

/// Throws std::bad_alloc unless the session data took the item.
void checkAppended(bool appended) {
    if (!appended) {
        throw std::bad_alloc();
    }
}

/// Throws std::runtime_error for a name that cannot be part of a record's key, before any store is touched.
void checkName(const std::string& name, const std::string& key, const char* option) {
    if (!kavro::mail::postfix::DatabaseHelper::acceptsRecord(key, key)) {
        throw std::runtime_error(name + " - name in --" + option + " has incorrect format.");
    }
}

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

MailDbOptionsProcessor::MailDbOptionsProcessor(const ProgramOptionsHelper& helper)
    : waitForStdin_(helper.has("wait-stdin")) {
    if (helper.has("domain-aliases")) {
        domainAliases_ = helper.get<MailDbDomainAliasesList>("domain-aliases");
        hasCommandLineData_ = true;
    }
    if (helper.has("mail-addresses")) {
        mailAddresses_ = helper.get<MailDbMailAddressesList>("mail-addresses");
        hasCommandLineData_ = true;
    }
    if (helper.has("default-domain-quota")) {
        defaultDomainQuota_ = helper.get<long>("default-domain-quota");
        hasCommandLineData_ = true;
    }
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withDomain(const std::string& name) {
    domain_ = name;
    return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withDomainAlias(const std::string& alias) {
    domainAliases_.add(alias);
    return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withMailname(const std::string& name) {
    mailname_ = name;
    mailAddresses_.add(name);
    return *this;
}

MailDbOptionsProcessor& MailDbOptionsProcessor::withMailAlias(const std::string& alias) {
    if (mailname_.empty()) {
        throw std::runtime_error("Programming error: withMailAlias() must be called after withMailname()");
    }
    mailAddresses_.add(mailname_, alias);
    return *this;
}

MailDbStdinReader::MailDbStdinReader(const MailDbOptionsProcessor& processor, bool required) : processor_(processor) {
    if (!readStdin(processor_, required)) {
        throw std::runtime_error("Failed to read and parse session mail data from STDIN. See mail log for details.");
    }
}

MailDbStdinReader::~MailDbStdinReader() {
    free_session_mail_db_info();
}

void fillSessionMailDbInfo(const MailDbOptionsProcessor& processor) {
    mail_db_data_t* data = get_session_mail_db_info();
    if (data == nullptr) {
        throw std::runtime_error("Failed to create or obtain session mail data object. Maybe out of memory.");
    }
    sj_parser* parser = sj_get_dummy_parser(nullptr);
    data->domain_name = processor.domain().c_str();
    data->domain_quota = processor.defaultDomainQuota();
    for (const std::string& alias : processor.domainAliases().names()) {
        if (alias.empty()) {
            continue;
        }
        checkName(alias, alias, "domain-aliases");
        checkAppended(append_session_string(parser, &data->domain_aliases_count, &data->domain_aliases_capacity,
                                            &data->domain_aliases, alias.c_str()));
    }
    const std::string atDomain = '@' + processor.domain();
    for (const auto& [mailname, aliases] : processor.mailAddresses().mails()) {
        if (mailname.empty()) {
            continue;
        }
        checkName(mailname, mailname + atDomain, "mail-addresses");
        mail_db_mail_t* mail = append_session_mail(parser, data);
        checkAppended(mail != nullptr);
        mail->name = mailname.c_str();
        for (const std::string& alias : aliases) {
            if (alias.empty()) {
                continue;
            }
            checkName(alias, alias + atDomain, "mail-addresses");
            checkAppended(append_session_string(parser, &mail->aliases_count, &mail->aliases_capacity, &mail->aliases,
                                                alias.c_str()));
        }
    }
    reset_session_index();
}

CommandMailData::CommandMailData(const ProgramOptionsHelper& helper, const MailDataNames& names, bool required)
    : processor_(helper), reader_(describe(processor_, helper, names), required) {
    kavro::process::deferEndSignals();
}
