// The mail data object: made, grown and released through a parser's allocation hooks.
#include "session/mail_data_object.h"

namespace {

void* allocate(sj_parser* parser, std::size_t size) {
    return parser->funcs.allocate(parser->funcs.user_data, size);
}

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

}  // namespace

mail_db_data_t* create_mail_db_data_object(sj_parser* parser) {
    auto* object = static_cast<mail_db_data_t*>(allocate(parser, sizeof(mail_db_data_t)));
    if (object == nullptr) {
        sj_scan::fail(parser, SJ_NO_MEMORY);
        return nullptr;
    }
    *object = mail_db_data_t{};
    object->domain_quota = NO_SESSION_QUOTA;
    object->domain_quota_unit = DEFAULT_QUOTA_UNIT;
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
    const char** slot = append_session_item(parser, count, capacity, array);
    if (slot == nullptr) {
        return false;
    }
    *slot = item;
    return true;
}

mail_db_mail_t* append_session_mail(sj_parser* parser, mail_db_data_t* object) {
    mail_db_mail_t* mail = append_session_item(parser, &object->mails_count, &object->mails_capacity, &object->mails);
    if (mail != nullptr) {
        mail->quota = NO_SESSION_QUOTA;
        mail->quota_unit = DEFAULT_QUOTA_UNIT;
    }
    return mail;
}
