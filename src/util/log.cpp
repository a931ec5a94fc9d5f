// The logging hook and the console logger behind it.
#include "util/log.h"

#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>

#include "process/retry.h"

void (*kavro_log)(int priority, const char* format, ...) = _kavro_utility_log;
void (*kavro_logv)(int priority, const char* format, va_list args) = _kavro_utility_logv;

int LogFacility = LOG_MAIL;
int LogEnabled = 1;
int LogLevel = KAVRO_LOG_INFO;
const char* LogLocation = nullptr;

namespace {

bool is_console(const char* location) {
    return ::strcasecmp(location, "console") == 0;
}

bool is_standard_error(const char* location) {
    return ::strcasecmp(location, "stderr") == 0;
}

__attribute__((format(printf, 2, 0))) void print_line(std::FILE* stream, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    std::vfprintf(stream, format, copy);
    va_end(copy);
    std::fputc('\n', stream);
    std::fflush(stream);
}

// syslog(3) leaves errno as its socket calls set it, and callers report or throw errno after they have logged.

__attribute__((format(printf, 2, 0))) void log_to_system_v(int priority, const char* format, va_list args) {
    const kavro::ErrnoKeeper keeper;
    ::vsyslog(priority, format, args);
}

__attribute__((format(printf, 2, 3))) void log_to_system(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_to_system_v(priority, format, args);
    va_end(args);
}

/// What the system log was opened with; null: it was not.
const char* openedAs = nullptr;
int openedWith = 0;

}  // namespace

void kavro_log_init(const char* location, int level, int facility, int options, const char* ident) {
    LogFacility = facility;
    LogLocation = location;
    if (location != nullptr) {
        kavro_log = _kavro_utility_log;
        kavro_logv = _kavro_utility_logv;
        if (!is_console(location) && !is_standard_error(location)) {
            LogEnabled = 0;
        }
    } else {
        ::closelog();
        openedAs = ident;
        openedWith = options | LOG_PID;
        ::openlog(openedAs, openedWith, facility);
        kavro_log = log_to_system;
        kavro_logv = log_to_system_v;
    }
    kavro_log_set_level(level);
}

void kavro_log_to_system_only(int priority, const char* text) {
    if (LogLocation == nullptr && openedAs != nullptr) {
        const kavro::ErrnoKeeper keeper;
        ::openlog(openedAs, openedWith & ~LOG_PERROR, LogFacility);
        ::syslog(priority, "%s", text);
        ::openlog(openedAs, openedWith, LogFacility);
    }
}

void kavro_log_set_level(int level) {
    LogEnabled = level < 1 ? 0 : 1;
    LogLevel = level < 1 ? 0 : level;
    if (LogLocation == nullptr) {
        // The level as it was given: 0 still lets priority 0 through, and an empty mask changes nothing.
        ::setlogmask(LOG_UPTO(std::clamp(level, -1, LOG_DEBUG)));
    }
}

void _kavro_utility_logv(int priority, const char* format, va_list args) {
    if (LogLevel < priority) {
        return;
    }
    if (LogLocation != nullptr && !is_console(LogLocation) && !is_standard_error(LogLocation)) {
        return;
    }
    const kavro::ErrnoKeeper keeper;
    print_line(stderr, format, args);
    if (LogLocation == nullptr || is_console(LogLocation)) {
        print_line(stdout, format, args);
    }
}

void _kavro_utility_log(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _kavro_utility_logv(priority, format, args);
    va_end(args);
}
