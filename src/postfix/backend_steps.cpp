// Warnings of the backend operations.
#include "postfix/backend_steps.h"

#include <ostream>

#include "process/error_stream.h"

namespace kavro::mail::postfix::mxadmin_commands {

void warn(const char* text, const std::string& name) {
    uerr << text << name << std::endl;
}

}  // namespace kavro::mail::postfix::mxadmin_commands
