// The mail data object, made, grown and released through a parser's allocation hooks; and the session's one of the
// process, read from a stream, handed out, released.
#include "session/session_mail_data.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "session/session_queries.h"
#include "util/c_memory.h"
#include "util/log.h"

char* session_mail_db_json = nullptr;
mail_db_data_t* session_mail_db_info = nullptr;

namespace {

constexpr int kNoInput = -1;
constexpr int kLoadedAlready = -2;
constexpr int kReadFailed = -3;

using ParserOwner = std::unique_ptr<sj_parser, decltype(&sj_free_parser)>;

void release(sj_parser* parser, void* pointer) {
    if (pointer != nullptr) {
        parser->funcs.free(parser->funcs.user_data, pointer);
    }
}

template <typename Item>
void release_array(sj_parser* parser, std::size_t& count, std::size_t& capacity, Item*& array) {
    release(parser, array);
    array = nullptr;
    count = 0;
    capacity = 0;
}

/// Appends one zeroed item through the parser's hooks, which grow an array by exactly one item. Null, and the parser's
/// error set, when there is no memory: the array is then as it was.
template <typename Item>
Item* append_item(sj_parser* parser, std::size_t* count, std::size_t* capacity, Item** array) {
    static_assert(std::is_trivially_copyable_v<Item>);
    if (*count == *capacity) {
        void* grown = parser->funcs.reallocate(parser->funcs.user_data, *array, (*count + 1) * sizeof(Item));
        if (grown == nullptr) {
            parser->error = SJ_NO_MEMORY;
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

void report_odd_quota(std::int64_t quota, const char* unit) {
    if (is_mbox_quota_valid(quota) == 0) {
        kavro_log(KAVRO_LOG_WARNING,
                  "Resulting quota value in session mail DB info is not valid: got %ld, source size unit was '%s'",
                  static_cast<long>(quota), unit);
    }
}

void report_odd_quotas(const mail_db_data_t& data) {
    report_odd_quota(data.domain_quota, data.domain_quota_unit);
    for (std::size_t i = 0; i != data.mails_count; ++i) {
        report_odd_quota(data.mails[i].quota, data.mails[i].quota_unit);
    }
}

}  // namespace

mail_db_data_t* create_mail_db_data_object(sj_parser* parser) {
    auto* object =
        static_cast<mail_db_data_t*>(parser->funcs.allocate(parser->funcs.user_data, sizeof(mail_db_data_t)));
    if (object == nullptr) {
        parser->error = SJ_NO_MEMORY;
        return nullptr;
    }
    *object = mail_db_data_t{};
    object->domain_quota = kNoSessionQuota;
    object->domain_quota_unit = kDefaultQuotaUnit;
    return object;
}

void free_session_strings(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array) {
    release_array(parser, *count, *capacity, *array);
}

void free_session_mails(sj_parser* parser, mail_db_data_t* object) {
    for (std::size_t i = 0; i != object->mails_count; ++i) {
        release(parser, object->mails[i].aliases);
    }
    release_array(parser, object->mails_count, object->mails_capacity, object->mails);
}

void free_mail_db_data_object_fields(sj_parser* parser, mail_db_data_t* object) {
    free_session_mails(parser, object);
    release_array(parser, object->domain_aliases_count, object->domain_aliases_capacity, object->domain_aliases);
    release_array(parser, object->maillists_count, object->maillists_capacity, object->maillists);
}

void free_mail_db_data_object(sj_parser* parser, mail_db_data_t* object) {
    if (object != nullptr) {
        free_mail_db_data_object_fields(parser, object);
        release(parser, object);
    }
}

bool append_session_string(sj_parser* parser, std::size_t* count, std::size_t* capacity, const char*** array,
                           const char* item) {
    const char** slot = append_item(parser, count, capacity, array);
    if (slot == nullptr) {
        return false;
    }
    *slot = item;
    return true;
}

mail_db_mail_t* append_session_mail(sj_parser* parser, mail_db_data_t* object) {
    mail_db_mail_t* mail = append_item(parser, &object->mails_count, &object->mails_capacity, &object->mails);
    if (mail != nullptr) {
        mail->quota = kNoSessionQuota;
        mail->quota_unit = kDefaultQuotaUnit;
    }
    return mail;
}

bool is_fd_ready(int fd) {
    // As select(2) would tell: end of file and errors are readable, a closed descriptor is not. It has no upper limit.
    pollfd entry{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&entry, 1, 0);
    } while (ready == -1 && errno == EINTR);
    return ready == 1 && (entry.revents & POLLNVAL) == 0;
}

int read_session_mail_db_info(std::FILE* stream, int probe) {
    if (session_mail_db_json != nullptr || session_mail_db_info != nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Session mail DB info have already been initialized. Probably a programming error.");
        return kLoadedAlready;
    }
    if (probe != 0 && !is_fd_ready(fileno(stream))) {
        return kNoInput;
    }
    session_mail_db_json = read_stream_contents(stream, nullptr);
    if (session_mail_db_json == nullptr) {
        const int error = errno;
        kavro_log(KAVRO_LOG_ERROR, "Failed to read session mail DB info from input stream (fd=%d): %s [%d]",
                  fileno(stream), std::strerror(error), error);
        return kReadFailed;
    }

    const ParserOwner parser(sj_create_parser(session_mail_db_json, nullptr), &sj_free_parser);
    // An error text tells errno: nothing from before the parse belongs there.
    errno = 0;
    session_mail_db_info = parser != nullptr ? create_mail_db_data_object(parser.get()) : nullptr;
    if (session_mail_db_info == nullptr) {
        const int error = errno;
        kavro_log(KAVRO_LOG_ERROR, "Failed to allocate session mail DB info object: %s [%d]", std::strerror(error),
                  error);
        free_session_mail_db_info();
        return kReadFailed;
    }
    bool odd_quotas = false;
    const int result = parse_session_document(parser.get(), session_mail_db_info, &odd_quotas);
    if (result != SJ_OK) {
        kavro_log(KAVRO_LOG_ERROR, "Session mail DB info parsing error: %s", sj_parser_strerror(parser.get()));
        free_session_mail_db_info();
        return result;
    }
    if (odd_quotas) {
        report_odd_quotas(*session_mail_db_info);
    }
    return 0;
}

mail_db_data_t* get_session_mail_db_info() {
    // Whoever asks for the object may change it.
    reset_session_index();
    if (session_mail_db_info == nullptr) {
        session_mail_db_info = create_mail_db_data_object(sj_get_dummy_parser(nullptr));
    }
    return session_mail_db_info;
}

void free_session_mail_db_info() {
    reset_session_index();
    free_mail_db_data_object(sj_get_dummy_parser(nullptr), session_mail_db_info);
    session_mail_db_info = nullptr;
    std::free(session_mail_db_json);
    session_mail_db_json = nullptr;
}
