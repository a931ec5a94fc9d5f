// The name rules, as one table of character classes and one pass over the text: a session document has every name it
// holds checked; and UTF-8 by the byte ranges of RFC 3629, section 4.
#include "util/names.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace {

constexpr std::ptrdiff_t kMaxMailname = 245;
constexpr std::ptrdiff_t kMaxDomainName = 255;
constexpr std::ptrdiff_t kMaxLabel = 63;

// Classes of characters, one bit each.
constexpr unsigned char kLabelCharacter = 1;  ///< letter, digit, hyphen
constexpr unsigned char kAtomCharacter = 2;   ///< what a mailname may hold besides the dot

constexpr std::array<unsigned char, 256> make_classes() {
    std::array<unsigned char, 256> classes{};
    constexpr std::string_view kAlphanumeric = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (const char c : kAlphanumeric) {
        classes[static_cast<unsigned char>(c)] = kLabelCharacter | kAtomCharacter;
    }
    classes['-'] = kLabelCharacter | kAtomCharacter;
    for (const char c : std::string_view("_&+'")) {
        classes[static_cast<unsigned char>(c)] = kAtomCharacter;
    }
    return classes;
}

constexpr std::array<unsigned char, 256> kClasses = make_classes();

/// First character of `text` that is not of the class.
inline const char* skip(const char* text, unsigned char wanted) {
    while ((kClasses[static_cast<unsigned char>(*text)] & wanted) != 0) {
        ++text;
    }
    return text;
}

/// End of the mailname that begins at `name`: single dots between non-empty runs of other characters. Null when it
/// breaks a rule before the first character that no mailname has.
const char* mailname_end(const char* name) {
    const char* position = name;
    for (;;) {
        const char* end = skip(position, kAtomCharacter);
        if (end == position) {
            return nullptr;
        }
        if (*end != '.') {
            return end - name <= kMaxMailname ? end : nullptr;
        }
        position = end + 1;
    }
}

}  // namespace

int is_mailname_valid(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    const char* end = mailname_end(name);
    return end != nullptr && *end == '\0' ? 1 : 0;
}

int is_domain_name_valid(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    const char* label = name;
    for (;;) {
        const char* end = skip(label, kLabelCharacter);
        if (end == label || end - label > kMaxLabel || *label == '-') {
            return 0;
        }
        if (*end == '\0') {
            // Kept: the last label may end with a hyphen.
            return end - name <= kMaxDomainName ? 1 : 0;
        }
        if (*end != '.' || end[-1] == '-') {
            return 0;
        }
        label = end + 1;
    }
}

int is_full_mailname_valid(const char* address) {
    if (address == nullptr) {
        return 0;
    }
    const char* end = mailname_end(address);
    return end != nullptr && *end == '@' ? is_domain_name_valid(end + 1) : 0;
}

char* ascii_lower(char* text) {
    for (char* c = text; *c != '\0'; ++c) {
        if (*c >= 'A' && *c <= 'Z') {
            *c = static_cast<char>(*c - 'A' + 'a');
        }
    }
    return text;
}

namespace kavro {

namespace {

/// What a lead byte announces: how many bytes follow, and the range of the first of them.
struct Sequence {
    int following;
    unsigned char low;
    unsigned char high;
};

constexpr int kNoLead = -1;

Sequence announced_by(unsigned char lead) {
    if (lead < 0x80) {
        return {0, 0, 0};
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return {kNoLead, 0, 0};
    }
    const int following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    switch (lead) {
        case 0xE0:
            return {following, 0xA0, 0xBF};
        case 0xED:
            return {following, 0x80, 0x9F};
        case 0xF0:
            return {following, 0x90, 0xBF};
        case 0xF4:
            return {following, 0x80, 0x8F};
        default:
            return {following, 0x80, 0xBF};
    }
}

}  // namespace

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        Sequence sequence = announced_by(static_cast<unsigned char>(text.front()));
        text.remove_prefix(1);
        if (sequence.following == kNoLead) {
            return false;
        }
        for (; sequence.following > 0; --sequence.following) {
            const auto byte = static_cast<unsigned char>(text.empty() ? '\0' : text.front());
            if (byte < sequence.low || byte > sequence.high) {
                return false;
            }
            text.remove_prefix(1);
            sequence.low = 0x80;
            sequence.high = 0xBF;
        }
    }
    return true;
}

}  // namespace kavro
