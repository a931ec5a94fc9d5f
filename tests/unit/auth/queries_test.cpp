// Reading operations, over rows in every form that a database may hold.
#include <filesystem>

#include "auth/auth_database.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;

namespace {

/// What callbacks were given, and what the second one answers.
struct Seen {
    std::vector<std::string> calls;
    int second = 7;
};

int note(const char* address, const char* password, unsigned char flags, void* context) {
    Seen& seen = *static_cast<Seen*>(context);
    seen.calls.push_back(std::string(address) + " " + (password != nullptr ? password : "(null)") + " " +
                         std::to_string(flags));
    return seen.calls.size() == 2 ? seen.second : 7;
}

class AuthQueriesTest : public AuthDatabaseTest {
protected:
    AuthQueriesTest() {
        sql("INSERT INTO domains(name, status) VALUES('b.test', 1), ('a.test', 0)");
        EXPECT_EQ(mailAuthSet("zoe", "a.test", "zoe's", 2), 0);
        EXPECT_EQ(mailAuthSet("joe", "b.test", "joe's", 0), 0);
        sql("INSERT INTO users(dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES "
            "(2, 'joe', '', 'plain', 0), (2, 'none', NULL, NULL, 0), (2, 'bad', '$AES-256-CBC:PKCS$x', 'unused', 0), "
            "(2, 'nul', 'not encrypted', "
            "CAST(x'6100622063' AS TEXT), 5), (2, 'void', '', NULL, 0)");
    }
};

TEST_F(AuthQueriesTest, IteratesByDomainThenNameAndSkipsWhatHasNoPassword) {
    Seen seen;
    EXPECT_EQ(mailAuthIterateAll(note, &seen), 0);
    EXPECT_THAT(seen.calls, ElementsAre("bad@a.test (null) 0", "joe@a.test plain 1", "nul@a.test (null) 2",
                                        "void@a.test (null) 0", "zoe@a.test zoe's 2", "joe@b.test joe's 4"));
    EXPECT_THAT(logged(), ElementsAre("3: Failed to decrypt password for mail address 'bad@a.test'",
                                      "6: empty password properties (both plain and encrypted) for user none@a.test, "
                                      "skipped",
                                      "3: Failed to decrypt password for mail address 'nul@a.test'"));
    mailPasswdCipherCleanup();
    EXPECT_EQ(logged().size(), 4U);  // no cipher context was left behind

    for (const int stop : {0, -1, -5}) {
        Seen first{{}, stop};
        EXPECT_EQ(mailAuthIterateAll(note, &first), stop);
        EXPECT_EQ(first.calls.size(), 2U);
    }
    logged().clear();
    sql("UPDATE domains SET name = NULL WHERE name = 'b.test'");
    Seen named;
    EXPECT_EQ(mailAuthCheckShort("JOE", note, &named), 0);
    EXPECT_THAT(named.calls, ElementsAre("joe@a.test plain 1"));
    EXPECT_THAT(logged(), ElementsAre("4: NULL or empty mail address stored in the database, skipped"));
    sql("DROP TABLE users");
    EXPECT_EQ(mailAuthIterateAll(note, &named), -1);
    EXPECT_EQ(logged().back(), "3: Unable to execute the user selection query: no such table: users");
}

TEST_F(AuthQueriesTest, FindsAMailnameInEveryDomainAndAnAddressInOne) {
    Seen seen;
    EXPECT_EQ(mailAuthCheckShort("joe", note, &seen), 0);
    EXPECT_EQ(seen.calls.size(), 2U);
    EXPECT_EQ(mailAuthCheck("Joe@B.test", note, &seen), 7);
    EXPECT_EQ(seen.calls.back(), "Joe@B.test joe's 4");
    EXPECT_TRUE(logged().empty());
    for (const char* address : {"joe", "joe@c.test", "none@a.test"}) {
        EXPECT_EQ(mailAuthCheck(address, note, &seen), -1) << address;
    }
    EXPECT_THAT(
        logged(),
        ElementsAre("3: Invalid mail address 'joe'", "6: No such user 'joe@c.test' in mail authorization database",
                    "6: NULL password fields (both plain and encrypted) for user none@a.test, skipped"));
    EXPECT_EQ(seen.calls.size(), 3U);
}

TEST_F(AuthQueriesTest, ReadsOneUserAsStored) {
    const auto read = [](const char* mailname, const char* domain) {
        mail_auth_user_data record{};
        const int found = get_user_data(&record, mailname, domain);
        std::string all = std::to_string(found);
        if (found == 1) {
            all += std::string(" ") + record.name + " " + (record.value != nullptr ? record.value : "(null)") + " " +
                   std::to_string(record.flags);
        }
        free_user_data(&record);
        return all;
    };
    EXPECT_EQ(read("JOE", "A.TEST"), "1 joe plain 1");
    EXPECT_EQ(read("bad", "a.test"), "1 bad unused 1");
    EXPECT_EQ(read("none", "a.test"), "1 none (null) 0");
    EXPECT_EQ(read("nul", "a.test"), "1 nul a 3");
    EXPECT_EQ(read("joe", "b.test"), "1 joe " + sql("SELECT userPassword FROM users WHERE dom_id=1") + " 4");
    EXPECT_EQ(read("zoe", "b.test"), "0");
    EXPECT_EQ(read("zoe", "c.test"), "0");
    EXPECT_TRUE(logged().empty());
    std::filesystem::remove(mailAuthDB);
    EXPECT_EQ(read("joe", "a.test"), "-1");
    EXPECT_THAT(logged(), ElementsAre("3: Unable to open database(readonly) " + std::string(mailAuthDB) +
                                      ": unable to open database file"));
    EXPECT_FALSE(std::filesystem::exists(mailAuthDB));
}

}  // namespace
