// The document: what is accepted and how it is changed, what is refused and with which words; the answers from it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "session/session_fixture.h"
#include "session/session_queries.h"
#include "util/c_memory.h"

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

TEST_F(SessionTest, ADocumentIsReadLowerCasedInBytesAndItsLastMembersCount) {
    EXPECT_EQ(read(R"( {"comment": [{"domain": 1.5}], "domain": {"name": "old.com", "mbox_quota": 1, "maillists": ["l"],
        "mbox_quota_unit": "KB", "dom_aliases": ["a.b"], "mails": [{"name": "x", "aliases": ["y"]}]}, "domain": {
        "extra": {}, "name": "no.com", "name": "Example.COM", "maillists": ["m", "n"], "maillists": ["News"],
        "dom_aliases": ["c.d"], "dom_aliases": ["ONE.net", "two.net-"], "mails": [{"name": "p", "aliases": ["q"]}],
        "mails": [
            {"name": "no", "name": "Info.Desk", "mbox_quota": 1, "mbox_quota": 2, "x": "y", "aliases": ["r"],
             "aliases": ["HELP", "a+B"], "mbox_quota_unit": "TB"},
            {"na\u0000": 1, "name\u0000x": "zero", "aliases": [], "mbox_quota": 0, "mbox_quota_unit": "KB"},
            {"name": "none", "aliases": [], "mbox_quota_unit": "GB"}
        ]}} and what follows)"),
              0);
    const auto mail = [](const std::string& name, const std::string& quota, const std::string& aliases) {
        return "      {\n        \"name\": \"" + name + "\",\n        \"mbox_quota\": " + quota +
               ",\n        \"aliases\": [ " + aliases + " ]\n      }";
    };
    EXPECT_EQ(dump(session_mail_db_info),
              "mail_db_data_t = {\n  \"domain\": {\n    \"name\": \"example.com\",\n    \"mbox_quota\": -1,\n"
              "    \"dom_aliases\": [ \"one.net\", \"two.net-\" ],\n    \"mails\": [\n" +
                  mail("info.desk", "2199023255552", "\"help\", \"a+b\"") + ",\n" + mail("zero", "0", "") + ",\n" +
                  mail("none", "-1", "") + "\n    ]\n  }\n}\n");
    EXPECT_STREQ(session_mail_db_info->maillists[0], "News");
    EXPECT_STREQ(session_mail_db_info->domain_quota_unit, "B");
    EXPECT_EQ(dump(nullptr), "mail_db_data_t = (null)\n");
    EXPECT_THAT(logged, IsEmpty());
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
        {domain + "}}", 14, 12},
        {domain + R"("name":"a.b","mails":[],"maillists":[]}})", 14, 50},
        {domain + R"("name":"a.b","dom_aliases":[],"maillists":[]}})", 14, 56},
        {domain + R"("mails":[],"dom_aliases":[],"maillists":[]}})", 14, 54},
        {mail + R"("aliases":[]}]}})", 14, 34},
        {mail + R"("name":"x"}]}})", 14, 32},
        {domain + R"("mbox_quota":-2}})", 23, 26, "Domain quota value is out of bounds"},
        {domain + R"("mbox_quota_unit":"mb"}})", 23, 33, "Domain quota unit value is invalid"},
        {domain + R"("maillists":["a/b"]}})", 23, 29, "Maillist is not valid"},
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
        EXPECT_THAT(logged[0], ::testing::StartsWith("3 Session mail DB info parsing error: ")) << row.document;
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
                ElementsAre("3 Session mail DB info have already been initialized. Probably a programming error.",
                            "3 Failed to read session mail DB info from input stream (fd=" +
                                std::to_string(::fileno(unreadable)) + "): Is a directory [21]"));
    std::fclose(unreadable);

    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    // A number above those of a select(2) set.
    const int high = ::fcntl(ends[0], F_DUPFD, 2000);
    EXPECT_FALSE(is_fd_ready(high));
    ::close(ends[1]);
    EXPECT_TRUE(is_fd_ready(high));
    ::close(high);
    EXPECT_FALSE(is_fd_ready(high));
    ::close(ends[0]);
}

TEST_F(SessionTest, QuotasThatNoLongerFitAreKeptWithAWarning) {
    EXPECT_EQ(read(R"({"domain":{"name":"a.b","mbox_quota":9007199254740993,"mbox_quota_unit":"KB","maillists":[],
        "dom_aliases":[],"mails":[{"name":"x","aliases":[],"mbox_quota":8589934592,"mbox_quota_unit":"GB"}]}})"),
              0);
    const std::string words = "4 Resulting quota value in session mail DB info is not valid: got ";
    EXPECT_THAT(logged, ElementsAre(words + "-9223372036854774784, source size unit was 'KB'",
                                    words + "-9223372036854775808, source size unit was 'GB'"));
    EXPECT_EQ(session_mail_db_info->domain_quota, -9223372036854774784);
}

/// The answer's strings, each with a comma behind it; "null" and "failed" stand for the other outcomes.
template <typename... Names>
std::string ask(int (*query)(void*, char***, Names...), Names... names) {
    char* unwritten[] = {nullptr};
    char** answer = unwritten;
    if (query(nullptr, &answer, names...) != 0) {
        return "failed";
    }
    std::string strings = answer == nullptr ? "null" : "";
    for (char** string = answer; string != nullptr && *string != nullptr; ++string) {
        strings += std::string(*string) + ",";
    }
    free_array(answer);
    return strings;
}

TEST_F(SessionTest, QueriesAnswerForTheSessionDomainOnly) {
    EXPECT_EQ(ask(get_mailnames_by_domain, "example.com"), "info,sales,");
    EXPECT_EQ(ask(get_mailnames_by_domain, "Example.com"), "null");
    EXPECT_EQ(ask(get_domaliases_by_domain, "example.com"), "one.net,two.net,");
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "example.com"), "help,ask,");
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "one.net"), "null");
    EXPECT_EQ(ask(get_aliases_by_mailname, "sales", "example.com"), "null");

    std::vector<std::string> strings = {"before"};
    append_domainaliases_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "one.net");
    EXPECT_THAT(strings, ElementsAre("before", "one.net", "two.net", "news"));
    EXPECT_THAT([&] { append_active_domaliases_by_domain(strings, "example.com"); },
                testing::ThrowsMessage<std::runtime_error>(
                    "Function append_active_domaliases_by_domainis not implemented for JSON/STDIN"));

    free_session_mail_db_info();
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "example.com"), "failed");
    EXPECT_EQ(logged.back(),
              "3 Session mail DB info is not filled in call to get_aliases_by_mailname(). Probably a "
              "programming error.");
}

TEST_F(SessionTest, AMailnameIsFoundByItsNameOfTheMoment) {
    EXPECT_EQ(read(R"({"domain":{"name":"a.b","maillists":[],"dom_aliases":[],"mails":[{"name":"one","aliases":[]},)"
                   R"({"name":"two","aliases":[]},{"name":"one","aliases":["other"]}]}})"),
              0);
    const mail_db_mail_t* const mails = session_mail_db_info->mails;
    EXPECT_EQ(find_session_mail("one"), mails) << "the first of equal names";
    EXPECT_EQ(find_session_mail("two"), mails + 1);
    EXPECT_EQ(find_session_mail("three"), nullptr);
    get_session_mail_db_info()->mails[0].name = "renamed";
    EXPECT_EQ(find_session_mail("renamed"), mails);
    EXPECT_EQ(find_session_mail("one"), mails + 2);
}

}  // namespace
