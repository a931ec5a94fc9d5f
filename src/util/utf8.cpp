// Checking of UTF-8 by the byte ranges of RFC 3629, section 4.
#include "util/utf8.h"

namespace kavro {

namespace {

/// What a lead byte announces: how many bytes follow, and the range of the first of them.
struct Sequence {
    int following;
    unsigned char low;
    unsigned char high;
};

constexpr int kNoLead = -1;

Sequence announcedBy(unsigned char lead) {
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
        Sequence sequence = announcedBy(static_cast<unsigned char>(text.front()));
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
