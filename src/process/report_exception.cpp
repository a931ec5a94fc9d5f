// The last words about an exception that nobody handled.
#include "process/report_exception.h"

#include <string>
#include <typeinfo>

#include "process/demangle.h"
#include "process/error_stream.h"
#include "process/traceback.h"

namespace kavro {

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
