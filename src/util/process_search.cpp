// Search among the running processes, by the executable links of /proc (proc(5)).
#include "util/process_search.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <string>
#include <system_error>

#include "util/c_file.h"

namespace {

/// The process id that an entry of /proc is named after; -1 for any other entry.
pid_t processId(const char* name) {
    pid_t id = -1;
    const char* end = name + std::strlen(name);
    const auto [position, error] = std::from_chars(name, end, id);
    return error == std::errc() && position == end ? id : -1;
}

/// Whether the executable link of that process reads exactly `path`. A program whose file was replaced reads
/// otherwise, and the links of other users' processes and of kernel threads cannot be read.
bool runs(int procFd, const char* id, const std::string& path, std::string& target) {
    const ssize_t length = ::readlinkat(procFd, (std::string(id) + "/exe").c_str(), target.data(), target.size());
    return length == static_cast<ssize_t>(path.size()) && target.compare(0, path.size(), path) == 0;
}

}  // namespace

pid_t findProcessByPath(const char* path) {
    const kavro::CDirectory proc(::opendir("/proc"));
    if (proc == nullptr) {
        return -1;
    }
    const std::string wanted(path);
    // One byte more than wanted, so that a longer target is not taken for it.
    std::string target(wanted.size() + 1, '\0');
    while (const dirent* entry = ::readdir(proc.get())) {
        const pid_t id = processId(entry->d_name);
        if (id > 0 && runs(::dirfd(proc.get()), entry->d_name, wanted, target)) {
            return id;
        }
    }
    return -1;
}
