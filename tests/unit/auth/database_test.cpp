// Writing operations on real database files.
#include <sys/wait.h>
#include <unistd.h>

#include "auth/auth_database.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

class AuthWritesTest : public AuthDatabaseTest {
protected:
    static std::string users() {
        return sql(
            "SELECT u.name || '@' || d.name, userPassword, cmusaslsecretPLAIN, u.status FROM users u, domains d "
            "WHERE u.dom_id = d.id ORDER BY d.name, u.name");
    }
};

TEST_F(AuthWritesTest, StoresEncryptedOrAsItIsAndClearsTheOtherColumn) {
    EXPECT_EQ(mailAuthSet("Joe", "D.Test", "secret", 0), 0);
    EXPECT_THAT(users(), StartsWith("joe@d.test|$AES-256-CBC:PKCS$"));
    EXPECT_THAT(users(), EndsWith("|NULL|0"));
    EXPECT_EQ(textOf(kavro::CString(mailPasswdCipherOp(sql("SELECT userPassword FROM users").c_str(),
                                                       MAIL_CIPHER_DECRYPT, "joe", nullptr))),
              "secret");
    EXPECT_EQ(mailAuthSet("JOE", "d.TEST", "$1$crypted", 1 | 2), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|$1$crypted|1");
    EXPECT_EQ(mailAuthSet("joe", "d.test", nullptr, 0), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|NULL|0");
    EXPECT_EQ(mailAuthSet("joe", "d.test", "", 0), 0);
    EXPECT_THAT(users(), StartsWith("joe@d.test|$AES"));

    EXPECT_EQ(set_postbox_passwd("ann", "d.test", "p", 1), 0);
    EXPECT_EQ(set_postbox_passwd("JOE", "d.test", "", 1), 0);
    EXPECT_EQ(users(), "ann@d.test|NULL|p|0");
    EXPECT_EQ(set_postbox_passwd("ann", "d.test", nullptr, 0), 0);
    EXPECT_EQ(users(), "");
    EXPECT_TRUE(logged().empty());

    std::filesystem::remove(mailAuthKey);
    EXPECT_EQ(mailAuthSet("ann", "new.test", "p", 0), -1);
    EXPECT_EQ(sql("SELECT name FROM domains"), "d.test");
}

TEST_F(AuthWritesTest, ADomainMadeOnTheFlyIsDisabledByFlagBit2AloneAndKeptAsItIsLater) {
    for (int flags = 0; flags < 8; ++flags) {
        const std::string domain = "d" + std::to_string(flags);
        EXPECT_EQ(mailAuthSetRaw("joe", domain.c_str(), "v", static_cast<unsigned char>(flags)), 0);
        EXPECT_EQ(mailAuthSetRaw("joe", domain.c_str(), "v", static_cast<unsigned char>(7 - flags)), 0);
    }
    EXPECT_EQ(sql("SELECT status FROM domains ORDER BY name"), "0 0 0 0 1 1 1 1");
}

TEST_F(AuthWritesTest, ClonesWhateverIsThereAsItIs) {
    sql("INSERT INTO domains(name, status) VALUES('src', 1), ('dst', 0)");
    sql("INSERT INTO users(dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES"
        "(1, 'enc', '$AES-256-CBC:PKCS$x', NULL, 1), (1, 'null', NULL, NULL, 0), (1, 'plain', 'ignored', 'p%s', 0)");
    for (const char* name : {"ENC", "null", "plain"}) {
        EXPECT_EQ(mailAuthClone(name, "SRC", name, "DST"), 0) << name;
    }
    EXPECT_EQ(mailAuthClone("plain", "src", "copy", "made"), 0);
    EXPECT_EQ(mailAuthClone("nobody", "src", "copy", "unmade"), 0);
    EXPECT_EQ(mailAuthClone("plain", "nowhere", "copy", "unmade"), 0);
    sql("DELETE FROM domains WHERE name='src'");
    EXPECT_EQ(users(),
              "enc@dst|$AES-256-CBC:PKCS$x|NULL|1 null@dst|NULL|NULL|0 plain@dst|NULL|p%s|0 copy@made|NULL|p%s|0");
    EXPECT_EQ(sql("SELECT name, status FROM domains"), "dst|0 made|1");
    EXPECT_TRUE(logged().empty());
}

TEST_F(AuthWritesTest, RenamesAndRemovesExactlyOneName) {
    for (const char* domain : {"a.test", "b.test"}) {
        ASSERT_EQ(mailAuthSetRaw("joe", domain, "v", 1) + mailAuthSetRaw("joel", domain, "v", 1), 0);
    }
    EXPECT_EQ(mailAuthRename("JOE", "Jim", "A.test"), 0);
    EXPECT_EQ(mailAuthRename("nobody", "jack", "a.test"), 0);
    EXPECT_EQ(mailAuthRemove("Joel", "B.test"), 0);
    EXPECT_EQ(mailAuthRemove("jim", "unknown.test"), 0);
    EXPECT_EQ(mailAuthRemove("jim", "b.test"), 0);
    EXPECT_EQ(users(), "jim@a.test|NULL|v|0 joel@a.test|NULL|v|0 joe@b.test|NULL|v|0");
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(mailAuthRename("joe", "jim", "unknown.test"), -1);
    EXPECT_EQ(mailAuthRename("jim", "joel", "a.test"), -1);
    EXPECT_THAT(logged(), ElementsAre("3: No such domain 'unknown.test' in the mail authentication DB",
                                      "3: Unable to execute the mail authorization renaming query: UPDATE users SET "
                                      "name=LOWER(?) WHERE name=LOWER(?) AND dom_id=?: UNIQUE constraint failed: "
                                      "users.name, users.dom_id"));
    EXPECT_EQ(sql("SELECT count(*) FROM domains"), "2");
}

TEST_F(AuthWritesTest, DomainOperationsTouchThatDomainOnly) {
    for (const char* domain : {"a.test", "xa.test", "b.test"}) {
        ASSERT_EQ(mailAuthSetRaw("joe", domain, "v", 1), 0);
    }
    EXPECT_EQ(mailAuthDisableDomain("A.test"), 0);
    EXPECT_EQ(mailAuthDisableDomain("b.test"), 0);
    EXPECT_EQ(mailAuthEnableDomain("B.test"), 0);
    EXPECT_EQ(mailAuthDisableDomain("unknown.test"), 0);
    EXPECT_EQ(mailAuthRenameDomain("B.test", "C.Test"), 0);
    EXPECT_EQ(mailAuthRemoveDomain("XA.test"), 0);
    EXPECT_EQ(mailAuthRemoveDomain("unknown.test"), 0);
    EXPECT_EQ(sql("SELECT name, status FROM domains ORDER BY id"), "a.test|1 c.test|0");
    EXPECT_EQ(users(), "joe@a.test|NULL|v|0 joe@c.test|NULL|v|0");
    EXPECT_EQ(sql("SELECT count(*) FROM users"), "2");
}

TEST_F(AuthTest, ReportsADatabaseWithoutTablesOrNoFile) {
    const std::string none = ": no such table: domains";
    EXPECT_EQ(mailAuthSetRaw("joe", "d.test", "v", 0), -1);  // makes an empty file
    EXPECT_EQ(mailAuthRemove("joe", "d.test"), -1);
    EXPECT_EQ(mailAuthClone("joe", "d.test", "ann", "d.test"), -1);
    EXPECT_EQ(mailAuthEnableDomain("d.test"), -1);
    useFiles(directory, directory);
    EXPECT_EQ(mailAuthRemoveDomain("d.test"), -1);
    const std::string selection = "3: Unable to execute the domain selection query" + none;
    EXPECT_THAT(logged(),
                ElementsAre(selection, "3: No such domain 'd.test' in the mail authentication DB", selection,
                            "3: Unable to get domain id" + none, "3: Unable to get mail domain id for: d.test",
                            "3: Unable to get users list from MTA password database",
                            "3: Unable to execute the mail domain authorization status change query: UPDATE domains "
                            "SET status=? WHERE name=LOWER(?)" +
                                none,
                            "3: Unable to open database " + directory + ": unable to open database file"));
}

TEST_F(AuthWritesTest, ProcessesThatMeetOverOneNewDomainAllSucceed) {
    constexpr int kProcesses = 12;
    for (int i = 0; i < kProcesses; ++i) {
        if (::fork() == 0) {
            int result = 0;
            for (int domain = 0; domain < 40; ++domain) {
                result |= mailAuthSetRaw(std::to_string(i).c_str(), std::to_string(domain).c_str(), "v", 1);
            }
            ::_exit(result == 0 ? 0 : 1);
        }
    }
    for (int i = 0; i < kProcesses; ++i) {
        int status = -1;
        ASSERT_GT(::wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(sql("SELECT count(*) FROM domains UNION SELECT count(*) FROM users"), "40 480");
    EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
}

}  // namespace
