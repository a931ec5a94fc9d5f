// Life cycle of the parser, and the operations that look at single characters and literals. Strings, numbers, skipping
// and the error text have files of their own.
#include "session/json_parser.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "session/json_scan.h"

using sj_scan::fail;
using sj_scan::is_digit;
using sj_scan::skip_space;

namespace {

void* default_allocate(void* /*user_data*/, std::size_t size) {
    return std::malloc(size);
}

/// The size to ask for. A large block is asked for with room to spare, or the kernel would be called for each page that
/// it grows by. The spare part is not touched, so it costs no memory.
std::size_t roomy(std::size_t size) {
    constexpr std::size_t large = 64UL * 1024;
    return size < large ? size : size + size / 8;
}

// Arrays grow by one item at a time, a million times for a large document: what fits into the block is answered without
// asking for it.
void* default_reallocate(void* /*user_data*/, void* pointer, std::size_t size) {
    if (pointer == nullptr) {
        return std::malloc(size);
    }
    return size <= ::malloc_usable_size(pointer) ? pointer : std::realloc(pointer, roomy(size));
}

void default_free(void* /*user_data*/, void* pointer) {
    std::free(pointer);
}

sj_util_funcs funcs_or_defaults(const sj_util_funcs* funcs) {
    if (funcs != nullptr) {
        return *funcs;
    }
    sj_util_funcs defaults{};
    sj_set_default_util_funcs(&defaults);
    return defaults;
}

/// Steps over `literal` when it stands at the position; what follows it is the next operation's matter.
bool accept(sj_parser* parser, std::string_view literal) {
    if (std::strncmp(parser->position, literal.data(), literal.size()) != 0) {
        return false;
    }
    parser->position += literal.size();
    return true;
}

/// 0 after the bracket that opens a container, else the error.
int start(sj_parser* parser, std::string_view opening, int error) {
    skip_space(parser);
    return accept(parser, opening) ? SJ_OK : fail(parser, error);
}

int end_if_empty(sj_parser* parser, std::string_view closing) {
    skip_space(parser);
    return accept(parser, closing) ? 1 : 0;
}

/// 0 after a comma, 1 after the closing bracket, else the error.
int next(sj_parser* parser, char closing, int error) {
    bool more = true;
    char* const end = sj_scan::next(parser, parser->position, closing, error, &more);
    if (end == nullptr) {
        return error;
    }
    parser->position = end;
    return more ? 0 : 1;
}

}  // namespace

void sj_set_default_util_funcs(sj_util_funcs* funcs) {
    *funcs = {nullptr, &default_allocate, &default_reallocate, &default_free};
}

sj_parser* sj_create_parser(char* text, const sj_util_funcs* funcs) {
    if (text == nullptr) {
        return nullptr;
    }
    const sj_util_funcs hooks = funcs_or_defaults(funcs);
    auto* parser = static_cast<sj_parser*>(hooks.allocate(hooks.user_data, sizeof(sj_parser)));
    if (parser != nullptr) {
        *parser = {text, text, nullptr, SJ_OK, hooks};
    }
    return parser;
}

void sj_free_parser(sj_parser* parser) {
    if (parser != nullptr) {
        // The hooks lie in the block that they release.
        const sj_util_funcs hooks = parser->funcs;
        hooks.free(hooks.user_data, parser);
    }
}

sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs) {
    static sj_parser dummy;
    static char empty[1];
    empty[0] = '\0';
    dummy = {empty, empty, nullptr, SJ_OK, funcs_or_defaults(funcs)};
    return &dummy;
}

int sj_parse_null(sj_parser* parser) {
    skip_space(parser);
    return accept(parser, "null") ? SJ_OK : fail(parser, SJ_NO_NULL);
}

int sj_parse_boolean(sj_parser* parser) {
    skip_space(parser);
    if (accept(parser, "true")) {
        return 1;
    }
    if (!accept(parser, "false")) {
        fail(parser, SJ_NO_BOOLEAN);
    }
    return 0;
}

int sj_parse_object_start(sj_parser* parser) {
    return start(parser, "{", SJ_NO_OBJECT);
}

int sj_parse_object_next(sj_parser* parser) {
    return next(parser, '}', SJ_NO_OBJECT_SEPARATOR);
}

int sj_parse_object_end_if_empty(sj_parser* parser) {
    return end_if_empty(parser, "}");
}

int sj_parse_array_start(sj_parser* parser) {
    return start(parser, "[", SJ_NO_ARRAY);
}

int sj_parse_array_next(sj_parser* parser) {
    return next(parser, ']', SJ_NO_ARRAY_SEPARATOR);
}

int sj_parse_array_end_if_empty(sj_parser* parser) {
    return end_if_empty(parser, "]");
}

int sj_peek_is_null(const sj_parser* parser) {
    return *parser->position == 'n' ? 1 : 0;
}

int sj_peek_is_boolean(const sj_parser* parser) {
    return *parser->position == 't' || *parser->position == 'f' ? 1 : 0;
}

int sj_peek_is_number(const sj_parser* parser) {
    return *parser->position == '-' || is_digit(*parser->position) ? 1 : 0;
}

int sj_peek_is_string(const sj_parser* parser) {
    return *parser->position == '"' ? 1 : 0;
}

int sj_peek_is_object(const sj_parser* parser) {
    return *parser->position == '{' ? 1 : 0;
}

int sj_peek_is_array(const sj_parser* parser) {
    return *parser->position == '[' ? 1 : 0;
}
