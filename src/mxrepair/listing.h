// What a node knows of its mail domains, for people (aligned columns) and machines (docs/mxrepair.schema.json). Never a
// password.
#pragma once

#include "mxrepair/command_line.h"

namespace mxrepair {

/// All domains, or one. Throws std::runtime_error for a store that cannot be read.
int runList(const Options& options);

/// Everything known of a domain, a domain alias or an address; kFailure, with a message, when there is no such name.
int runShow(const Options& options);

}  // namespace mxrepair
