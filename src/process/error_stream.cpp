// The error stream's buffer, and the one stream of the program.
#include "process/error_stream.h"

#include <ios>
#include <iostream>

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

// Other static constructors may report errors, so both come before all of normal priority; the standard streams that
// uerr writes to come first.
[[gnu::init_priority(101)]] const std::ios_base::Init standardStreams;

}  // namespace

[[gnu::init_priority(102)]] UtilityErrorStream uerr;

}  // namespace kavro
