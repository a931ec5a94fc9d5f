// Readable names of types and functions, from the C++ ABI's own decoder.
#include "process/demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

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

}  // namespace kavro
