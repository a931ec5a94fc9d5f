// Answers from the session data.
#include "session/session_queries.h"

#include "session/session_fixture.h"
#include "util/string_array.h"

namespace {

using ::testing::ElementsAre;
using Strings = std::vector<std::string>;

/// The answer as a vector; "(null)" or "failed" stand for the other outcomes.
template <typename... Names>
Strings ask(int (*query)(void*, char***, Names...), Names... names) {
    char** answer = nullptr;
    if (query(nullptr, &answer, names...) != 0) {
        return {"failed"};
    }
    Strings strings;
    for (char** string = answer; string != nullptr && *string != nullptr; ++string) {
        strings.emplace_back(*string);
    }
    if (answer == nullptr) {
        strings = {"(null)"};
    }
    free_array(answer);
    return strings;
}

std::string domain_of(const char* alias) {
    char* answer = nullptr;
    EXPECT_EQ(get_domain_by_domainalias(nullptr, &answer, alias), 0);
    const kavro::CString owner(answer);
    return answer != nullptr ? answer : "(null)";
}

TEST_F(SessionTest, QueriesAnswerForTheSessionDomainOnly) {
    load();
    EXPECT_THAT(ask(&get_mailnames_by_domain, "example.com"), ElementsAre("info", "sales"));
    EXPECT_THAT(ask(&get_mailnames_by_domain, "Example.com"), ElementsAre("(null)"));
    EXPECT_THAT(ask(&get_domaliases_by_domain, "example.com"), ElementsAre("one.net", "two.net"));
    EXPECT_THAT(ask(&get_domaliases_by_domain, "one.net"), ElementsAre("(null)"));
    EXPECT_THAT(ask(&get_maillists_by_domain, "example.com"), ElementsAre("news"));
    EXPECT_THAT(ask(&get_aliases_by_mailname, "info", "example.com"), ElementsAre("help", "ask"));
    EXPECT_THAT(ask(&get_aliases_by_mailname, "info", "one.net"), ElementsAre("(null)"));
    EXPECT_THAT(ask(&get_aliases_by_mailname, "sales", "example.com"), ElementsAre("(null)"));
    EXPECT_THAT(ask(&get_aliases_by_mailname, "help", "example.com"), ElementsAre("(null)"));
    EXPECT_EQ(domain_of("two.net"), "example.com");
    EXPECT_EQ(domain_of("example.com"), "(null)");

    Strings strings = {"before"};
    append_domainaliases_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "one.net");
    EXPECT_THAT(strings, ElementsAre("before", "one.net", "two.net", "news"));
    try {
        append_active_domaliases_by_domain(strings, "example.com");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Function append_active_domaliases_by_domainis not implemented for JSON/STDIN");
    }
}

TEST_F(SessionTest, QueriesWithoutDataFailAndSaySo) {
    char* domain = nullptr;
    EXPECT_EQ(get_domain_by_domainalias(nullptr, &domain, "one.net"), -1);
    EXPECT_THAT(ask(&get_mailnames_by_domain, "a.b"), ElementsAre("failed"));
    EXPECT_THAT(ask(&get_aliases_by_mailname, "x", "a.b"), ElementsAre("failed"));
    EXPECT_THAT(ask(&get_domaliases_by_domain, "a.b"), ElementsAre("failed"));
    EXPECT_THAT(ask(&get_maillists_by_domain, "a.b"), ElementsAre("failed"));
    Strings expected;
    for (const char* name : {"get_domain_by_domainalias", "get_mailnames_by_domain", "get_aliases_by_mailname",
                             "get_domaliases_by_domain", "get_maillists_by_domain"}) {
        expected.push_back("3: Session mail DB info is not filled in call to " + std::string(name) +
                           "(). Probably a programming error.");
    }
    EXPECT_EQ(logged(), expected);
    Strings strings;
    append_maillists_by_domain(strings, "a.b");
    EXPECT_TRUE(strings.empty());
}

TEST_F(SessionTest, EveryMailnameIsFoundInAnyNumberOfThem) {
    for (const int count : {1, 15, 16, 17, 1000}) {
        std::string mails;
        for (int i = 0; i < count; ++i) {
            mails += R"({"name":"m)" + std::to_string(i) + R"(","aliases":["a)" + std::to_string(i) + R"("]},)";
        }
        // The first of equal names answers.
        EXPECT_EQ(read(R"({"domain":{"name":"a.b","maillists":[],"dom_aliases":[],"mails":[)" + mails +
                       R"({"name":"m0","aliases":["second"]}]}})"),
                  0);
        for (int i = 0; i < count; ++i) {
            const std::string name = "m" + std::to_string(i);
            ASSERT_EQ(find_session_mail(name.c_str()), session_mail_db_info->mails + i);
        }
        EXPECT_EQ(find_session_mail("a0"), nullptr);
        EXPECT_EQ(find_session_mail(("m" + std::to_string(count)).c_str()), nullptr);

        // What is added or renamed is found, what is renamed away is not.
        append_session_mail(sj_get_dummy_parser(nullptr), session_mail_db_info)->name = "added";
        EXPECT_EQ(find_session_mail("added"), session_mail_db_info->mails + count + 1);
        get_session_mail_db_info()->mails[0].name = "renamed";
        EXPECT_EQ(find_session_mail("renamed"), session_mail_db_info->mails);
        EXPECT_EQ(find_session_mail("m0"), session_mail_db_info->mails + count);
    }
    free_session_mail_db_info();
    EXPECT_EQ(find_session_mail("m0"), nullptr);
}

}  // namespace
