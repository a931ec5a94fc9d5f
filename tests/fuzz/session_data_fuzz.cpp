// Any bytes as a session document: refused with an error, or read into data whose names pass the rules they were read
// under.
#include "fuzz.h"
#include "session/session_mail_data.h"
#include "util/names.h"

void check(std::string& text) {
    sj_parser* parser = sj_create_parser(text.data(), nullptr);
    mail_db_data_t* object = create_mail_db_data_object(parser);
    const int error = parse_mail_db_data_object(parser, object);
    require(error == parser->error && error >= SJ_OK && error <= SJ_CONSTRAINT);
    require(parser->position <= text.data() + text.size());
    require(error != SJ_OK || (is_domain_name_valid(object->domain_name) != 0 && object->domain_quota >= -1));
    for (std::size_t i = 0; i < object->mails_count; ++i) {
        const mail_db_mail_t& mail = object->mails[i];
        require(is_mailname_valid(mail.name) != 0 && mail.quota >= -1 && is_valid_size_unit(mail.quota_unit));
        for (std::size_t j = 0; j < mail.aliases_count; ++j) {
            require(is_mailname_valid(mail.aliases[j]) != 0);
        }
    }
    free_mail_db_data_object(parser, object);
    sj_free_parser(parser);
}
