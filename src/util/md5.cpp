// MD5 through libcrypto's one-shot function.
#include "util/md5.h"

#include <openssl/md5.h>

#include <array>

namespace kavro {

std::string md5Hex(std::string_view text) {
    std::array<unsigned char, MD5_DIGEST_LENGTH> digest{};
// The EVP interface would initialise the whole library, configuration file and provider look-up included, for one short
// digest in nearly every run of the program.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    ::MD5(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
#pragma GCC diagnostic pop
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * digest.size());
    for (const unsigned char byte : digest) {
        hex += kDigits[byte >> 4U];
        hex += kDigits[byte & 0xFU];
    }
    return hex;
}

}  // namespace kavro
