// The two databases: mail authentication with its key, and mail handlers.
#pragma once

#include <iosfwd>

namespace mxrepair {

/// Makes database and key where both are missing; an empty database counts as missing, and gets a new one that works
/// with the key beside it. Where only one is there, the other cannot be made again: that throws std::runtime_error and
/// leaves both as they are. Killed at any moment, it is completed by the next call.
void makeMissingAuthDatabase(std::ostream& report);

/// Makes the handlers database where it is missing or empty. Throws std::runtime_error or SystemError.
void makeMissingHandlersDatabase(std::ostream& report);

}  // namespace mxrepair
