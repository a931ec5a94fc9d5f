// Quotas of the document: a count and a unit, turned into bytes.
#include <array>
#include <string_view>

#include "session/session_mail_data.h"

namespace {

struct SizeUnit {
    std::string_view name;
    std::int64_t bytes;
};

constexpr std::array<SizeUnit, 5> UNITS = {{
    {"B", 1},
    {"KB", std::int64_t{1} << 10},
    {"MB", std::int64_t{1} << 20},
    {"GB", std::int64_t{1} << 30},
    {"TB", std::int64_t{1} << 40},
}};

}  // namespace

int is_mbox_quota_valid(std::int64_t quota) {
    return quota >= -1 ? 1 : 0;
}

std::int64_t get_size_unit(const char* unit) {
    if (unit != nullptr) {
        for (const SizeUnit& known : UNITS) {
            if (known.name == unit) {
                return known.bytes;
            }
        }
    }
    return 0;
}

int is_valid_size_unit(const char* unit) {
    return get_size_unit(unit) != 0 ? 1 : 0;
}

std::int64_t get_value_in_bytes(std::int64_t value, const char* unit) {
    // A product that does not fit wraps around, as the callers' check for negative results expects.
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(value) *
                                     static_cast<std::uint64_t>(get_size_unit(unit)));
}
