// The command line of mxrepair: one mode, and the options that go with it.
#pragma once

#include <string>

namespace mxrepair {

/// Exit statuses. Those of --check tell what it found.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kFindings = 1;
inline constexpr int kCouldNotLook = 2;

/// OLD:NEW, two domains or two addresses in one; both empty when not given.
struct Renamed {
    std::string oldName;
    std::string newName;
};

struct Options {
    std::string domain;      ///< --domain: lower case, ASCII; empty: all
    bool json = false;       ///< --json
    bool waitStdin = false;  ///< --wait-stdin: session documents come on standard input
    Renamed finish;          ///< --finish-rename, of --fix
    Renamed undo;            ///< --undo-rename, of --fix: of domains
    std::string argument;    ///< the mode's own argument, for modes that take one
};

/// The name of a domain as the stores have it: lower case, ASCII. Empty for what cannot be one.
std::string asStored(const std::string& domain);

/// Does what the arguments ask for; returns the exit status. Reports failures on standard error.
int run(int argc, char** argv);

}  // namespace mxrepair
