// What guards a table's changes, by itself: the copy of its map, from its beginning to its removal, or the lock that
// every change begins with.
//   table_guards copy|lock TABLE REPEATS
// Prints the median in milliseconds. TABLE is the path that postmap gets; the table stays as it is.
#include <sys/file.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "postfix/map_copy.h"
#include "postfix/table_lock.h"
#include "util/log.h"

namespace {

using namespace kavro::mail::postfix;

void copy(const std::string& table) {
    const LockedMap map(table, LOCK_SH);
    MapCopy before(table, map);
    before.complete();
    before.arm();
    before.discard();
}

void lock(const std::string& table) {
    const TableLock held = beginChange(table, TableLock::Mode::Shared);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 4 ? argv[1] : "";
    const int repeats = argc == 4 ? std::atoi(argv[3]) : 0;
    if ((what != "copy" && what != "lock") || repeats < 1) {
        std::fputs("Usage: table_guards copy|lock TABLE REPEATS\n", stderr);
        return 2;
    }
    kavro_log_init("stderr", KAVRO_LOG_ERROR, LOG_MAIL >> 3, 0, "table_guards");
    try {
        std::vector<double> taken;
        for (int repeat = 0; repeat < repeats; ++repeat) {
            const auto start = std::chrono::steady_clock::now();
            what == "copy" ? copy(argv[2]) : lock(argv[2]);
            taken.push_back(
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        }
        std::sort(taken.begin(), taken.end());
        std::printf("%.4f\n", taken[taken.size() / 2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "table_guards: %s\n", error.what());
        return 1;
    }
    return 0;
}
