// Answers from the session data.
#include "session/session_queries.h"

#include "session/session_fixture.h"
#include "util/string_array.h"

namespace {

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

std::string domain_of(const char* alias) {
    char* answer = nullptr;
    const int result = get_domain_by_domainalias(nullptr, &answer, alias);
    return result == 0 ? textOf(kavro::CString(answer)) : "failed";
}

TEST_F(SessionTest, QueriesAnswerForTheSessionDomainOnly) {
    EXPECT_EQ(ask(get_mailnames_by_domain, "example.com"), "info,sales,");
    EXPECT_EQ(ask(get_mailnames_by_domain, "Example.com"), "null");
    EXPECT_EQ(ask(get_domaliases_by_domain, "example.com"), "one.net,two.net,");
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "example.com"), "help,ask,");
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "one.net"), "null");
    EXPECT_EQ(ask(get_aliases_by_mailname, "sales", "example.com"), "null");
    EXPECT_EQ(domain_of("two.net"), "example.com");
    EXPECT_EQ(domain_of("example.com"), "(null)");

    std::vector<std::string> strings = {"before"};
    append_domainaliases_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "example.com");
    append_maillists_by_domain(strings, "one.net");
    EXPECT_THAT(strings, ::testing::ElementsAre("before", "one.net", "two.net", "news"));
    EXPECT_THAT([&] { append_active_domaliases_by_domain(strings, "example.com"); },
                testing::ThrowsMessage<std::runtime_error>(
                    "Function append_active_domaliases_by_domainis not implemented for JSON/STDIN"));

    free_session_mail_db_info();
    EXPECT_EQ(domain_of("one.net"), "failed");
    EXPECT_EQ(ask(get_aliases_by_mailname, "info", "example.com"), "failed");
    const std::string words = "3: Session mail DB info is not filled in call to ";
    EXPECT_THAT(logged, ::testing::ElementsAre(words + "get_domain_by_domainalias(). Probably a programming error.",
                                               words + "get_aliases_by_mailname(). Probably a programming error."));
}

TEST_F(SessionTest, EveryMailnameIsFoundInAnyNumberOfThem) {
    for (const int count : {1, 15, 16, 1000}) {
        std::string mails;
        for (int i = 0; i < count; ++i) {
            mails += R"({"name":"m)" + std::to_string(i) + R"(","aliases":[]},)";
        }
        EXPECT_EQ(read(R"({"domain":{"name":"a.b","maillists":[],"dom_aliases":[],"mails":[)" + mails +
                       R"({"name":"m0","aliases":[]}]}})"),
                  0);
        // The first of equal names answers.
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(find_session_mail(("m" + std::to_string(i)).c_str()), session_mail_db_info->mails + i);
        }
        EXPECT_EQ(find_session_mail(("m" + std::to_string(count)).c_str()), nullptr);

        // What is renamed is found, under its new name only.
        get_session_mail_db_info()->mails[0].name = "renamed";
        EXPECT_EQ(find_session_mail("renamed"), session_mail_db_info->mails);
        EXPECT_EQ(find_session_mail("m0"), session_mail_db_info->mails + count);
    }
}

}  // namespace
