// Errors of the lookup tables and of the operations on them, and what is printed on the error stream instead of thrown:
// warnings about side stores, and the message for a change that could not be taken back.
#pragma once

#include <stdexcept>
#include <string>

namespace kavro::mail::postfix {

/// Base of the family; carries a message only.
class PostfixError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A removal of records failed, or a batch could not keep its changes.
class PostfixDatabaseError : public PostfixError {
public:
    using PostfixError::PostfixError;
};

/// A step against the mail authentication database failed.
class PostfixAuthenticationDBError : public PostfixDatabaseError {
public:
    using PostfixDatabaseError::PostfixDatabaseError;
};

/// Adding records, replacing or rebuilding a table failed.
class PostfixConfigurationError : public PostfixError {
public:
    using PostfixError::PostfixError;
};

/// What is printed before and after the human name of a table that could not be restored.
inline const std::string doubleErrorHead = "CRITICAL ERROR: Unable to properly restore ";
inline const std::string doubleErrorTail =
    " used by Kavro.\n"
    "Mail system may be not usable at the moment and it cannot be repaired automatically.\n"
    "Constact Norvalent support to resolve this issue.";  // Kept: callers match this text.

/// Prints that message on the error stream.
void reportFailedRestore(const char* humanName);

/// Prints a warning about a side store and the name concerned on the error stream.
void warn(const char* text, const std::string& name);

/// Warns that mail of a removed domain or address lies where a link in its place led. Not for an empty path.
void warnOfMailLeft(const std::string& name, const std::string& path);

}  // namespace kavro::mail::postfix
