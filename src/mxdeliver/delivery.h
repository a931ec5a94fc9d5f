// One delivery, from the envelope to the last line of the mailname's .qmail.
#pragma once

#include <string>

namespace mxdeliver {

/// Delivers the message on standard input. Everything that can be known beforehand is checked before the first line is
/// obeyed; addresses to forward to are served last, all at once, so that a failing line sends nothing. Changes the
/// working directory, the umask and the environment. Throws DeliveryError.
void deliver(const std::string& sender, const std::string& recipient);

}  // namespace mxdeliver
