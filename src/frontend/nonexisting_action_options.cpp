// Reading of the action for mail to unknown names.
#include "frontend/nonexisting_action_options.h"

#include <stdexcept>
#include <string>

#include "postfix/database_helper.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace {

/// The option's text; empty when it is absent.
std::string textOf(const ProgramOptionsHelper& helper, const char* name) {
    return helper.has(name) ? helper.get<std::string>(name) : std::string();
}

}  // namespace

NonexistingMailnamesAction buildNotexistingMailnamesAction(const ProgramOptionsHelper& helper) {
    NonexistingMailnamesAction action;
    if (helper.has("set-bounce")) {
        action.kind = NonexistingMailnamesAction::Bounce;
        action.bounceText = textOf(helper, "phrase");
        if (!kavro::isUtf8(action.bounceText)) {
            throw std::runtime_error(action.bounceText + " - phrase has incorrect format.");
        }
    } else if (helper.has("set-catchall")) {
        action.kind = NonexistingMailnamesAction::CatchAll;
        action.catchAllAddress = kavro::idn::emailToAscii(textOf(helper, "email"));
        if (action.catchAllAddress.empty()) {
            throw MissingMandatoryOption("email");
        }
        if (!kavro::mail::postfix::DatabaseHelper::acceptsRecord("@", action.catchAllAddress)) {
            throw std::runtime_error(action.catchAllAddress + " - email has incorrect format.");
        }
    } else if (!helper.has("set-reject")) {
        kavro_log(KAVRO_LOG_ERROR,
                  "Action for notexisting mail names is not specified (--set-bounce/--set-catchall/--set-reject)");
        // The quotes close and open again inside the name, so that the message lists all three options.
        throw MissingMandatoryOption("set-bounce\" or \"--set-catchall\" or \"--set-reject");
    }
    return action;
}
