// The session mail data of the process: read from a stream, handed out, released.
#include "session/session_mail_data.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "session/mail_data_object.h"
#include "session/session_queries.h"
#include "util/log.h"
#include "util/stream_reader.h"

char* session_mail_db_json = nullptr;
mail_db_data_t* session_mail_db_info = nullptr;

namespace {

enum : int { READ_OK = 0, READ_NO_INPUT = -1, READ_LOADED_ALREADY = -2, READ_FAILED = -3 };

using ParserOwner = std::unique_ptr<sj_parser, decltype(&sj_free_parser)>;

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
        return READ_LOADED_ALREADY;
    }
    if (probe != 0 && !is_fd_ready(fileno(stream))) {
        return READ_NO_INPUT;
    }
    session_mail_db_json = read_stream_contents(stream, nullptr);
    if (session_mail_db_json == nullptr) {
        const int error = errno;
        kavro_log(KAVRO_LOG_ERROR, "Failed to read session mail DB info from input stream (fd=%d): %s [%d]",
                  fileno(stream), std::strerror(error), error);
        return READ_FAILED;
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
        return READ_FAILED;
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
    return READ_OK;
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
