// Unknown recipients of a domain or domain alias: their mail is bounced with a text, sent to a catch-all, or rejected.
#pragma once

#include <string>

/// What was chosen.
struct NonexistingMailnamesAction {
    enum Kind : int { Bounce = 0, CatchAll = 1, Reject = 2 };

    int kind = Reject;
    std::string bounceText;       ///< for Bounce
    std::string catchAllAddress;  ///< for CatchAll, in ASCII form
};

namespace kavro::mail::postfix {

/// The command that answers such mail, as it stands in the aliases table: a quoted pipe command (aliases(5)) that runs
/// the bounce program; its one argument is the message on one line, absent for an empty message. It is quoted twice:
/// once for the table, once for the shell.
std::string bounceCommand(const std::string& message);

}  // namespace kavro::mail::postfix
