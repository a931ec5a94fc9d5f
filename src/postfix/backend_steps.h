// What the backend operations of several commands share. For use inside this folder.
#pragma once

#include <string>

namespace kavro::mail::postfix::mxadmin_commands {

/// Prints a warning about a side store and the name concerned on the error stream; the result stays as it is.
void warn(const char* text, const std::string& name);

}  // namespace kavro::mail::postfix::mxadmin_commands
