// What the program was asked to print: on a full disk or a closed reader the text is lost, and that is a failure.
#pragma once

#include <iosfwd>

/// Flushes; reports on standard error when the stream did not take all that was written. True when it did.
bool finishOutput(std::ostream& stream);

/// Finishes the output and ends the process with `status`, or with 1 instead of 0 when output was lost.
[[noreturn]] void exitAfterOutput(int status, std::ostream& stream);
