// The part of this floor's contract that no command of ours calls; other programs of the panel do.
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>

#include "session/json_parser.h"
#include "session/json_scan.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"

namespace {

/// Reads with `read` what must lie in the range of `Narrow`; puts the position back on any error.
template <typename Narrow, typename Wide>
Narrow parse_narrow(sj_parser* parser, Wide (*read)(sj_parser*)) {
    char* const before = parser->position;
    const int error_before = std::exchange(parser->error, SJ_OK);
    const Wide value = read(parser);
    const bool fits = std::in_range<Narrow>(value);
    if (parser->error == SJ_OK && !fits) {
        fail(parser, SJ_NUMBER_RANGE);
    }
    if (parser->error == SJ_OK) {
        parser->error = error_before;
    } else {
        parser->position = before;
    }
    return fits ? static_cast<Narrow>(value) : Narrow{0};
}

const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

std::FILE* stream_or_standard_error(std::FILE* stream) {
    return stream != nullptr ? stream : stderr;
}

}  // namespace

std::uint64_t sj_parse_uint64(sj_parser* parser) {
    skip_space(parser);
    if (*parser->position == '-') {
        fail(parser, SJ_NUMBER_FORMAT);
        return 0;
    }
    return convert_number(parser, &std::strtoull);
}

std::int32_t sj_parse_int(sj_parser* parser) {
    return parse_narrow<std::int32_t>(parser, &sj_parse_int64);
}

std::uint32_t sj_parse_uint(sj_parser* parser) {
    return parse_narrow<std::uint32_t>(parser, &sj_parse_uint64);
}

int sj_skip_array(sj_parser* parser) {
    skip_space(parser);
    return sj_peek_is_array(parser) != 0 ? sj_skip_value(parser) : fail(parser, SJ_NO_ARRAY);
}

int sj_skip_object(sj_parser* parser) {
    skip_space(parser);
    return sj_peek_is_object(parser) != 0 ? sj_skip_value(parser) : fail(parser, SJ_NO_OBJECT);
}

int sj_peek_is_null(const sj_parser* parser) {
    return *parser->position == 'n' ? 1 : 0;
}

int sj_peek_is_boolean(const sj_parser* parser) {
    return *parser->position == 't' || *parser->position == 'f' ? 1 : 0;
}

int sj_peek_is_string(const sj_parser* parser) {
    return *parser->position == '"' ? 1 : 0;
}

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

void append_active_domaliases_by_domain(std::vector<std::string>& /*aliases*/, const std::string& /*domain*/) {
    // Kept: callers match this text, the missing blank included.
    throw std::runtime_error(std::string("Function ") + __func__ + "is not implemented for JSON/STDIN");
}
