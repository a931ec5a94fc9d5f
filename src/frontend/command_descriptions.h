// The commands as the help texts show them.
#pragma once

#include <array>

namespace mxadmin_commands {

/// One command of the help texts.
struct CommandDescription {
    const char* command;
    const char* options;  ///< synopsis; empty for none
    const char* description;
};

/// In the order of the help texts. Not the dispatch table: both words for help share a row.
extern const std::array<CommandDescription, 23> commandDescriptions;

}  // namespace mxadmin_commands
