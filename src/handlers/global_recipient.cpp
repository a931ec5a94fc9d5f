// Global handlers run for every recipient: in place of a mail address they carry one of two fixed words.
#include "handlers/global_recipient.h"

#include <cstring>

#include "handlers/handlers_database.h"
#include "util/log.h"

using kavro::handlers::kAll;
using kavro::handlers::kAllRecipients;

const char* kavro::handlers::global_recipient(const char* address) {
    if (address == nullptr || *address == '\0') {
        return kAll;
    }
    for (const char* known : {kAll, kAllRecipients}) {
        if (std::strcmp(address, known) == 0) {
            return known;
        }
    }
    return nullptr;
}

const char* validate_global_handler_recipient(const char* address) {
    const char* recipient = kavro::handlers::global_recipient(address);
    if (recipient == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]",
                  kAll, kAllRecipients);
    }
    return recipient;
}
