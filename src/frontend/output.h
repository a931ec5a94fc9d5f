// How the program ends: its exit statuses, and the check of what it was asked to print. On a full disk or for a closed
// reader the text is lost, and that is a failure.
#pragma once

#include <iosfwd>

/// Exit statuses of the program itself. A handler's result is passed on as it is.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;         ///< wrong usage, lost output, or an exception
inline constexpr int kExitUntypedFailure = 2;  ///< an exception of unknown type

/// Flushes; reports on standard error when the stream did not take all that was written. True when it did.
bool finishOutput(std::ostream& stream);

/// Finishes the output and ends the process with `status`, or with 1 instead of 0 when output was lost.
[[noreturn]] void exitAfterOutput(int status, std::ostream& stream);
