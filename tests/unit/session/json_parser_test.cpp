// The parser, operation by operation: what is read, where it stops, and which error it leaves.
#include "session/json_parser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <random>
#include <string>

namespace {

/// A parser over a copy of a text.
class Parser {
public:
    explicit Parser(std::string source) : text(std::move(source)), parser_(sj_create_parser(text.data(), nullptr)) {}
    ~Parser() { sj_free_parser(parser_); }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    operator sj_parser*() { return parser_; }
    std::ptrdiff_t offset() const { return parser_->position - parser_->start; }
    int error() const { return parser_->error; }
    /// "error@offset"
    std::string state() const { return std::to_string(error()) + "@" + std::to_string(offset()); }

    std::string text;

private:
    sj_parser* parser_;
};

TEST(JsonParser, StringsAreUnescapedInPlaceOrRefusedWhereTheyAreWrong) {
    const struct {
        std::string source, text, state;
    } cases[] = {
        {" \t\r\n\v\f\"abc\"x", "abc", "0@11"},
        {R"("\"\\\/\b\f\n\r\t.")", "\"\\/\b\f\n\r\t.", "0@19"},
        {R"("ab\u0000cd" )", "ab", "0@12"},
        {R"("a\u0041")", "(null)", "10@2"},
        {R"("a\u000")", "(null)", "10@2"},
        {R"("a\x")", "(null)", "8@2"},
        {"\"a\\", "(null)", "8@2"},
        {"\"caf\xc3\xa9\"", "(null)", "9@4"},
        {"\"a\x7f\x1f\"", "(null)", "9@3"},
        {"\"\\n\x80\"", "(null)", "9@3"},
        {"\"abc", "(null)", "2@4"},
        {"  ", "(null)", "2@2"},
        {" x", "(null)", "7@1"},
    };
    for (const auto& row : cases) {
        Parser parser(row.source);
        const char* text = sj_parse_string(parser);
        EXPECT_EQ(text != nullptr ? text : "(null)", row.text) << row.source;
        EXPECT_EQ(parser.state(), row.state) << row.source;
    }
    Parser parser("\"abc\"");
    EXPECT_EQ(sj_parse_string(parser), parser.text.data() + 1);
}

TEST(JsonParser, NumbersAreConvertedLikeTheLibraryDoesWithBaseZero) {
    using Read = std::function<std::string(sj_parser*)>;
    const Read int64 = [](sj_parser* parser) { return std::to_string(sj_parse_int64(parser)); };
    const Read uint64 = [](sj_parser* parser) { return std::to_string(sj_parse_uint64(parser)); };
    const Read int32 = [](sj_parser* parser) { return std::to_string(sj_parse_int(parser)); };
    const Read uint32 = [](sj_parser* parser) { return std::to_string(sj_parse_uint(parser)); };
    const struct {
        const Read& read;
        const char *source, *value, *state;
    } cases[] = {
        {int64, " -1,", "-1", "0@3"},
        {int64, "010 ", "8", "0@3"},
        {int64, "+0x1F}", "31", "0@5"},
        {int64, "123456789012345678", "123456789012345678", "0@18"},
        {int64, "9223372036854775807", "9223372036854775807", "0@19"},
        {int64, "-9223372036854775808", "-9223372036854775808", "0@20"},
        {int64, "9223372036854775808", "9223372036854775807", "5@0"},
        {int64, " 1.5", "1", "6@2"},
        {int64, " x", "0", "4@1"},
        {uint64, "18446744073709551615", "18446744073709551615", "0@20"},
        {uint64, " -1", "0", "6@1"},
        {int32, " 2147483647", "2147483647", "0@11"},
        {int32, " -2147483648", "-2147483648", "0@12"},
        {int32, " 2147483648", "0", "5@0"},
        {int32, " 7e1", "7", "6@0"},
        {uint32, " 4294967296", "0", "5@0"},
    };
    for (const auto& row : cases) {
        Parser parser(row.source);
        errno = EPERM;
        EXPECT_EQ(row.read(parser), row.value) << row.source;
        EXPECT_EQ(parser.state(), row.state) << row.source;
        EXPECT_TRUE(errno == EPERM || parser.error() == 5) << "only a range error is marked";
    }
}

TEST(JsonParser, StructureAndLiteralsAreReadOneStepAtATime) {
    using Step = int (*)(sj_parser*);
    const struct {
        Step step;
        const char* source;
        int result;
        const char* state;
    } cases[] = {
        {sj_parse_object_start, " {", 0, "0@2"},
        {sj_parse_object_start, " [", 11, "11@1"},
        {sj_parse_object_end_if_empty, " }", 1, "0@2"},
        {sj_parse_object_end_if_empty, " ]", 0, "0@1"},
        {sj_parse_object_next, " ,}", 0, "0@2"},
        {sj_parse_object_next, " },", 1, "0@2"},
        {sj_parse_object_next, " ]", 13, "13@1"},
        {sj_parse_array_start, " [", 0, "0@2"},
        {sj_parse_array_start, " {", 15, "15@1"},
        {sj_parse_array_end_if_empty, " ]", 1, "0@2"},
        {sj_parse_array_end_if_empty, " }", 0, "0@1"},
        {sj_parse_array_next, " ,]", 0, "0@2"},
        {sj_parse_array_next, " ],", 1, "0@2"},
        {sj_parse_array_next, " }", 16, "16@1"},
        {sj_parse_boolean, " truest", 1, "0@5"},
        {sj_parse_boolean, " falsey", 0, "0@6"},
        {sj_parse_boolean, " fals", 0, "17@1"},
        {sj_parse_null, " nullx", 0, "0@5"},
        {sj_parse_null, " nul", 18, "18@1"},
        {sj_skip_array, " {}", 15, "15@1"},
        {sj_skip_object, " []", 11, "11@1"},
    };
    for (const auto& row : cases) {
        Parser parser(row.source);
        EXPECT_EQ(row.step(parser), row.result) << row.source;
        EXPECT_EQ(parser.state(), row.state) << row.source;
    }
    Parser key("\"k\" x");
    EXPECT_STREQ(sj_parse_object_key(key), "k");
    EXPECT_EQ(key.state(), "12@4");
}

