// Search among the running processes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <vector>

struct RunningProcess {
    pid_t id;
    std::chrono::milliseconds age;  ///< since its start; zero when that cannot be told
};

/// Id of the first process whose executable is exactly `path`; -1 for none.
pid_t findProcessByPath(const char* path);
/// All of them, in no particular order; empty for none.
std::vector<RunningProcess> findProcessesByPath(const char* path);
/// Whether that process runs exactly `path`.
bool runsProgram(pid_t id, const char* path);
