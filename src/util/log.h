// The two ways of reporting: the logging hook (system log or console), and the message reporter that writes to both
// standard streams and can end the process.
#pragma once

#include <cstdarg>

/// The logging hook; syslog(3) priorities. Keeps errno. Replaced by kavro_log_init.
extern void (*kavro_log)(int priority, const char* format, ...);
/// The same with an argument list.
extern void (*kavro_logv)(int priority, const char* format, va_list args);

extern int LogFacility;          ///< 16, mail
extern int LogEnabled;           ///< kept, read by nobody
extern int LogLevel;             ///< highest priority number that the console logger prints
extern const char* LogLocation;  ///< null: the system log
extern const char* PROGNAME;     ///< its base name prefixes reporter messages; null: no prefix

/// Priorities, as syslog(3) numbers them.
enum : int {
    KAVRO_LOG_CRITICAL = 2,
    KAVRO_LOG_ERROR = 3,
    KAVRO_LOG_WARNING = 4,
    KAVRO_LOG_INFO = 6,
    KAVRO_LOG_DEBUG = 7,
    KAVRO_LOG_USER_WARNING = 12  ///< user facility and warning severity combined
};

/// Wires the hook. Null `location`: the system log, opened with `options` (and the process id), `facility` (its
/// number, 16 for mail) and `ident`, which must outlive the log; else the console logger ("console", "stderr", any
/// other name drops everything).
void kavro_log_init(const char* location, int level, int facility, int options, const char* ident);
/// One line for the system log alone, not for standard error, whatever kavro_log_init was told; nothing where another
/// log is in use. Keeps errno.
void kavro_log_to_system_only(int priority, const char* text);
/// Sets the highest priority number that is let through; also the system log's mask when that is in use.
void kavro_log_set_level(int level);

// The console logger, under the names that the panel's other utilities link to.
// NOLINTBEGIN(bugprone-reserved-identifier): the names are given
void _kavro_utility_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void _kavro_utility_logv(int priority, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
// NOLINTEND(bugprone-reserved-identifier)

/// Reports on standard error and on standard output, with "System error" and errno's text on a second line when errno
/// is set and the buffer holds it. A non-zero status ends the process with it; else returns 0. `flag` is ignored.
int messlog2(int status, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vmesslog2(int status, int flag, const char* format, va_list args) __attribute__((format(printf, 3, 0)));
/// Writes a finished text to both streams; ends the process for a non-zero status.
int ex_messlog(const char* text, int status, int flag);

/// Formatted allocation (free with free(3)); ends the process with status 1 when there is no memory.
char* asprintf_safe(const char* format, ...) __attribute__((format(printf, 1, 2)));
char* vasprintf_safe(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
