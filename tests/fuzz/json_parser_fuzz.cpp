// Parser operations in an order that the input chooses, on a text that the input gives: the position stays in the text,
// and every error has its message.
#include "fuzz.h"
#include "session/json_parser.h"

namespace {

template <auto operation>
void run(sj_parser* parser) {
    operation(parser);
}

void (*const operations[])(sj_parser*) = {
    run<sj_parse_null>,         run<sj_parse_boolean>,     run<sj_parse_int64>,
    run<sj_parse_uint>,         run<sj_parse_string>,      run<sj_parse_object_key>,
    run<sj_parse_object_start>, run<sj_parse_object_next>, run<sj_parse_object_end_if_empty>,
    run<sj_parse_array_start>,  run<sj_parse_array_next>,  run<sj_parse_array_end_if_empty>,
    run<sj_skip_value>,         run<sj_skip_number>,       run<sj_skip_array>,
};

}  // namespace

void check(std::string& input) {
    const std::size_t steps = input.size() < 8 ? input.size() : 8;
    std::string text = input.substr(steps);
    sj_parser* parser = sj_create_parser(text.data(), nullptr);
    for (std::size_t i = 0; i < steps; ++i) {
        parser->error = SJ_OK;
        operations[static_cast<std::uint8_t>(input[i]) % std::size(operations)](parser);
        const char* end = text.data() + text.size();
        require(parser->position >= text.data() && parser->position <= end && sj_parser_strerror(parser)[0] != '\0');
    }
    sj_free_parser(parser);
}
