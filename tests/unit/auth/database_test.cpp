// Writing operations on real database files, and reading ones over rows in every form that a database may hold.
#include <sys/wait.h>
#include <unistd.h>

#include "auth/auth_database.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

TEST_F(AuthDatabaseTest, StoresEncryptedOrAsItIsAndClearsTheOtherColumn) {
    EXPECT_EQ(mailAuthSet("Joe", "D.Test", "secret", 0), 0);
    EXPECT_THAT(users(), StartsWith("joe@d.test|$AES-256-CBC:PKCS$"));
    EXPECT_EQ(textOf(kavro::CString(mailPasswdCipherOp(sql("SELECT userPassword FROM users").c_str(),
                                                       MAIL_CIPHER_DECRYPT, "joe", nullptr))),
              "secret");
    EXPECT_EQ(mailAuthSet("JOE", "d.TEST", "$1$crypted", 1 | 2), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|$1$crypted|1");
    EXPECT_EQ(mailAuthSet("joe", "d.test", nullptr, 0), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|NULL|0");
    EXPECT_EQ(set_postbox_passwd("joe", "d.test", "", 1), 0);
    EXPECT_EQ(users(), "");
    std::filesystem::remove(mailAuthKey);
    EXPECT_EQ(mailAuthSet("ann", "new.test", "p", 0), -1);
    EXPECT_EQ(sql("SELECT name FROM domains"), "d.test");
}

TEST_F(AuthDatabaseTest, ADomainMadeOnTheFlyIsDisabledByFlagBit2AloneAndKeptAsItIsLater) {
    for (int flags = 0; flags < 8; ++flags) {
        const std::string domain = "d" + std::to_string(flags);
        EXPECT_EQ(mailAuthSetRaw("joe", domain.c_str(), "v", static_cast<unsigned char>(flags)), 0);
        EXPECT_EQ(mailAuthSetRaw("joe", domain.c_str(), "v", static_cast<unsigned char>(7 - flags)), 0);
    }
    EXPECT_EQ(sql("SELECT status FROM domains ORDER BY name"), "0 0 0 0 1 1 1 1");
}

TEST_F(AuthDatabaseTest, ClonesWhateverIsThereAsItIs) {
    sql("INSERT INTO domains(name, status) VALUES('src', 1), ('dst', 0)");
    sql("INSERT INTO users(dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES"
        "(1, 'enc', '$AES-256-CBC:PKCS$x', NULL, 1), (1, 'null', NULL, NULL, 0), (1, 'plain', 'ignored', 'p%s', 0)");
    for (const char* name : {"ENC", "null", "plain"}) {
        EXPECT_EQ(mailAuthClone(name, "SRC", name, "DST"), 0) << name;
    }
    EXPECT_EQ(mailAuthClone("plain", "src", "copy", "made"), 0);
    EXPECT_EQ(mailAuthClone("nobody", "src", "copy", "unmade"), 0);
    sql("DELETE FROM domains WHERE name='src'");
    EXPECT_EQ(users(),
              "enc@dst|$AES-256-CBC:PKCS$x|NULL|1 null@dst|NULL|NULL|0 plain@dst|NULL|p%s|0 copy@made|NULL|p%s|0");
    EXPECT_EQ(sql("SELECT name, status FROM domains"), "dst|0 made|1");
    EXPECT_TRUE(logged.empty());
}

TEST_F(AuthDatabaseTest, EachOperationTouchesExactlyTheNameItIsGiven) {
    for (const char* domain : {"a.test", "b.test", "xa.test"}) {
        ASSERT_EQ(mailAuthSetRaw("joe", domain, "v", 1) + mailAuthSetRaw("joel", domain, "v", 1), 0);
    }
    EXPECT_EQ(mailAuthRename("JOE", "Jim", "A.test"), 0);
    EXPECT_EQ(mailAuthRename("nobody", "jack", "a.test"), 0);
    EXPECT_EQ(mailAuthRemove("Joel", "B.test"), 0);
    EXPECT_EQ(mailAuthRemove("joe", "unknown.test"), 0);
    EXPECT_EQ(mailAuthDisableDomain("A.test"), 0);
    EXPECT_EQ(mailAuthDisableDomain("b.test"), 0);
    EXPECT_EQ(mailAuthEnableDomain("B.test"), 0);
    EXPECT_EQ(mailAuthRenameDomain("B.test", "C.Test"), 0);
    EXPECT_EQ(mailAuthRemoveDomain("XA.test"), 0);
    EXPECT_EQ(sql("SELECT name, status FROM domains ORDER BY id"), "a.test|1 c.test|0");
    EXPECT_EQ(users(), "jim@a.test|NULL|v|0 joel@a.test|NULL|v|0 joe@c.test|NULL|v|0");
    EXPECT_EQ(sql("SELECT count(*) FROM users"), "3");
    EXPECT_TRUE(logged.empty());
    EXPECT_EQ(mailAuthRename("joe", "jim", "unknown.test"), -1);
    EXPECT_EQ(mailAuthRename("jim", "joel", "a.test"), -1);
    EXPECT_THAT(logged, ElementsAre("3 No such domain 'unknown.test' in the mail authentication DB",
                                    "3 Unable to execute the mail authorization renaming query: UPDATE users SET "
                                    "name=LOWER(?) WHERE name=LOWER(?) AND dom_id=?: UNIQUE constraint failed: "
                                    "users.name, users.dom_id"));
}

TEST_F(AuthDatabaseTest, ProcessesThatMeetOverOneNewDomainAllSucceed) {
    for (int i = 0; i < 12; ++i) {
        if (::fork() == 0) {
            int result = 0;
            for (int domain = 0; domain < 40; ++domain) {
                result |= mailAuthSetRaw(std::to_string(i).c_str(), std::to_string(domain).c_str(), "v", 1);
            }
            ::_exit(result == 0 ? 0 : 1);
        }
    }
    for (int status = -1; ::wait(&status) > 0;) {
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(sql("SELECT count(*) FROM domains UNION SELECT count(*) FROM users"), "40 480");
}

/// Tells the vector in the context what it was given.
int note(const char* address, const char* password, unsigned char flags, void* calls) {
    static_cast<std::vector<std::string>*>(calls)->push_back(
        std::string(address) + " " + (password != nullptr ? password : "(null)") + " " + std::to_string(flags));
    return 7;
}

class AuthQueriesTest : public AuthDatabaseTest {
protected:
    AuthQueriesTest() {
        sql("INSERT INTO domains(name, status) VALUES('b.test', 1), ('a.test', 0)");
        EXPECT_EQ(mailAuthSet("zoe", "a.test", "zoe's", 2), 0);
        EXPECT_EQ(mailAuthSet("joe", "b.test", "joe's", 0), 0);
        sql("INSERT INTO users(dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES "
            "(2, 'joe', '', 'plain', 0), (2, 'none', NULL, NULL, 0), (2, 'bad', '$AES-256-CBC:PKCS$x', 'unused', 0), "
            "(2, 'nul', 'not encrypted', CAST(x'6100622063' AS TEXT), 5), (2, 'void', '', NULL, 0)");
    }
};

TEST_F(AuthQueriesTest, IteratesByDomainThenNameAndSkipsWhatHasNoPassword) {
    std::vector<std::string> seen;
    EXPECT_EQ(mailAuthIterateAll(note, &seen), 0);
    EXPECT_THAT(seen, ElementsAre("bad@a.test (null) 0", "joe@a.test plain 1", "nul@a.test (null) 2",
                                  "void@a.test (null) 0", "zoe@a.test zoe's 2", "joe@b.test joe's 4"));
    mailPasswdCipherCleanup();
    EXPECT_THAT(logged, ElementsAre("3 Failed to decrypt password for mail address 'bad@a.test'",
                                    "6 empty password properties (both plain and encrypted) for user none@a.test, "
                                    "skipped",
                                    "3 Failed to decrypt password for mail address 'nul@a.test'",
                                    ::testing::HasSubstr("A programming error?")));  // no context was left behind
    int left = 2;
    const auto stop = [](const char*, const char*, unsigned char, void* count) { return --*static_cast<int*>(count); };
    EXPECT_EQ(mailAuthIterateAll(stop, &left), 0);
    EXPECT_EQ(left, 0);

    sql("UPDATE domains SET name = NULL WHERE name = 'b.test'");
    EXPECT_EQ(mailAuthCheckShort("JOE", note, &seen), 0);
    EXPECT_EQ(logged.back(), "4 NULL or empty mail address stored in the database, skipped");
    EXPECT_EQ(seen.size(), 7U);
    sql("DROP TABLE users");
    EXPECT_EQ(mailAuthIterateAll(note, &seen), -1);
    EXPECT_EQ(logged.back(), "3 Unable to execute the user selection query: no such table: users");
}

TEST_F(AuthQueriesTest, FindsAMailnameInEveryDomainAndAnAddressInOne) {
    std::vector<std::string> seen;
    EXPECT_EQ(mailAuthCheckShort("joe", note, &seen), 0);
    EXPECT_EQ(seen.size(), 2U);
    EXPECT_EQ(mailAuthCheck("Joe@B.test", note, &seen), 7);
    EXPECT_EQ(seen.back(), "Joe@B.test joe's 4");
    for (const char* address : {"joe", "joe@c.test", "none@a.test"}) {
        EXPECT_EQ(mailAuthCheck(address, note, &seen), -1) << address;
    }
    EXPECT_THAT(logged, ElementsAre("3 Invalid mail address 'joe'",
                                    "6 No such user 'joe@c.test' in mail authorization database",
                                    "6 NULL password fields (both plain and encrypted) for user none@a.test, skipped"));
}

TEST_F(AuthQueriesTest, ReadsOneUserAndMakesNoDatabase) {
    mail_auth_user_data record{};
    EXPECT_EQ(get_user_data(&record, "zoe", "b.test") + get_user_data(&record, "zoe", "c.test"), 0);
    EXPECT_EQ(get_user_data(&record, "NUL", "A.TEST"), 1);
    const kavro::CString all(asprintf_safe("%s %s %d", record.name, record.value, record.flags));
    EXPECT_EQ(textOf(all), "nul a 3");
    free_user_data(&record);
    std::filesystem::remove(mailAuthDB);
    EXPECT_EQ(mailAuthClone("nul", "a.test", "new", "a.test"), -1);
    EXPECT_THAT(logged, ElementsAre("3 Unable to open database(readonly) " + std::string(mailAuthDB) +
                                        ": unable to open database file",
                                    "3 Unable to get users list from MTA password database"));
    EXPECT_FALSE(std::filesystem::exists(mailAuthDB));
}

}  // namespace
