// What the backend prints on the error stream.
#include "postfix/postfix_errors.h"

#include <ostream>

#include "process/error_stream.h"

namespace kavro::mail::postfix {

void reportFailedRestore(const char* humanName) {
    uerr << doubleErrorHead << humanName << doubleErrorTail << std::endl;
}

void warn(const char* text, const std::string& name) {
    uerr << text << name << std::endl;
}

void warnOfMailLeft(const std::string& name, const std::string& path) {
    if (!path.empty()) {
        warn("WARNING: unable to remove all mail of ", name + ": it was a link to \"" + path + '"');
    }
}

}  // namespace kavro::mail::postfix
