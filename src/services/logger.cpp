// The small sink of the plug-in caller's messages.
#include "services/logger.h"

#include <cstdarg>
#include <cstdio>

#include "process/retry.h"

namespace {

constexpr int kFirstDiscardedLevel = 4;

}  // namespace

void logger(int level, const char* format, ...) {
    if (level >= kFirstDiscardedLevel) {
        return;
    }
    const kavro::ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}
