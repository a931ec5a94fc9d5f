// Opening of regular files, and of nothing else that stands in their place.
#pragma once

#include <sys/types.h>

namespace kavro {

/// open(2), close-on-exec, that never waits and refuses what is not a regular file: a FIFO would block the program, a
/// device may do anything. -1 with errno, EISDIR for a directory and EINVAL for anything else.
int openRegular(const char* path, int flags, mode_t mode = 0);

}  // namespace kavro
