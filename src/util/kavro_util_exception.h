// The panel utilities' own top-level error class.
#pragma once

#include <stdexcept>
#include <string>

namespace kavro {

/// Its text is all that the user is shown: printed as it stands on both standard streams, exit status 1.
class KavroUtilException : public std::runtime_error {
public:
    explicit KavroUtilException(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace kavro
