// The command line of mxrepair.
#pragma once

namespace mxrepair {

/// Does what the arguments ask for; returns the exit status, 0 or 1. Reports failures on standard error.
int run(int argc, char** argv);

}  // namespace mxrepair
