// Any bytes as a session document: refused with an error, or read into data whose names pass the rules they were read
// under.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "session/session_mail_data.h"
#include "util/names.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    sj_parser* parser = sj_create_parser(text.data(), nullptr);
    mail_db_data_t* object = create_mail_db_data_object(parser);
    const int error = parse_mail_db_data_object(parser, object);
    bool sound = error == parser->error && error >= SJ_OK && error <= SJ_CONSTRAINT &&
                 parser->position <= text.data() + text.size();
    if (error == SJ_OK) {
        sound = sound && is_domain_name_valid(object->domain_name) != 0 && object->domain_quota >= -1;
    }
    for (std::size_t i = 0; i < object->mails_count; ++i) {
        const mail_db_mail_t& mail = object->mails[i];
        sound = sound && is_mailname_valid(mail.name) != 0 && mail.quota >= -1 && is_valid_size_unit(mail.quota_unit);
        for (std::size_t j = 0; j < mail.aliases_count; ++j) {
            sound = sound && is_mailname_valid(mail.aliases[j]) != 0;
        }
    }
    free_mail_db_data_object(parser, object);
    sj_free_parser(parser);
    if (!sound) {
        std::abort();
    }
    return 0;
}
