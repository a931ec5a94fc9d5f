// What the document reader shares with the mail data object beyond its contract.
#pragma once

#include <type_traits>

#include "session/json_scan.h"
#include "session/session_mail_data.h"

inline constexpr std::int64_t NO_SESSION_QUOTA = -1;  ///< the document sets none
inline constexpr const char* DEFAULT_QUOTA_UNIT = "B";

/// Each releases an array through the parser's hooks and leaves an empty one.
void free_session_strings(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array);
void free_session_mails(sj_parser* parser, mail_db_data_t* object);

/// Appends one zeroed item through the parser's hooks, which grow an array by exactly one item. Null, and the parser's
/// error set, when there is no memory: the array is then as it was.
template <typename Item>
Item* append_session_item(sj_parser* parser, std::size_t* count, std::size_t* capacity, Item** array) {
    static_assert(std::is_trivially_copyable_v<Item>);
    if (*count == *capacity) {
        void* grown = parser->funcs.reallocate(parser->funcs.user_data, *array, (*count + 1) * sizeof(Item));
        if (grown == nullptr) {
            sj_scan::fail(parser, SJ_NO_MEMORY);
            return nullptr;
        }
        *array = static_cast<Item*>(grown);
        *capacity = *count + 1;
    }
    Item* const item = *array + *count;
    *item = Item{};
    ++*count;
    return item;
}

/// parse_mail_db_data_object, and in the same pass what the session needs done to the data: every name that is compared
/// later is lower-cased, mail lists are not; quotas are turned into bytes. `odd_quotas` tells whether one is not valid
/// afterwards.
int parse_session_document(sj_parser* parser, mail_db_data_t* object, bool* odd_quotas);
