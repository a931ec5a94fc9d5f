// Copying of a file so that readers of the target see the old content or the whole new one.
#pragma once

#include <sys/types.h>

/// Copies through a temporary file beside the target that is renamed over it, with the given owner, group and mode.
/// Every failure is reported and ends the process with status 1; the temporary file is removed first.
void copy_file_atomic(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode);
/// The same for callers that go on: 0, or -1, reported.
int try_copy_file_atomic(const char* source, const char* target, uid_t owner, gid_t group, mode_t mode);
