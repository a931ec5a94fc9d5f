// Internationalised domain names over GNU libidn: plain functions, and the wrappers that throw.
#pragma once

#include <exception>
#include <string>

/// Code of the last failed conversion, one of libidn's.
extern int idn_errno;

/// Conversions of a domain name; newly allocated, free with free(3); null with idn_errno set on failure. No memory
/// ends the process with status 1.
char* idn_toascii(const char* name);
char* idn_toutf8(const char* name);
/// As idn_toascii; any failure ends the process with status 1.
char* idn_toascii_safe(const char* name);
/// Converts what follows the "@"; null without one.
char* idn_email_toascii(const char* address);
char* idn_email_toascii_safe(const char* address);
/// Converts the host of a URL; the answer is a static buffer of 4096 bytes. Null, reported, on failure.
const char* idn_url_toascii(const char* url);
/// Text of a libidn code.
const char* idn_strerror(int code);

namespace kavro::idn {

/// A failed conversion.
class IdnaError : public std::exception {
public:
    explicit IdnaError(int code) noexcept : code_(code) {}
    const char* what() const noexcept override { return idn_strerror(code_); }
    int code() const noexcept { return code_; }

private:
    int code_;
};

/// Throws IdnaError; std::bad_alloc when the library answers success without a result.
std::string toAscii(const std::string& name);
std::string toUtf8(const std::string& name);
/// Converts what follows the first "@"; an address without one is returned as it is.
std::string emailToAscii(const std::string& address);

}  // namespace kavro::idn
