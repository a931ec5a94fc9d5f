// The command line of mxrepair: one mode, and the options that go with it.
#pragma once

#include <string>

namespace mxrepair {

/// Exit statuses. Those of --check tell what it found.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kFindings = 1;
inline constexpr int kCouldNotLook = 2;

struct Options {
    std::string domain;      ///< --domain: lower case, ASCII; empty: all
    bool json = false;       ///< --json
    bool waitStdin = false;  ///< --wait-stdin: session documents come on standard input
    std::string argument;    ///< the mode's own argument, for modes that take one
};

/// Does what the arguments ask for; returns the exit status. Reports failures on standard error.
int run(int argc, char** argv);

}  // namespace mxrepair
