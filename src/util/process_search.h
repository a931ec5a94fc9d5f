// Search among the running processes.
#pragma once

#include <sys/types.h>

/// Id of the first process whose executable is exactly `path`; -1 for none.
pid_t findProcessByPath(const char* path);
