// The document: what is accepted and how it is changed, what is refused and with which words.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>

#include "session/session_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string dump(const mail_db_data_t* object) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = ::open_memstream(&text, &size);
    debug_print_session_mail_db_info(stream, object);
    std::fclose(stream);
    const kavro::CString owner(text);
    return text;
}

TEST_F(SessionTest, AWholeDocumentIsReadLowerCasedAndCountedInBytes) {
    EXPECT_EQ(read(R"( {"comment": [{"domain": 1.5}], "domain": {
        "mbox_quota_unit": "MB", "mbox_quota": 5, "extra": {}, "name": "Example.COM", "maillists": ["News"],
        "dom_aliases": ["ONE.net", "two.net-"],
        "mails": [
            {"name": "Info.Desk", "mbox_quota": 2, "x": "y", "aliases": ["HELP", "a+B"], "mbox_quota_unit": "TB"},
            {"aliases": [], "name": "sales", "mbox_quota": -1, "mbox_quota_unit": "GB"},
            {"na\u0000": 1, "name\u0000x": "zero", "aliases": [], "mbox_quota": 0, "mbox_quota_unit": "KB"}
        ]}} and what follows)"),
              0);
    EXPECT_EQ(dump(session_mail_db_info), R"(mail_db_data_t = {
  "domain": {
    "name": "example.com",
    "mbox_quota": 5242880,
    "dom_aliases": [ "one.net", "two.net-" ],
    "mails": [
      {
        "name": "info.desk",
        "mbox_quota": 2199023255552,
        "aliases": [ "help", "a+b" ]
      },
      {
        "name": "sales",
        "mbox_quota": -1,
        "aliases": [  ]
      },
      {
        "name": "zero",
        "mbox_quota": 0,
        "aliases": [  ]
      }
    ]
  }
}
)");
    EXPECT_STREQ(session_mail_db_info->maillists[0], "News");
    EXPECT_EQ(dump(nullptr), "mail_db_data_t = (null)\n");
    EXPECT_THAT(logged(), IsEmpty());

    // Without the session's own treatment everything stays as it is written.
    std::string text =
        R"({"domain":{"name":"A.B","mails":[{"name":"X","aliases":["Y"]}],"dom_aliases":[],"maillists":[],"mbox_quota":7}})";
    sj_parser* parser = sj_create_parser(text.data(), nullptr);
    mail_db_data_t* object = create_mail_db_data_object(parser);
    EXPECT_EQ(object->domain_quota, -1);
    EXPECT_STREQ(object->domain_quota_unit, "B");
    EXPECT_EQ(parse_mail_db_data_object(parser, object), 0);
    EXPECT_STREQ(object->domain_name, "A.B");
    EXPECT_STREQ(object->mails[0].aliases[0], "Y");
    EXPECT_EQ(object->mails[0].quota, -1);
    EXPECT_STREQ(object->mails[0].quota_unit, "B");
    free_mail_db_data_object(parser, object);
    sj_free_parser(parser);
}

TEST_F(SessionTest, LaterMembersReplaceEarlierOnes) {
    EXPECT_EQ(read(R"({"domain":{"name":"old.com","mbox_quota":1,"mbox_quota_unit":"KB","maillists":["l"],
        "dom_aliases":["a.b"],"mails":[{"name":"x","aliases":["y"]}]},
        "domain":{"name":"no.com","name":"new.com","maillists":["m"],"maillists":[],"dom_aliases":["c.d","e.f"],
        "dom_aliases":["g.h"],"mails":[{"name":"p","aliases":["q"]}],"mails":[
        {"name":"r","name":"s","aliases":["t","u"],"aliases":["v"],"mbox_quota":1,"mbox_quota":2}]}})"),
              0);
    const mail_db_data_t& data = *session_mail_db_info;
    EXPECT_STREQ(data.domain_name, "new.com");
    EXPECT_EQ(data.domain_quota, -1);
    EXPECT_STREQ(data.domain_quota_unit, "B");
    EXPECT_EQ(data.maillists_count, 0U);
    ASSERT_EQ(data.domain_aliases_count, 1U);
    EXPECT_STREQ(data.domain_aliases[0], "g.h");
    ASSERT_EQ(data.mails_count, 1U);
    EXPECT_STREQ(data.mails[0].name, "s");
    EXPECT_EQ(data.mails[0].quota, 2);
    ASSERT_EQ(data.mails[0].aliases_count, 1U);
    EXPECT_STREQ(data.mails[0].aliases[0], "v");
}

