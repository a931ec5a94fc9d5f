// The command line of mxcheckpassword.
#pragma once

namespace mxcheckpassword {

/// Serves the protocol that the arguments name; returns the exit status. Nothing is thrown.
int run(int argc, char** argv);

}  // namespace mxcheckpassword
