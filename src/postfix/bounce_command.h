// The command that answers mail for unknown names, as it stands in the aliases table.
#pragma once

#include <string>

namespace kavro::mail::postfix {

/// A quoted pipe command (aliases(5)) that runs the bounce program; its one argument is the message on one line, absent
/// for an empty message. It is quoted twice: once for the table, once for the shell.
std::string bounceCommand(const std::string& message);

}  // namespace kavro::mail::postfix