TEST_F(SessionTest, DocumentsAreRefusedAtTheFirstFault) {
    const std::string mail = R"({"domain":{"name":"a.b","mails":[{"name":"m","aliases":[)";
    const std::string missing =
        "Some required fields are missing from the JSON object. Check that input JSON document "
        "conforms to schema.";
    const std::string custom = "Custom JSON value constraint failed: ";
    const struct {
        std::string document;
        int error;
        std::string text;  ///< of the message
        std::size_t offset;
    } cases[] = {
        {"[]", 11, "JSON object is expected.", 0},
        {"{ }", 14, missing, 3},
        {"{ 5}", 14, missing, 2},
        {"{", 14, missing, 1},
        {R"({"a" 5})", 12, "JSON name separator (':') is expected inside an object.", 5},
        {R"({"a":1,5})", 7, "String is expected.", 7},
        {R"({"a":1})", 14, missing, 7},
        {R"({"a":-})", 4, "Number is expected.", 5},
        {R"({"a":1;)", 13, "JSON value separator (',') or end of object is expected.", 6},
        {R"({"domain":{5}})", 7, "String is expected.", 11},
        {R"({"domain":{}})", 14, missing, 12},
        {R"({"domain":{"name":"a.b","mails":[],"dom_aliases":[]}})", 14, missing, 52},
        {R"({"domain":{"name":"a.b","mails":[],"maillists":[]}})", 14, missing, 50},
        {R"({"domain":{"name":"a.b","dom_aliases":[],"maillists":[]}})", 14, missing, 56},
        {R"({"domain":{"mails":[],"dom_aliases":[],"maillists":[]}})", 14, missing, 54},
        {R"({"domain":{"name":"a..b"}})", 23, custom + "Domain name is not valid.", 24},
        {R"({"domain":{"mbox_quota":-2}})", 23, custom + "Domain quota value is out of bounds.", 26},
        {R"({"domain":{"mbox_quota":"1"}})", 4, "Number is expected.", 24},
        {R"({"domain":{"mbox_quota_unit":"PB"}})", 23, custom + "Domain quota unit value is invalid.", 33},
        {R"({"domain":{"dom_aliases":["-a"]}})", 23, custom + "Domain alias is not valid.", 30},
        {R"({"domain":{"dom_aliases":{}}})", 15, "JSON array is expected.", 25},
        {R"({"domain":{"maillists":["a b"]}})", 23, custom + "Maillist is not valid.", 29},
        {R"({"domain":{"mails":[5]}})", 11, "JSON object is expected.", 20},
        {R"({"domain":{"mails":[{"name":"m"}]}})", 14, missing, 32},
        {R"({"domain":{"mails":[{"aliases":[]}]}})", 14, missing, 34},
        {R"({"domain":{"mails":[{"name":".m"}]}})", 23, custom + "Mailname is not valid.", 32},
        {R"({"domain":{"mails":[{"name":""}]}})", 23, custom + "Mailname is not valid.", 30},
        {R"({"domain":{"mails":[{"name":")" + std::string(246, 'a') + R"("}]}})", 23, custom + "Mailname is not valid.",
         276},
        {R"({"domain":{"mails":[{"mbox_quota":-2}]}})", 23, custom + "Mailbox quota value is out of bounds.", 36},
        {R"({"domain":{"mails":[{"mbox_quota_unit":"mb"}]}})", 23, custom + "Mailbox quota unit value is invalid.", 43},
        {mail + R"("x","a@b"]}]}})", 23, custom + "Mail alias is not valid.", mail.size() + 9},
        {mail + R"("x" "y"]}]}})", 16, "JSON value separator (',') or end of array is expected.", mail.size() + 4},
        {mail + "\"x\xc3\"]}]}}", 9,
         "Invalid character found in string. Check that strings do not contain control "
         "characters.",
         mail.size() + 2},
    };
    for (const auto& row : cases) {
        logged().clear();
        EXPECT_EQ(read(row.document), row.error) << row.document;
        ASSERT_EQ(logged().size(), 1U) << row.document;
        const std::string expected = "3: Session mail DB info parsing error: " + row.text +
                                     " Error occured at offset " + std::to_string(row.offset) + ", character '";
        EXPECT_EQ(logged()[0].substr(0, expected.size()), expected) << row.document;
        EXPECT_EQ(session_mail_db_info, nullptr);
        EXPECT_EQ(session_mail_db_json, nullptr);
    }
    EXPECT_EQ(read(R"({"domain":{"mbox_quota":99999999999999999999}})"), 5);
    EXPECT_THAT(logged().back(), ::testing::EndsWith("Also system error occured: Numerical result out of range (34)."));
}

/// Allocation hooks that know every block, and fail at one call.
struct Hooks {
    std::map<void*, std::size_t> blocks;
    int calls_until_failure = -1;

    sj_util_funcs funcs() {
        return {this, [](void* self, std::size_t size) { return static_cast<Hooks*>(self)->change(nullptr, size); },
                [](void* self, void* pointer, std::size_t size) {
                    return static_cast<Hooks*>(self)->change(pointer, size);
                },
                [](void* self, void* pointer) {
                    EXPECT_EQ(static_cast<Hooks*>(self)->blocks.erase(pointer), 1U);
                    std::free(pointer);
                }};
    }

    void* change(void* pointer, std::size_t size) {
        if (calls_until_failure-- == 0) {
            return nullptr;
        }
        const std::size_t before = pointer != nullptr ? blocks.at(pointer) : 0;
        const std::size_t step = size - before;
        EXPECT_TRUE(step == sizeof(char*) || step == sizeof(mail_db_mail_t) || before == 0) << before << ' ' << size;
        blocks.erase(pointer);
        void* grown = std::realloc(pointer, size);
        std::memset(static_cast<char*>(grown) + before, 0xee, step);
        blocks[grown] = size;
        return grown;
    }
};

