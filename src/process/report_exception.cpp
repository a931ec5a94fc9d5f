// Names by the C++ ABI, and the last words.
#include "process/report_exception.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <typeinfo>

#include "process/error_stream.h"

namespace kavro {

std::optional<std::string> demangle(const char* mangled) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                           &std::free);
    if (status != 0 || text == nullptr) {
        return std::nullopt;
    }
    return std::string(text.get());
}

namespace {

std::string typeName(const std::exception& error) {
    const char* raw = typeid(error).name();
    if (const auto readable = demangle(raw)) {
        return *readable;
    }
    // The compiler marks names that are unique by address with an asterisk.
    return *raw == '*' ? raw + 1 : raw;
}

}  // namespace

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
