// The document: what is accepted and how it is changed, what is refused and with which words.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "session/session_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string dump(const mail_db_data_t* object) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = ::open_memstream(&text, &size);
    debug_print_session_mail_db_info(stream, object);
    std::fclose(stream);
    return textOf(kavro::CString(text));
}

TEST_F(SessionTest, AWholeDocumentIsReadLowerCasedAndCountedInBytes) {
    EXPECT_EQ(read(R"( {"comment": [{"domain": 1.5}], "domain": {
        "mbox_quota_unit": "MB", "mbox_quota": 5, "extra": {}, "name": "Example.COM", "maillists": ["News"],
        "dom_aliases": ["ONE.net", "two.net-"],
        "mails": [
            {"name": "Info.Desk", "mbox_quota": 2, "x": "y", "aliases": ["HELP", "a+B"], "mbox_quota_unit": "TB"},
            {"na\u0000": 1, "name\u0000x": "zero", "aliases": [], "mbox_quota": 0, "mbox_quota_unit": "KB"},
            {"name": "none", "aliases": [], "mbox_quota_unit": "GB"}
        ]}} and what follows)"),
              0);
    const auto mail = [](const std::string& name, const std::string& quota, const std::string& aliases) {
        return "      {\n        \"name\": \"" + name + "\",\n        \"mbox_quota\": " + quota +
               ",\n        \"aliases\": [ " + aliases + " ]\n      }";
    };
    EXPECT_EQ(dump(session_mail_db_info),
              "mail_db_data_t = {\n  \"domain\": {\n    \"name\": \"example.com\",\n    \"mbox_quota\": 5242880,\n"
              "    \"dom_aliases\": [ \"one.net\", \"two.net-\" ],\n    \"mails\": [\n" +
                  mail("info.desk", "2199023255552", "\"help\", \"a+b\"") + ",\n" + mail("zero", "0", "") + ",\n" +
                  mail("none", "-1", "") + "\n    ]\n  }\n}\n");
    EXPECT_STREQ(session_mail_db_info->maillists[0], "News");
    EXPECT_EQ(dump(nullptr), "mail_db_data_t = (null)\n");
    EXPECT_THAT(logged, IsEmpty());
}

TEST_F(SessionTest, LaterMembersReplaceEarlierOnes) {
    EXPECT_EQ(read(R"({"domain":{"name":"old.com","mbox_quota":1,"mbox_quota_unit":"KB","maillists":["l"],
        "dom_aliases":["a.b"],"mails":[{"name":"x","aliases":["y"]}]},
        "domain":{"name":"no.com","name":"new.com","maillists":["m"],"maillists":[],"dom_aliases":["c.d","e.f"],
        "dom_aliases":["g.h"],"mails":[{"name":"p","aliases":["q"]}],"mails":[
        {"name":"r","name":"s","aliases":["t","u"],"aliases":["v"],"mbox_quota":1,"mbox_quota":2}]}})"),
              0);
    EXPECT_EQ(dump(session_mail_db_info),
              "mail_db_data_t = {\n  \"domain\": {\n    \"name\": \"new.com\",\n    \"mbox_quota\": -1,\n"
              "    \"dom_aliases\": [ \"g.h\" ],\n    \"mails\": [\n      {\n        \"name\": \"s\",\n"
              "        \"mbox_quota\": 2,\n        \"aliases\": [ \"v\" ]\n      }\n    ]\n  }\n}\n");
    EXPECT_STREQ(session_mail_db_info->domain_quota_unit, "B");
    EXPECT_EQ(session_mail_db_info->maillists_count, 0U);
}

TEST_F(SessionTest, DocumentsAreRefusedAtTheFirstFault) {
    const std::string domain = R"({"domain":{)";
    const std::string mail = domain + R"("mails":[{)";
    const struct {
        std::string document;
        int error;
        std::size_t offset;
        std::string detail = "";
    } cases[] = {
        {"{ }", 14, 3},
        {"{ 5}", 14, 2},
        {R"({"a":1,5})", 7, 7},
        {domain + "5}}", 7, 11},
        {domain + "}}", 14, 12},
        {domain + R"("name":"a.b","mails":[],"maillists":[]}})", 14, 50},
        {domain + R"("name":"a.b","dom_aliases":[],"maillists":[]}})", 14, 56},
        {domain + R"("mails":[],"dom_aliases":[],"maillists":[]}})", 14, 54},
        {mail + R"("aliases":[]}]}})", 14, 34},
        {mail + R"("name":"x"}]}})", 14, 32},
        {domain + R"("mbox_quota":-2}})", 23, 26, "Domain quota value is out of bounds"},
        {domain + R"("mbox_quota_unit":"mb"}})", 23, 33, "Domain quota unit value is invalid"},
        {domain + R"("maillists":["a/b"]}})", 23, 29, "Maillist is not valid"},
        {mail + R"("name":""}]}})", 23, 30, "Mailname is not valid"},
        {mail + R"("name":")" + std::string(246, 'a') + R"("}]}})", 23, 276, "Mailname is not valid"},
        {mail + R"("mbox_quota":-2}]}})", 23, 36, "Mailbox quota value is out of bounds"},
        {mail + R"("mbox_quota_unit":"mb"}]}})", 23, 43, "Mailbox quota unit value is invalid"},
        {mail + R"("aliases":["x","a@b"]}]}})", 23, 41, "Mail alias is not valid"},
        {mail + "\"aliases\":[\"x\xc3\"]}]}}", 9, 34},
    };
    for (const auto& row : cases) {
        logged.clear();
        errno = EPERM;  // from before; no part of the message
        EXPECT_EQ(read(row.document), row.error) << row.document;
        ASSERT_EQ(logged.size(), 1U) << row.document;
        EXPECT_THAT(logged[0], ::testing::StartsWith("3: Session mail DB info parsing error: ")) << row.document;
        EXPECT_THAT(logged[0], HasSubstr(row.detail + ". Error occured at offset " + std::to_string(row.offset) + ","));
        EXPECT_THAT(logged[0], ::testing::EndsWith("'. "));
        EXPECT_TRUE(session_mail_db_info == nullptr && session_mail_db_json == nullptr);
    }
}

