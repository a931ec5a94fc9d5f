// The error stream's buffer, the one stream of the program, and the buffer below std::cerr and std::clog.
#include "process/error_stream.h"

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

/// Unbuffered, like the library's own. That one fails for good when a signal interrupts a write to a slow reader.
class StandardErrorBuf : public std::streambuf {
protected:
    int overflow(int c) override {
        const char character = traits_type::to_char_type(c);
        const bool written = traits_type::eq_int_type(c, traits_type::eof()) || xsputn(&character, 1) == 1;
        return written ? traits_type::not_eof(c) : traits_type::eof();
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        return static_cast<std::streamsize>(writeAll(STDERR_FILENO, text, static_cast<std::size_t>(size)));
    }
};

/// The standard streams, with that buffer below two of them. It is never destroyed: they are used to the very end.
struct StandardStreams : std::ios_base::Init {
    StandardStreams() {
        auto* buffer = new StandardErrorBuf;
        std::cerr.rdbuf(buffer);
        std::clog.rdbuf(buffer);
    }
};

// Other static constructors may report errors, so both come before all of normal priority; the standard streams that
// uerr writes to come first.
[[gnu::init_priority(101)]] const StandardStreams standardStreams;

}  // namespace

[[gnu::init_priority(102)]] UtilityErrorStream uerr;

}  // namespace kavro
