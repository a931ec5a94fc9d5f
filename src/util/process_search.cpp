// By the executable links of /proc (proc(5)).
#include "util/process_search.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>

#include "util/file_io.h"

namespace {

/// The process id that an entry of /proc is named after; -1 for any other entry.
pid_t process_id(const char* name) {
    pid_t id = -1;
    const char* end = name + std::strlen(name);
    const auto [position, error] = std::from_chars(name, end, id);
    return error == std::errc() && position == end ? id : -1;
}

/// Milliseconds since boot when the process started (field 22 of proc(5)'s stat); -1 when that cannot be read.
long long start_time(pid_t id) {
    const kavro::CFile stat(std::fopen(("/proc/" + std::to_string(id) + "/stat").c_str(), "re"));
    std::array<char, 1024> line;
    if (stat == nullptr || std::fgets(line.data(), line.size(), stat.get()) == nullptr) {
        return -1;
    }
    // The second field is the program's name in parentheses, whatever that holds.
    const char* afterName = std::strrchr(line.data(), ')');
    unsigned long long ticks = 0;
    if (afterName == nullptr || std::sscanf(afterName + 1,
                                            " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d "
                                            "%*d %llu",
                                            &ticks) != 1) {
        return -1;
    }
    return static_cast<long long>(ticks) * 1000 / ::sysconf(_SC_CLK_TCK);
}

std::chrono::milliseconds age_of(pid_t id) {
    struct timespec now {};
    const long long start = start_time(id);
    if (start == -1 || ::clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return {};
    }
    const long long age = static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000 - start;
    return std::chrono::milliseconds(std::max(age, 0LL));
}

/// Calls `visit` for each process that runs `path`, until that answers false.
template <typename Visit>
void visit_processes(const char* path, Visit visit) {
    const kavro::CDirectory proc = kavro::openDirectory("/proc");
    if (proc == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(proc.get())) {
        const pid_t id = process_id(entry->d_name);
        if (id > 0 && runsProgram(id, path) && !visit(id)) {
            return;
        }
    }
}

}  // namespace

bool runsProgram(pid_t id, const char* path) {
    // A program whose file was replaced reads otherwise, and the links of other users' processes and of kernel threads
    // cannot be read. One byte more than wanted, so that a longer target is not taken for it.
    const std::string_view wanted(path);
    std::string target(wanted.size() + 1, '\0');
    const ssize_t length = ::readlink(("/proc/" + std::to_string(id) + "/exe").c_str(), target.data(), target.size());
    return length == static_cast<ssize_t>(wanted.size()) && target.compare(0, wanted.size(), wanted) == 0;
}

pid_t findProcessByPath(const char* path) {
    pid_t found = -1;
    visit_processes(path, [&](pid_t id) {
        found = id;
        return false;
    });
    return found;
}

std::vector<RunningProcess> findProcessesByPath(const char* path) {
    std::vector<RunningProcess> found;
    visit_processes(path, [&](pid_t id) {
        found.push_back({id, age_of(id)});
        return true;
    });
    return found;
}
