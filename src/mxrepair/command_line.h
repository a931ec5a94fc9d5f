// The command line of mxrepair: one mode, and the options that go with it.
#pragma once

#include <string>

namespace mxrepair {

/// Exit statuses. Those of --check tell what it found.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kFindings = 1;
inline constexpr int kCouldNotLook = 2;

/// OLD:NEW; both empty when not given.
struct RenamedDomain {
    std::string oldName;
    std::string newName;
};

struct Options {
    std::string domain;      ///< --domain: lower case, ASCII; empty: all
    bool json = false;       ///< --json
    bool waitStdin = false;  ///< --wait-stdin: session documents come on standard input
    RenamedDomain finish;    ///< --finish-rename, of --fix
    RenamedDomain undo;      ///< --undo-rename, of --fix
    std::string argument;    ///< the mode's own argument, for modes that take one
};

/// Does what the arguments ask for; returns the exit status. Reports failures on standard error.
int run(int argc, char** argv);

}  // namespace mxrepair
