// Modification times of maps, and the signal to the address resolver.
#include "postfix/running_postfix.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <thread>

#include "postfix/tables.h"
#include "util/process_search.h"

namespace kavro::mail::postfix {

namespace {

/// The resolver as Debian's Postfix runs it.
constexpr const char* kResolver = "/usr/lib/postfix/sbin/trivial-rewrite";

/// From the start of a resolver to its first answer pass some 10 ms, more on a busy machine.
constexpr std::chrono::milliseconds kFirstAnswer{500};

std::string mapFile(const std::string& table) {
    return table.substr(table.find(':') + 1) + ".db";
}

/// Zero for a missing file.
struct timespec modificationTime(const std::string& file) {
    struct stat found {};
    return ::stat(file.c_str(), &found) == 0 ? found.st_mtim : timespec{};
}

void setSecondAfter(const std::string& file, time_t former) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {std::max(former, std::time(nullptr)) + 1, 0}};
    ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

}  // namespace

MapSecond::MapSecond(const std::string& table) : file_(mapFile(table)), before_(modificationTime(file_)) {
}

MapSecond::~MapSecond() {
    const struct timespec now = modificationTime(file_);
    if (before_.tv_sec != 0 && (now.tv_sec != before_.tv_sec || now.tv_nsec != before_.tv_nsec)) {
        setSecondAfter(file_, before_.tv_sec);
    }
}

RoutingNotice::~RoutingNotice() {
    try {
        for (const RunningProcess& resolver : findProcessesByPath(kResolver)) {
            if (resolver.age < kFirstAnswer) {
                std::this_thread::sleep_for(kFirstAnswer - resolver.age);
            }
            if (runsProgram(resolver.id, kResolver)) {
                ::kill(resolver.id, SIGINT);
            }
        }
        // A daemon may have got, and kept, an answer of the old resolver after it had read the new map.
        const std::string read = mapFile(kVirtualTable);
        setSecondAfter(read, modificationTime(read).tv_sec);
    } catch (const std::exception&) {
        // No memory for the list: the resolver looks by itself, later.
        return;
    }
}

}  // namespace kavro::mail::postfix
