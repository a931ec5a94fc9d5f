// The options that choose what becomes of mail to unknown names, as the value that the backend takes.
#pragma once

#include "frontend/program_options_helper.h"
#include "postfix/unknown_recipients.h"

/// Bounce goes before catch-all, catch-all before reject. Throws MissingMandatoryOption when none is chosen, logged, or
/// when the catch-all has no address; IdnaError for an address that cannot be converted; std::runtime_error for a text
/// or an address that no record can hold.
NonexistingMailnamesAction buildNotexistingMailnamesAction(const ProgramOptionsHelper& helper);
