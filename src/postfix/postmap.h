// Runs of postmap(1), the one tool that reads and writes lookup tables. Outside this folder it is run by what makes and
// what restores whole tables.
#pragma once

#include <string>
#include <vector>

#include "process/pipe.h"

namespace kavro::mail::postfix {

/// How one run ended.
struct PostmapResult {
    int status = 0;           ///< raw wait status
    std::string diagnostics;  ///< all that it wrote to standard error

    /// Ended by itself with exit code 0.
    bool succeeded() const noexcept;
    /// Succeeded, or ended with exit code 1 and no error line: what a run by keys does when one is not there.
    bool succeededUnlessMissing() const;
    /// The diagnostics, or "unknown error" when there are none.
    std::string reason() const;
};

/// Runs postmap with the arguments, the table last. Its standard input comes from `input`, its standard output goes to
/// `output`; either is the null device when empty. It inherits the descriptor `lock`, unless that is -1: what the lock
/// guards stays guarded until postmap has ended, also when this process is killed. Throws what the pipeline throws; a
/// failed run is told by the result only.
PostmapResult runPostmap(const std::vector<std::string>& arguments, const process::Producer& input,
                         const process::Consumer& output, int lock = -1);

/// True when diagnostics hold no line "program: severity: message" that counts as an error: panic, fatal and error do;
/// with `strict` every severity but warning does.
bool holdsNoError(const std::string& diagnostics, bool strict);

}  // namespace kavro::mail::postfix
