// The small sink of the plug-in caller's messages: failures reach the operator on standard error, progress reports
// nobody. It is not the logging hook, so nothing of this goes to the system log.
#pragma once

/// Writes the formatted text, without a line end of its own, to standard error for a level (syslog(3) priorities)
/// below 4; drops it otherwise. Keeps errno.
void logger(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
