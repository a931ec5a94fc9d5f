// The two databases: mail authentication with its key, and mail handlers.
#pragma once

#include <iosfwd>

namespace mxrepair {

/// Makes database and key where both are missing. Where only one is, the other cannot be made again: that throws
/// std::runtime_error and leaves both as they are.
void makeMissingAuthDatabase(std::ostream& report);

/// Makes the handlers database where it is missing. Throws std::runtime_error or SystemError.
void makeMissingHandlersDatabase(std::ostream& report);

}  // namespace mxrepair
