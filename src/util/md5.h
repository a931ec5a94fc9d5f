// MD5 (RFC 1321) of names: file names of lock files, nothing secret.
#pragma once

#include <string>
#include <string_view>

namespace kavro {

/// The digest in 32 lower-case hexadecimal digits.
std::string md5Hex(std::string_view text);

}  // namespace kavro