/// Allocation hooks that know every block, and fail at one call.
struct Hooks {
    std::map<void*, std::size_t> blocks;
    int calls_until_failure = -1;

    sj_util_funcs funcs() {
        return {
            this, [](void* self, std::size_t size) { return static_cast<Hooks*>(self)->change(nullptr, size); },
            [](void* self, void* block, std::size_t size) { return static_cast<Hooks*>(self)->change(block, size); },
            [](void* self, void* block) {
                EXPECT_EQ(static_cast<Hooks*>(self)->blocks.erase(block), 1U);
                std::free(block);
            }};
    }

    void* change(void* block, std::size_t size) {
        if (calls_until_failure-- == 0) {
            return nullptr;
        }
        const std::size_t before = block != nullptr ? blocks.at(block) : 0;
        const std::size_t step = size - before;
        EXPECT_TRUE(step == sizeof(char*) || step == sizeof(mail_db_mail_t) || before == 0) << before << ' ' << size;
        blocks.erase(block);
        void* grown = std::realloc(block, size);
        std::memset(static_cast<char*>(grown) + before, 0xee, step);
        blocks[grown] = size;
        return grown;
    }
};

TEST_F(SessionTest, ArraysGrowItemByItemAndEveryFailedAllocationIsReported) {
    constexpr int allocations = 14;  // the object and its arrays' items
    for (int n = 0; n <= allocations; ++n) {
        std::string text =
            R"({"domain":{"name":"a.b","maillists":["l","m"],"dom_aliases":["c.d","e.f"],"dom_aliases":["g.h"],"mails":[)"
            R"({"name":"x","aliases":["y","z","w"]},{"name":"p","aliases":["q"]}],"mails":[{"aliases":["r"],"name":"s"}]}})";
        Hooks hooks;
        const sj_util_funcs funcs = hooks.funcs();
        sj_parser* parser = sj_create_parser(text.data(), &funcs);
        hooks.calls_until_failure = n;
        mail_db_data_t* object = create_mail_db_data_object(parser);
        ASSERT_EQ(object == nullptr, n == 0);
        EXPECT_TRUE(n == 0 || parse_mail_db_data_object(parser, object) == (n < allocations ? 20 : 0)) << n;
        EXPECT_TRUE(n == 0 || object->mails_count == 0 || object->mails[object->mails_count - 1].name != nullptr)
            << "only whole records count";
        free_mail_db_data_object(parser, object);
        sj_free_parser(parser);
        EXPECT_THAT(hooks.blocks, IsEmpty()) << n;
    }
}

TEST_F(SessionTest, TheDataIsReadOnceFromAStreamThatIsReady) {
    std::FILE* unreadable = std::fopen("/tmp", "r");
    free_session_mail_db_info();
    EXPECT_NE(get_session_mail_db_info(), nullptr);
    EXPECT_EQ(read_session_mail_db_info(unreadable, 0), -2);
    free_session_mail_db_info();
    EXPECT_EQ(read_session_mail_db_info(unreadable, 0), -3);
    EXPECT_THAT(logged,
                ElementsAre("3: Session mail DB info have already been initialized. Probably a programming error.",
                            "3: Failed to read session mail DB info from input stream (fd=" +
                                std::to_string(::fileno(unreadable)) + "): Is a directory [21]"));
    std::fclose(unreadable);

    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::FILE* stream = ::fdopen(ends[0], "r");
    EXPECT_EQ(read_session_mail_db_info(stream, 1), -1);
    ::close(ends[1]);
    EXPECT_EQ(read_session_mail_db_info(stream, 1), 11);
    // Numbers above those of a select(2) set.
    const int high = ::fcntl(ends[0], F_DUPFD, 2000);
    EXPECT_TRUE(is_fd_ready(high));
    ::close(high);
    EXPECT_FALSE(is_fd_ready(high));
    std::fclose(stream);
}

TEST_F(SessionTest, QuotasThatNoLongerFitAreKeptWithAWarning) {
    EXPECT_EQ(read(R"({"domain":{"name":"a.b","mbox_quota":9007199254740993,"mbox_quota_unit":"KB","maillists":[],
        "dom_aliases":[],"mails":[{"name":"x","aliases":[],"mbox_quota":8589934592,"mbox_quota_unit":"GB"}]}})"),
              0);
    const std::string words = "4: Resulting quota value in session mail DB info is not valid: got ";
    EXPECT_THAT(logged, ElementsAre(words + "-9223372036854774784, source size unit was 'KB'",
                                    words + "-9223372036854775808, source size unit was 'GB'"));
    EXPECT_EQ(session_mail_db_info->domain_quota, -9223372036854774784);
}

}  // namespace
