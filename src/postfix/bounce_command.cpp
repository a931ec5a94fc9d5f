// The bounce command.
#include "postfix/bounce_command.h"

#include <algorithm>

#include "process/shell_quote.h"

namespace kavro::mail::postfix {

std::string bounceCommand(const std::string& message) {
    std::string command = "\"|/usr/lib/kavro-9.0/bouncemessage";
    if (!message.empty()) {
        std::string line = message;
        std::replace(line.begin(), line.end(), '\n', ' ');
        command += ' ' + sh_quote(sh_quote(line));
    }
    return command + '"';
}

}  // namespace kavro::mail::postfix
