// Diagnostic dumps of the mail data.
#include "session/session_mail_data.h"

namespace {

const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

std::FILE* stream_or_standard_error(std::FILE* stream) {
    return stream != nullptr ? stream : stderr;
}

}  // namespace

void debug_print_sj_string_array(std::FILE* stream, std::size_t count, const char* const* array) {
    std::FILE* out = stream_or_standard_error(stream);
    std::fputs("[ ", out);
    for (std::size_t i = 0; i != count; ++i) {
        std::fprintf(out, "\"%s\"%s", shown(array[i]), i + 1 != count ? ", " : "");
    }
    std::fputs(" ]", out);
}

void debug_print_session_mail_db_info(std::FILE* stream, const mail_db_data_t* object) {
    std::FILE* out = stream_or_standard_error(stream);
    if (object == nullptr) {
        std::fputs("mail_db_data_t = (null)\n", out);
        return;
    }
    std::fprintf(out, "mail_db_data_t = {\n  \"domain\": {\n    \"name\": \"%s\",\n    \"mbox_quota\": %ld,\n",
                 shown(object->domain_name), static_cast<long>(object->domain_quota));
    std::fputs("    \"dom_aliases\": ", out);
    debug_print_sj_string_array(out, object->domain_aliases_count, object->domain_aliases);
    std::fputs(",\n    \"mails\": [\n", out);
    for (std::size_t i = 0; i != object->mails_count; ++i) {
        const mail_db_mail_t& mail = object->mails[i];
        std::fprintf(out, "      {\n        \"name\": \"%s\",\n        \"mbox_quota\": %ld,\n        \"aliases\": ",
                     shown(mail.name), static_cast<long>(mail.quota));
        debug_print_sj_string_array(out, mail.aliases_count, mail.aliases);
        std::fprintf(out, "\n      }%s\n", i + 1 != object->mails_count ? "," : "");
    }
    std::fputs("    ]\n  }\n}\n", out);
}
