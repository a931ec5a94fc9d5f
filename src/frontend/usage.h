// The program's own help texts. Each function prints one and ends the process; none returns. Destructors of the
// caller's locals do not run.
#pragma once

#include <iosfwd>
#include <string>

namespace mxadmin_commands {

/// Reports the message, unless it is empty, and the short usage on standard error; status 1.
[[noreturn]] void wrongUsage(const std::string& message);

[[noreturn]] void usageShort(int status, std::ostream& stream);
[[noreturn]] void usageCommands(int status, std::ostream& stream);
[[noreturn]] void usageLegacy(int status, std::ostream& stream);
/// Tells of the document on standard input.
[[noreturn]] void usageStdin(int status, std::ostream& stream);

}  // namespace mxadmin_commands

// The same on standard output with status 0, as entries of the command table. The arguments are ignored.
int usageShortCmd(int argc, char** argv);
int usageCommandsCmd(int argc, char** argv);
int usageLegacyCmd(int argc, char** argv);
int usageStdinCmd(int argc, char** argv);
