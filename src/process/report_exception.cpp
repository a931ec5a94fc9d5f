// Names in readable form, call stacks by backtrace(3), and the last words about an exception that nobody handled.
#include "process/report_exception.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <typeinfo>

#include "process/error_stream.h"

namespace kavro {

namespace {

/// The name as it stands in the source; nothing when `mangled` is not a name in the C++ ABI's encoding.
std::optional<std::string> demangle(const char* mangled) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                           &std::free);
    if (status != 0 || text == nullptr) {
        return std::nullopt;
    }
    return std::string(text.get());
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

std::string typeName(const std::exception& error) {
    const char* raw = typeid(error).name();
    if (const auto readable = demangle(raw)) {
        return *readable;
    }
    // The compiler marks names that are unique by address with an asterisk.
    return *raw == '*' ? raw + 1 : raw;
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

template <>
void reportException<std::exception>(const std::exception& error) {
    const char* text = error.what();
    uerr << "Fatal error: " << typeName(error) << "(" << (text != nullptr ? text : "") << ")" << std::endl;
    if (const auto* trace = dynamic_cast<const Traceback*>(&error)) {
        uerr << *trace << std::flush;
    }
    if (text == nullptr) {
        // Last, because nothing can be printed any more afterwards.
        uerr.setstate(std::ios_base::failbit);
    }
}

void reportUntypedException() {
    uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;  // Kept: callers match this text.
}

}  // namespace kavro
