// The part of this floor's contract that no command of ours calls; other programs of the panel do: checks of arguments
// for a shell, and the call stack, by backtrace(3), that their exceptions carry.
#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "process/report_exception.h"
#include "process/shell_quote.h"

namespace kavro {

namespace {

/// Bytes of 0x80 and above are not safe, whatever the table says of them.
bool allSafe(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char character) {
        const auto code = static_cast<signed char>(character);
        return code >= 0 && shell_escape_chars[code] == '-';
    });
}

/// A line of backtrace_symbols(3), "file(name+offset) [address]", with the name made readable.
std::string readableFrame(const std::string& frame) {
    const auto open = frame.find('(');
    if (open == std::string::npos) {
        return frame;
    }
    const auto plus = frame.find('+', open);
    if (plus == std::string::npos) {
        return frame;
    }
    const auto name = demangle(frame.substr(open + 1, plus - open - 1).c_str());
    return name ? frame.substr(0, open + 1) + *name + frame.substr(plus) : frame;
}

}  // namespace

// Inlining would make the first frame another function than the one that asked.
[[gnu::noinline]] Traceback::Traceback(std::size_t skip)
    : count_(static_cast<std::size_t>(std::max(0, ::backtrace(frames_.data(), static_cast<int>(kMaxFrames))))),
      skip_(std::min(skip, count_)) {
}

Traceback::Traceback(const Traceback& other) noexcept
    : frames_(other.frames_), count_(other.count_), skip_(other.skip_) {
}

Traceback& Traceback::operator=(const Traceback& other) noexcept {
    if (this != &other) {
        std::free(symbols_);
        symbols_ = nullptr;
        frames_ = other.frames_;
        count_ = other.count_;
        skip_ = other.skip_;
    }
    return *this;
}

Traceback::~Traceback() {
    std::free(symbols_);
}

std::ostream& operator<<(std::ostream& stream, const Traceback& trace) {
    if (trace.symbols_ == nullptr) {
        trace.symbols_ = ::backtrace_symbols(trace.frames_.data(), static_cast<int>(trace.count_));
    }
    if (trace.symbols_ != nullptr && trace.skip_ < trace.count_) {
        stream << "Traceback:\n";
        for (std::size_t i = trace.skip_; i < trace.count_; ++i) {
            stream << '\t' << readableFrame(trace.symbols_[i]) << '\n';
        }
    } else {
        stream << "Traceback addresses:\n";
        for (std::size_t i = trace.skip_; i < trace.count_; ++i) {
            stream << '\t' << trace.frames_[i] << '\n';
        }
    }
    return stream;
}

void check_shell_arg(const std::string& s) {
    if (!allSafe(s)) {
        throw std::runtime_error("Internal error: bad escape_chars value");  // Kept: callers match this text.
    }
}

}  // namespace kavro

int check_shell_arg_nothrow(const char* s) {
    return s == nullptr || kavro::allSafe(s) ? 1 : 0;
}
