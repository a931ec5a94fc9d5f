// The error stream's buffer, the one stream of the program, and the buffers below the standard output streams.
#include "process/error_stream.h"

#include <array>
#include <cstdio>
#include <ios>
#include <iostream>

#include "process/retry.h"

namespace kavro {

int UtilityErrorStreamBuf::overflow(int c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        const char character = traits_type::to_char_type(c);
        std::cerr.put(character);
        unsynced_ += character;
    }
    return c;
}

int UtilityErrorStreamBuf::sync() {
    std::cerr.flush();
    std::cout.write(unsynced_.data(), static_cast<std::streamsize>(unsynced_.size()));
    std::cout.flush();
    unsynced_.clear();
    return 0;
}

// The buffer is a member and so younger than the base: it is handed over once it exists.
UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) {
    rdbuf(&buffer_);
}

namespace {

/// The buffer of a standard descriptor. The library's own fails for good when a signal interrupts a write to a slow
/// reader. What cannot be written is dropped: a child would else write it once more.
class StandardBuf : public std::streambuf {
public:
    explicit StandardBuf(int fd) : fd_(fd) { setp(room_.data(), room_.data() + room_.size()); }

protected:
    int overflow(int c) override {
        if (sync() == -1) {
            return traits_type::eof();
        }
        return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                               : sputc(traits_type::to_char_type(c));
    }
    int sync() override {
        const auto held = static_cast<std::size_t>(pptr() - pbase());
        const bool written = writeAll(fd_, pbase(), held) == held;
        setp(pbase(), epptr());
        return written ? 0 : -1;
    }

private:
    const int fd_;
    std::array<char, BUFSIZ> room_;
};

/// The standard streams, with such buffers below them. These are never destroyed: they are used to the very end.
struct StandardStreams : std::ios_base::Init {
    StandardStreams() {
        auto* errors = new StandardBuf(STDERR_FILENO);
        std::cerr.rdbuf(errors);
        std::clog.rdbuf(errors);
        std::clog.setf(std::ios_base::unitbuf);  // as std::cerr has it
        std::cout.rdbuf(new StandardBuf(STDOUT_FILENO));
        if (::isatty(STDOUT_FILENO) == 1) {  // somebody waits for each line
            std::cout.setf(std::ios_base::unitbuf);
        }
    }
};

// Other static constructors may report errors, so both come before all of normal priority; the standard streams that
// uerr writes to come first.
[[gnu::init_priority(101)]] const StandardStreams standardStreams;

}  // namespace

[[gnu::init_priority(102)]] UtilityErrorStream uerr;

}  // namespace kavro
