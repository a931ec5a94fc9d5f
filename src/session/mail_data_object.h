// What the document reader shares with the mail data object beyond its contract.
#pragma once

#include "session/session_mail_data.h"

inline constexpr std::int64_t kNoSessionQuota = -1;  ///< the document sets none
inline constexpr const char* kDefaultQuotaUnit = "B";

/// Each releases an array through the parser's hooks and leaves an empty one.
void free_session_strings(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array);
void free_session_mails(sj_parser* parser, mail_db_data_t* object);

/// parse_mail_db_data_object, and in the same pass what the session needs done to the data: every name that is compared
/// later is lower-cased, mail lists are not; quotas are turned into bytes. `odd_quotas` tells whether one is not valid
/// afterwards.
int parse_session_document(sj_parser* parser, mail_db_data_t* object, bool* odd_quotas);
