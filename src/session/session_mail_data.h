// The session mail data: one mail domain with its aliases, lists and mailnames, read once per process from a JSON
// document or filled from the command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "session/json_parser.h"

inline constexpr std::int64_t kNoSessionQuota = -1;  ///< the document sets none
inline constexpr const char* kDefaultQuotaUnit = "B";

struct mail_db_mail_t {
    const char* quota_unit;
    std::int64_t quota;  ///< bytes after reading; -1: no quota of its own
    const char* name;
    std::size_t aliases_count;
    std::size_t aliases_capacity;
    const char** aliases;
};

/// Strings point into the document text, or at the filler's own strings; only the arrays are owned.
struct mail_db_data_t {
    std::size_t mails_count;
    std::size_t mails_capacity;
    mail_db_mail_t* mails;
    const char* domain_name;
    std::size_t domain_aliases_count;
    std::size_t domain_aliases_capacity;
    const char** domain_aliases;
    std::int64_t domain_quota;  ///< bytes after reading; -1: not set
    std::size_t maillists_count;
    std::size_t maillists_capacity;
    const char** maillists;
    const char* domain_quota_unit;
};

extern char* session_mail_db_json;            ///< the document text, or null
extern mail_db_data_t* session_mail_db_info;  ///< the session object, or null

/// Reads the document. 0; -1 when `probe` and no input is ready; -2 when data is loaded already; -3 when the text could
/// not be read; the parser's error code when the document is rejected. Failures are logged.
int read_session_mail_db_info(std::FILE* stream, int probe);
/// The session object; an empty one is made when there is none. Null when there is no memory.
mail_db_data_t* get_session_mail_db_info();
/// Releases object, text and indexes. Safe when nothing is loaded.
void free_session_mail_db_info();

mail_db_data_t* create_mail_db_data_object(sj_parser* parser);
int parse_mail_db_data_object(sj_parser* parser, mail_db_data_t* object);  ///< 0 or the parser's error
void free_mail_db_data_object(sj_parser* parser, mail_db_data_t* object);
void free_mail_db_data_object_fields(sj_parser* parser, mail_db_data_t* object);
/// parse_mail_db_data_object, and in the same pass what the session needs done to the data: every name that is compared
/// later is lower-cased, mail lists are not; quotas are turned into bytes. `odd_quotas` tells whether one is not valid
/// afterwards.
int parse_session_document(sj_parser* parser, mail_db_data_t* object, bool* odd_quotas);
/// Each releases an array through the parser's hooks and leaves an empty one.
void free_session_strings(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array);
void free_session_mails(sj_parser* parser, mail_db_data_t* object);

/// Appends one item to an array through the parser's hooks. False when there is no memory.
bool append_session_string(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array,
                           const char* item);
/// Appends one zeroed mail record with quota -1 and unit "B"; null when there is no memory.
mail_db_mail_t* append_session_mail(sj_parser* parser, mail_db_data_t* object);

bool is_fd_ready(int fd);
int is_mbox_quota_valid(std::int64_t quota);   ///< -1 and above
std::int64_t get_size_unit(const char* unit);  ///< bytes in B, KB, MB, GB, TB; 0 for another name
int is_valid_size_unit(const char* unit);
std::int64_t get_value_in_bytes(std::int64_t value, const char* unit);

/// Diagnostic dumps; a null stream is standard error.
void debug_print_session_mail_db_info(std::FILE* stream, const mail_db_data_t* object);
void debug_print_sj_string_array(std::FILE* stream, std::size_t count, const char* const* array);