TEST(JsonParser, SkippingStopsBehindTheValueOrAtTheError) {
    const struct {
        const char *source, *state;
    } cases[] = {
        {" -1.50e+7,", "0@9"},
        {"1.", "6@2"},
        {"1e-", "6@3"},
        {"x", "3@0"},
        {"[]1", "0@2"},
        {"[1,[2,{}],{\"a\":[\"b\",null,true]}] ", "0@32"},
        // The separator after a value in error is still read: its own error wins.
        {"[x]", "16@1"},
        {"[1.]", "6@4"},
        {"{5:1}", "13@2"},
        {"{\"a\" 1}", "12@7"},
    };
    for (const auto& row : cases) {
        Parser parser(row.source);
        const int result = sj_skip_value(parser);
        EXPECT_EQ(result, parser.error());
        EXPECT_EQ(parser.state(), row.state) << row.source;
    }
}

/// Skipping as its contract tells it, on the stack.
void skip_recursively(sj_parser* parser) {
    while (*parser->position == ' ') {
        ++parser->position;
    }
    const bool object = *parser->position == '{';
    if (!object && *parser->position != '[') {
        sj_skip_value(parser);
        return;
    }
    ++parser->position;
    if ((object ? sj_parse_object_end_if_empty : sj_parse_array_end_if_empty)(parser) != 0) {
        return;
    }
    do {
        if (parser->error != 0) {
            return;
        }
        if (object) {
            sj_parse_object_key(parser);
        }
        skip_recursively(parser);
    } while ((object ? sj_parse_object_next : sj_parse_array_next)(parser) == 0);
}

TEST(JsonParser, NestedValuesAreSkippedAsIfByRecursion) {
    std::mt19937 random(7);
    const char* const pieces[] = {"[", "[", "]", "{", "}", ",", "\"k\":", "\"k\":", "1", "\"s\"", " ", "1.", "x"};
    for (int round = 0; round < 20000; ++round) {
        // Some begin deeper than a machine word has bits.
        std::string source(round % 100 == 0 ? 130 : 0, '[');
        for (std::size_t i = 0; i < 4 + random() % 12; ++i) {
            source += pieces[random() % std::size(pieces)];
        }
        source += std::string(round % 200 == 0 ? 140 : 0, ']');
        Parser expected(source);
        skip_recursively(expected);
        Parser parser(source);
        sj_skip_value(parser);
        ASSERT_EQ(parser.state(), expected.state()) << source;
    }
    constexpr std::size_t depth = 1'000'000;
    Parser open(std::string(depth, '['));
    EXPECT_EQ(sj_skip_value(open), 16);
    EXPECT_EQ(open.offset(), depth);
    Parser closed(std::string(depth, '[') + std::string(depth, ']'));
    EXPECT_EQ(sj_skip_value(closed), 0);
    EXPECT_EQ(closed.offset(), 2 * depth);
}

TEST(JsonParser, ErrorTextsTellWhatAndWhere) {
    Parser parser("{\"domains\":x\n");
    sj_parser* const raw = parser;
    errno = 0;
    EXPECT_STREQ(sj_parser_strerror(raw), "OK, no error.");
    raw->position += 11;
    raw->error = 12;
    EXPECT_STREQ(sj_parser_strerror(raw),
                 "JSON name separator (':') is expected inside an object. Error occured at offset 11, character 'x'. ");
    ++raw->position;
    raw->error = 23;
    errno = ERANGE;
    EXPECT_STREQ(sj_parser_strerror(raw),
                 "Custom JSON value constraint failed: N/A. Error occured at offset 12, character '\\x0a'. "
                 "Also system error occured: Numerical result out of range (34).");
    errno = 0;
    raw->error = 24;
    EXPECT_STREQ(sj_parser_strerror(raw), "unknown error code Error occured at offset 12, character '\\x0a'. ");

    // Cut where the buffer ends, also in the middle of the last step.
    const std::string prefix = "Custom JSON value constraint failed: ";
    raw->error = 23;
    for (const std::size_t length : {900U, 980U, 2000U}) {
        const std::string detail(length, 'd');
        raw->detail = detail.c_str();
        const std::string whole = prefix + detail + ". Error occured at offset 12, character '\\x0a'. ";
        EXPECT_EQ(sj_parser_strerror(raw), whole.substr(0, 1023));
    }
}

TEST(JsonParser, TheDummyIsTheSameObjectResetEachTime) {
    sj_util_funcs funcs{};
    sj_set_default_util_funcs(&funcs);
    funcs.user_data = &funcs;
    sj_parser* dummy = sj_get_dummy_parser(&funcs);
    EXPECT_EQ(dummy->funcs.user_data, &funcs);
    *dummy->position = 'x';
    EXPECT_EQ(sj_parse_array_start(dummy), 15);
    EXPECT_EQ(sj_get_dummy_parser(nullptr), dummy);
    EXPECT_EQ(dummy->error, 0);
    EXPECT_STREQ(dummy->start, "");
    EXPECT_EQ(dummy->funcs.user_data, nullptr);
}

}  // namespace
