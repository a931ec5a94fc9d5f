// Exit statuses of the program itself. A handler's result is passed on as it is.
#pragma once

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailure = 1,         ///< wrong usage, lost output, or an exception
    kExitUntypedFailure = 2,  ///< an exception of unknown type
};
