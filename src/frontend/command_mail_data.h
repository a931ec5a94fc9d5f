// The session mail data of one command, with the names that its own options bring in.
#pragma once

#include "frontend/mail_db_options.h"
#include "frontend/program_options_helper.h"

/// Options whose values belong to the mail data, besides "domain-name". Null: the command has no such option.
struct MailDataNames {
    const char* domainAlias = nullptr;
    const char* mailname = nullptr;
    const char* mailAlias = nullptr;  ///< needs a mailname
};

/// Loads the mail data that a command needs from its parsed options or from standard input; holds it until the backend
/// is done. Once it is there, signals that would end the program wait: the stores are changed next. Throws what
/// MailDbStdinReader throws.
class CommandMailData {
public:
    explicit CommandMailData(const ProgramOptionsHelper& helper, const MailDataNames& names = {}, bool required = true);

private:
    MailDbOptionsProcessor processor_;
    MailDbStdinReader reader_;  ///< its data points into the processor
};
