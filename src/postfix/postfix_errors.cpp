// The report of a failed restoration.
#include "postfix/postfix_errors.h"

#include <ostream>

#include "process/error_stream.h"

namespace kavro::mail::postfix {

void reportFailedRestore(const char* humanName) {
    uerr << doubleErrorHead << humanName << doubleErrorTail << std::endl;
}

}  // namespace kavro::mail::postfix
