// The parser, operation by operation: what is read, where it stops, and which error it leaves.
#include "session/json_parser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

namespace {

/// A parser over a copy of a text.
struct Parser {
    explicit Parser(std::string source)
        : text(std::move(source)), owner(sj_create_parser(text.data(), nullptr), &sj_free_parser) {}

    operator sj_parser*() const { return owner.get(); }
    /// "error@offset"
    std::string state() const {
        return std::to_string(owner->error) + "@" + std::to_string(owner->position - owner->start);
    }

    std::string text;
    std::unique_ptr<sj_parser, decltype(&sj_free_parser)> owner;
};

/// An operation's result as a text.
template <auto operation>
std::string result(sj_parser* parser) {
    const auto value = operation(parser);
    if constexpr (std::is_pointer_v<decltype(value)>) {
        return value != nullptr ? value : "null";
    } else {
        return std::to_string(value);
    }
}

TEST(JsonParser, EachOperationReadsItsValueOrStopsAtTheError) {
    constexpr auto text = result<sj_parse_string>;
    constexpr auto int64 = result<sj_parse_int64>;
    constexpr auto int32 = result<sj_parse_int>;
    constexpr auto skip = result<sj_skip_value>;
    const struct {
        std::string (*operation)(sj_parser*);
        std::string source, result, state;
    } cases[] = {
        {text, " \t\r\n\v\f\"abc\"x", "abc", "0@11"},
        {text, R"("\"\\\/\b\f\n\r\t.")", "\"\\/\b\f\n\r\t.", "0@19"},
        {text, R"("ab\u0000cd" )", "ab", "0@12"},
        {text, R"("a\u0041")", "null", "10@2"},
        {text, R"("a\x")", "null", "8@2"},
        {text, "\"caf\x80\xa9\"", "null", "9@4"},
        {text, "\"abc", "null", "2@4"},
        {text, " ", "null", "2@1"},
        {text, " x", "null", "7@1"},
        {result<sj_parse_object_key>, "\"k\" x", "k", "12@4"},
        {int64, " -1,", "-1", "0@3"},
        {int64, "010 ", "8", "0@3"},
        {int64, "+0x1F}", "31", "0@5"},
        {int64, "-9223372036854775808", "-9223372036854775808", "0@20"},
        {int64, "9223372036854775808", "9223372036854775807", "5@0"},
        {int64, " 1.5", "1", "6@2"},
        {int64, " x", "0", "4@1"},
        {result<sj_parse_uint64>, " -1", "0", "6@1"},
        {int32, " -2147483648", "-2147483648", "0@12"},
        {int32, " 2147483648", "0", "5@0"},
        {int32, " 7e1", "7", "6@0"},
        {result<sj_parse_uint>, "4294967295", "4294967295", "0@10"},
        {result<sj_parse_uint64>, "18446744073709551615", "18446744073709551615", "0@20"},
        {result<sj_parse_uint>, " 4294967296", "0", "5@0"},
        {result<sj_parse_boolean>, " truest", "1", "0@5"},
        {result<sj_parse_boolean>, " falsey", "0", "0@6"},
        {result<sj_parse_boolean>, " fals", "0", "17@1"},
        {result<sj_parse_null>, " nullx", "0", "0@5"},
        {result<sj_parse_null>, " nul", "18", "18@1"},
        {result<sj_parse_object_start>, " [", "11", "11@1"},
        {result<sj_parse_object_next>, " },", "1", "0@2"},
        {result<sj_parse_object_next>, " ]", "13", "13@1"},
        {result<sj_parse_array_start>, " {", "15", "15@1"},
        {result<sj_parse_array_next>, " ,]", "0", "0@2"},
        {result<sj_parse_array_next>, " }", "16", "16@1"},
        {result<sj_peek_is_null>, "n", "1", "0@0"},
        {result<sj_peek_is_boolean>, "f", "1", "0@0"},
        {result<sj_peek_is_string>, "\"", "1", "0@0"},
        {result<sj_skip_array>, " {}", "15", "15@1"},
        {result<sj_skip_object>, " []", "11", "11@1"},
        {skip, " -1.50e+7,", "0", "0@9"},
        {skip, "1e-", "6", "6@3"},
        {skip, "-x", "4", "4@0"},
        {skip, "[1,[2,{}],{\"a\":[\"b\",null,true]}] ", "0", "0@32"},
        // The separator after a value in error is still read: its own error wins.
        {skip, "[x]", "16", "16@1"},
        {skip, "[1.,2]", "6", "6@4"},
        {skip, "{\"a\" 1}", "12", "12@7"},
    };
    for (const auto& row : cases) {
        const Parser parser(row.source);
        errno = EPERM;
        EXPECT_EQ(row.operation(parser), row.result) << row.source;
        EXPECT_EQ(parser.state(), row.state) << row.source;
        EXPECT_TRUE(errno == EPERM || parser.owner->error == 5) << "only a range error leaves its mark";
    }
}

TEST(JsonParser, ContainersAreSkippedToAnyDepth) {
    const std::string brackets(1'000'000, '[');
    const Parser unclosed(brackets);
    EXPECT_EQ(sj_skip_value(unclosed), 16);
    EXPECT_EQ(unclosed.state(), "16@1000000");
}

TEST(JsonParser, ErrorTextsTellWhatAndWhere) {
    const Parser parser("{\"domains\":x\n");
    const auto text = [&parser](int error, int position, int system_error, const char* detail = nullptr) {
        parser.owner->error = error;
        parser.owner->position = parser.owner->start + position;
        parser.owner->detail = detail;
        errno = system_error;
        return std::string(sj_parser_strerror(parser));
    };
    EXPECT_EQ(text(0, 0, ERANGE), "OK, no error.");
    EXPECT_EQ(text(12, 11, 0),
              "JSON name separator (':') is expected inside an object. Error occured at offset 11, character 'x'. ");
    EXPECT_EQ(text(23, 12, ERANGE),
              "Custom JSON value constraint failed: N/A. Error occured at offset 12, character '\\x0a'. "
              "Also system error occured: Numerical result out of range (34).");
    EXPECT_EQ(text(24, 12, 0), "unknown error code Error occured at offset 12, character '\\x0a'. ");
    // Cut where the buffer ends, in the middle of a later step.
    const std::string detail(980, 'd');
    const std::string whole = "Custom JSON value constraint failed: " + detail + ". Error occured at offset 12,";
    EXPECT_EQ(text(23, 12, 0, detail.c_str()), whole.substr(0, 1023));
}

}  // namespace
