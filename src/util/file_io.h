// Opening of regular files, and of nothing else that stands in their place; writing to the end.
#pragma once

#include <sys/types.h>

#include <string_view>

namespace kavro {

/// open(2), close-on-exec, that never waits and refuses what is not a regular file: a FIFO would block the program, a
/// device may do anything. -1 with errno, EISDIR for a directory and EINVAL for anything else.
int openRegular(const char* path, int flags, mode_t mode = 0);

/// Writes all of the bytes. False with errno on failure.
bool writeAll(int fd, std::string_view bytes);

}  // namespace kavro
