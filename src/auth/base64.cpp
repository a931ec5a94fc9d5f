// Base64 by groups: three bytes become four characters and back.
#include "auth/base64.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kPadding = '=';
constexpr std::size_t kGroupBytes = 3;
constexpr std::size_t kGroupCharacters = 4;

/// Values by character code; 0 for what is not of the alphabet.
constexpr std::array<std::uint8_t, 256> make_inverse() {
    std::array<std::uint8_t, 256> inverse{};
    for (std::uint8_t value = 0; value < 64; ++value) {
        inverse.at(static_cast<unsigned char>(kAlphabet[value])) = value;
    }
    return inverse;
}
constexpr auto kInverse = make_inverse();

constexpr std::size_t groups(std::size_t length, std::size_t groupSize) {
    return length / groupSize + (length % groupSize != 0 ? 1 : 0);
}

std::uint32_t value_of(char character) {
    return kInverse[static_cast<unsigned char>(character)];
}

/// Decodes one group of which `present` characters (2 to 4) count; returns the number of bytes.
std::size_t decode_group(unsigned char* out, const char* text, std::size_t present) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < kGroupCharacters; ++i) {
        bits = bits << 6 | (i < present ? value_of(text[i]) : 0);
    }
    const std::size_t size = present - 1;
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<unsigned char>(bits >> (16 - 8 * i));
    }
    return size;
}

}  // namespace

std::size_t base64Encode(char* out, const unsigned char* bytes, std::size_t size) {
    char* next = out;
    for (std::size_t done = 0; done < size; done += kGroupBytes) {
        const std::size_t present = size - done < kGroupBytes ? size - done : kGroupBytes;
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < kGroupBytes; ++i) {
            bits = bits << 8 | (i < present ? bytes[done + i] : 0U);
        }
        for (std::size_t i = 0; i < kGroupCharacters; ++i) {
            *next++ = i <= present ? kAlphabet[bits >> (18 - 6 * i) & 0x3F] : kPadding;
        }
    }
    return static_cast<std::size_t>(next - out);
}

std::size_t base64ArrayDecode(unsigned char* out, const char* text, std::size_t length) {
    // Padding is looked for where it may stand, in a last group that is whole; anywhere else it is a character.
    if (length % kGroupCharacters == 0) {
        for (int i = 0; i < 2 && length > 0 && text[length - 1] == kPadding; ++i) {
            --length;
        }
    }
    unsigned char* next = out;
    for (std::size_t done = 0; length - done > 1; done += kGroupCharacters) {
        const std::size_t left = length - done;
        next += decode_group(next, text + done, left < kGroupCharacters ? left : kGroupCharacters);
        if (left <= kGroupCharacters) {
            break;
        }
    }
    return static_cast<std::size_t>(next - out);
}

char* b64_encode(const void* bytes, std::size_t size) {
    if (bytes == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* text = static_cast<char*>(std::malloc(groups(size, kGroupBytes) * kGroupCharacters + 1));
    if (text != nullptr) {
        text[base64Encode(text, static_cast<const unsigned char*>(bytes), size)] = '\0';
    }
    return text;
}

unsigned char* b64_decode(const char* text, std::size_t* size) {
    if (text == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const std::size_t length = std::strlen(text);
    auto* bytes = static_cast<unsigned char*>(std::malloc(groups(length, kGroupCharacters) * kGroupBytes + 1));
    if (bytes != nullptr) {
        const std::size_t decoded = base64ArrayDecode(bytes, text, length);
        bytes[decoded] = 0;
        if (size != nullptr) {
            *size = decoded;
        }
    }
    return bytes;
}
