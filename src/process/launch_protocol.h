// What a child tells its parent when it cannot become the program it was started for: texts that begin with a tag of
// four bytes and end with a NUL byte. "ET: " is the exception's type, "EM: " its message, "EC: " its error code.
#pragma once

#include <string_view>

namespace kavro::process {

/// Child side: writes "ET: " and the type, "EM: " and the message, each text with its NUL.
/// Does nothing for a negative descriptor. Uses neither memory allocation nor streams (safe in a forked child).
void writeException(int fd, const char* type, const char* message);

/// Child side: writes "EC: " and the code in decimal, with a NUL. The same conditions.
void writeErrorCode(int fd, int code);

/// Parent side: throws what the child's whole output on the control pipe says, or returns when it reports no failure.
/// Texts without a known tag go to std::clog. A SystemError keeps its code and its text, to which the system's text is
/// added a second time; std::exception loses its message; an unknown type is std::bad_exception.
void throwReportedFailure(std::string_view report);

}  // namespace kavro::process
