// The program-wide error stream. Everything written to it reaches standard error at once, and at each flush standard
// output as well: the panel reads both. Its file also makes the standard output streams outlive interrupted writes.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace kavro {

/// No put area: each character goes to standard error as it comes and is kept until the next flush.
class UtilityErrorStreamBuf : public std::streambuf {
protected:
    int overflow(int c) override;
    int sync() override;

private:
    std::string unsynced_;
};

/// An output stream over one UtilityErrorStreamBuf.
class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();

private:
    UtilityErrorStreamBuf buffer_;
};

/// Constructed before main, usable from any later static constructor, destroyed at exit.
extern UtilityErrorStream uerr;

}  // namespace kavro
