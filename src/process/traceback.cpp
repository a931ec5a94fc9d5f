// Capturing and printing of call stacks with backtrace(3).
#include "process/traceback.h"

#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <string>

#include "process/demangle.h"

namespace kavro {

namespace {

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

}  // namespace kavro