TEST_F(SessionTest, ArraysGrowItemByItemAndEveryFailedAllocationIsReported) {
    const std::string document =
        R"({"domain":{"name":"a.b","maillists":["l","m"],"dom_aliases":["c.d","e.f"],"dom_aliases":["g.h"],"mails":[)"
        R"({"name":"x","aliases":["y","z","w"]},{"name":"p","aliases":["q"]}],"mails":[{"aliases":["r"],"name":"s"}]}})";
    constexpr int allocations = 14;  // the object and its arrays' items
    for (int n = 0; n <= allocations; ++n) {
        Hooks hooks;
        const sj_util_funcs funcs = hooks.funcs();
        std::string text = document;
        sj_parser* parser = sj_create_parser(text.data(), &funcs);
        hooks.calls_until_failure = n;
        mail_db_data_t* object = create_mail_db_data_object(parser);
        ASSERT_EQ(object == nullptr, n == 0);
        if (object != nullptr) {
            EXPECT_EQ(parse_mail_db_data_object(parser, object), n < allocations ? 20 : 0) << n;
            EXPECT_EQ(object->mails_capacity * sizeof(mail_db_mail_t),
                      object->mails != nullptr ? hooks.blocks.at(object->mails) : 0);
        }
        free_mail_db_data_object(parser, object);
        sj_free_parser(parser);
        EXPECT_THAT(hooks.blocks, IsEmpty()) << n;
    }
    // Only whole records are counted.
    std::string text = R"({"domain":{"mails":[{"name":"a","aliases":[]},{"aliases":["b"],"name":"@"}]}})";
    sj_parser* parser = sj_create_parser(text.data(), nullptr);
    mail_db_data_t* object = create_mail_db_data_object(parser);
    EXPECT_EQ(parse_mail_db_data_object(parser, object), 23);
    EXPECT_EQ(object->mails_count, 1U);
    free_mail_db_data_object(parser, object);
    sj_free_parser(parser);
}

TEST_F(SessionTest, TheDataIsReadOnceFromAStreamThatIsReady) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::FILE* stream = ::fdopen(ends[0], "r");
    EXPECT_EQ(read_session_mail_db_info(stream, 1), -1);
    EXPECT_THAT(logged(), IsEmpty());
    ::close(ends[1]);
    EXPECT_TRUE(is_fd_ready(ends[0]));
    EXPECT_EQ(read_session_mail_db_info(stream, 1), 11);
    // Numbers above those of a select(2) set.
    const int high = ::fcntl(ends[0], F_DUPFD, 2000);
    EXPECT_TRUE(is_fd_ready(high));
    ::close(high);
    EXPECT_FALSE(is_fd_ready(high));
    std::fclose(stream);

    load();
    logged().clear();
    std::FILE* directory_stream = std::fopen("/tmp", "r");
    EXPECT_EQ(read_session_mail_db_info(directory_stream, 0), -2);
    const char* loaded_already = "3: Session mail DB info have already been initialized. Probably a programming error.";
    EXPECT_THAT(logged(), ElementsAre(loaded_already));
    free_session_mail_db_info();
    EXPECT_NE(get_session_mail_db_info(), nullptr);
    EXPECT_EQ(read_session_mail_db_info(directory_stream, 0), -2);
    free_session_mail_db_info();
    logged().clear();
    EXPECT_EQ(read_session_mail_db_info(directory_stream, 0), -3);
    EXPECT_THAT(logged(), ElementsAre("3: Failed to read session mail DB info from input stream (fd=" +
                                      std::to_string(::fileno(directory_stream)) + "): Is a directory [21]"));
    std::fclose(directory_stream);
}

TEST_F(SessionTest, QuotasThatNoLongerFitAreKeptWithAWarning) {
    EXPECT_EQ(read(R"({"domain":{"name":"a.b","mbox_quota":9007199254740993,"mbox_quota_unit":"KB","maillists":[],
        "dom_aliases":[],"mails":[{"name":"x","aliases":[],"mbox_quota":8796093022208,"mbox_quota_unit":"MB"}]}})"),
              0);
    const char* words = "4: Resulting quota value in session mail DB info is not valid: got ";
    EXPECT_THAT(logged(), ElementsAre(words + std::string("-9223372036854774784, source size unit was 'KB'"),
                                      words + std::string("-9223372036854775808, source size unit was 'MB'")));
    EXPECT_EQ(session_mail_db_info->domain_quota, -9223372036854774784);
    EXPECT_EQ(get_value_in_bytes(3, "GB"), 3221225472);
    EXPECT_EQ(get_value_in_bytes(3, "gb"), 0);
    EXPECT_EQ(is_mbox_quota_valid(-1), 1);
    EXPECT_EQ(is_mbox_quota_valid(-2), 0);
}

}  // namespace
