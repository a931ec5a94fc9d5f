// From the command word to its handler, and from whatever escapes a handler to a report and an exit status.
#pragma once

#include <stdexcept>

#include "frontend/command_table.h"

namespace kavro {

/// An error whose text is all that the user is shown: printed as it stands on both standard streams, exit status 1.
class KavroUtilException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace kavro

/// Runs the command named by argv[1]. Ends the process with the short usage when there is no such command.
int do_main(int argc, char** argv);

/// Calls `entry`; reports what escapes it and returns the status for that, else its result. Signals that were to wait
/// for the end of the command act before it returns.
int runGuarded(CommandHandler entry, int argc, char** argv);
