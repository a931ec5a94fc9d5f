// Opening and removal of a text source.
#include "postfix/autoclean_ofstream.h"

#include <unistd.h>

#include <cerrno>

namespace kavro::mail::postfix {

namespace {

/// Large tables are written through here: few system calls matter more than memory.
constexpr std::streamsize kBufferSize = 65536;

}  // namespace

AutocleanOFStream::AutocleanOFStream(const std::string& path)
    : path_(path), buffer_(std::make_unique<char[]>(kBufferSize)) {
    // Only a buffer set before the file is opened is used.
    rdbuf()->pubsetbuf(buffer_.get(), kBufferSize);
    ::unlink(path_.c_str());
    open(path_, std::ios::out | std::ios::trunc);
}

AutocleanOFStream::~AutocleanOFStream() {
    const int savedErrno = errno;
    // Closed here, while the buffer lives; what cannot be flushed any more does not matter, the file goes.
    exceptions(std::ios::goodbit);
    close();
    ::unlink(path_.c_str());
    errno = savedErrno;
}

}  // namespace kavro::mail::postfix
