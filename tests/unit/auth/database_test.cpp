// Writing operations on real database files.
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "auth/auth_database.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

namespace {

TEST_F(AuthDatabaseTest, StoresEncryptedOrAsItIsAndClearsTheOtherColumn) {
    EXPECT_EQ(mailAuthSet("Joe", "D.Test", "secret", 0), 0);
    EXPECT_EQ(users().find("joe@d.test|$AES-256-CBC:PKCS$"), 0U);
    EXPECT_THAT(users(), EndsWith("|NULL|0|0"));
    EXPECT_EQ(decrypted(sql("SELECT userPassword FROM users")), "secret");
    EXPECT_EQ(mailAuthSet("JOE", "d.TEST", "$1$crypted", 1 | 2), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|$1$crypted|1|0");
    EXPECT_EQ(mailAuthSet("joe", "d.test", nullptr, 0), 0);
    EXPECT_EQ(users(), "joe@d.test|NULL|NULL|0|0");
    EXPECT_EQ(mailAuthSet("joe", "d.test", "", 0), 0);
    EXPECT_THAT(users(), StartsWith("joe@d.test|$AES"));

    EXPECT_EQ(set_postbox_passwd("joe", "d.test", "p", 1), 0);
    EXPECT_EQ(set_postbox_passwd("ann", "d.test", "p", 0), 0);
    EXPECT_EQ(set_postbox_passwd("JOE", "d.test", "", 1), 0);
    EXPECT_THAT(users(), StartsWith("ann@d.test|$AES"));
    EXPECT_EQ(set_postbox_passwd("ann", "d.test", nullptr, 0), 0);
    EXPECT_EQ(users(), "");
    EXPECT_TRUE(logged().empty());

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
    sql("INSERT INTO users(dom_id, name, userPassword, cmusaslsecretPLAIN, status) VALUES(1, 'enc', "
        "'$AES-256-CBC:PKCS$x', "
        "NULL, 1), (1, 'null', NULL, NULL, 0), (1, 'plain', 'ignored', 'p%s', 0), (1, 'odd', '$9$other', NULL, 0)");
    for (const char* name : {"ENC", "null", "plain", "odd"}) {
        EXPECT_EQ(mailAuthClone(name, "SRC", name, "DST"), 0) << name;
    }
    EXPECT_EQ(mailAuthClone("plain", "src", "copy", "made"), 0);
    EXPECT_EQ(mailAuthClone("nobody", "src", "copy", "unmade"), 0);
    EXPECT_EQ(mailAuthClone("plain", "nowhere", "copy", "unmade"), 0);
    EXPECT_EQ(sql("DELETE FROM domains WHERE name='src'"), "");
    EXPECT_EQ(users(),
              "enc@dst|$AES-256-CBC:PKCS$x|NULL|1|0 null@dst|NULL|NULL|0|0 odd@dst|$9$other|NULL|0|0 "
              "plain@dst|NULL|p%s|0|0 copy@made|NULL|p%s|0|1");
    EXPECT_EQ(sql("SELECT name FROM domains"), "dst made");
    EXPECT_TRUE(logged().empty());
}

TEST_F(AuthDatabaseTest, RenamesAndRemovesExactlyOneName) {
    for (const char* domain : {"a.test", "b.test"}) {
        for (const char* name : {"joe", "joel"}) {
            ASSERT_EQ(mailAuthSetRaw(name, domain, "v", 1), 0);
        }
    }
    EXPECT_EQ(mailAuthRename("JOE", "Jim", "A.test"), 0);
    EXPECT_EQ(mailAuthRename("nobody", "jack", "a.test"), 0);
    EXPECT_EQ(mailAuthRemove("Joel", "B.test"), 0);
    EXPECT_EQ(mailAuthRemove("jim", "unknown.test"), 0);
    EXPECT_EQ(mailAuthRemove("jim", "b.test"), 0);
    EXPECT_EQ(users(), "jim@a.test|NULL|v|0|0 joel@a.test|NULL|v|0|0 joe@b.test|NULL|v|0|0");
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(mailAuthRename("joe", "jim", "unknown.test"), -1);
    EXPECT_EQ(mailAuthRename("jim", "joel", "a.test"), -1);
    EXPECT_THAT(logged(), ElementsAre("3: No such domain 'unknown.test' in the mail authentication DB",
                                      "3: Unable to execute the mail authorization renaming query: UPDATE users SET "
                                      "name=LOWER(?) WHERE name=LOWER(?) AND dom_id=?: UNIQUE constraint failed: "
                                      "users.name, users.dom_id"));
    EXPECT_EQ(sql("SELECT count(*) FROM domains"), "2");
}

TEST_F(AuthDatabaseTest, DomainOperationsTouchThatDomainOnly) {
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
    EXPECT_EQ(sql("SELECT d.name FROM users u LEFT JOIN domains d ON u.dom_id = d.id ORDER BY d.name"),
              "a.test c.test");
    EXPECT_EQ(mailAuthRenameDomain("c.test", "a.test"), -1);
    EXPECT_TRUE(logged().size() == 1);
}

TEST_F(AuthTest, EveryOperationReportsADatabaseWithoutTables) {
    std::ofstream(mailAuthDB).close();
    const std::string noDomains = ": no such table: domains";
    const std::string change = "name=LOWER(?)";
    EXPECT_EQ(mailAuthSetRaw("joe", "d.test", "v", 0), -1);
    EXPECT_EQ(mailAuthRemove("joe", "d.test"), -1);
    EXPECT_EQ(mailAuthClone("joe", "d.test", "ann", "d.test"), -1);
    EXPECT_EQ(mailAuthRenameDomain("d.test", "e.test"), -1);
    EXPECT_EQ(mailAuthRemoveDomain("d.test"), -1);
    EXPECT_EQ(mailAuthEnableDomain("d.test"), -1);
    EXPECT_THAT(
        logged(),
        ElementsAre(
            "3: Unable to execute the domain selection query" + noDomains,
            "3: No such domain 'd.test' in the mail authentication DB",
            "3: Unable to execute the domain selection query" + noDomains, "3: Unable to get domain id" + noDomains,
            "3: Unable to get mail domain id for: d.test", "3: Unable to get users list from MTA password database",
            "3: Unable to execute the mail domain authorization name change query: UPDATE domains SET name=LOWER(?) "
            "WHERE " +
                change + noDomains,
            "3: Unable to execute the domain mail authorization removal query: DELETE FROM domains WHERE " + change +
                noDomains,
            "3: Unable to execute the mail domain authorization status change query: UPDATE domains SET status=? "
            "WHERE " +
                change + noDomains));
    logged().clear();
    useFiles(directory, directory + "/key");
    EXPECT_EQ(mailAuthRemove("joe", "d.test"), -1);
    EXPECT_THAT(logged(), ElementsAre("3: Unable to open database " + directory + ": unable to open database file"));
}

TEST_F(AuthDatabaseTest, ProcessesThatMeetOverOneNewDomainAllSucceed) {
    std::array<int, 2> gate{};
    ASSERT_EQ(::pipe(gate.data()), 0);
    constexpr int kProcesses = 12;
    for (int i = 0; i < kProcesses; ++i) {
        if (::fork() == 0) {
            char byte = 0;
            ::close(gate[1]);
            static_cast<void>(::read(gate[0], &byte, 1) == 0);  // until the parent closes it: all start at once
            int result = 0;
            for (int domain = 0; domain < 5; ++domain) {
                result |=
                    mailAuthSet(("u" + std::to_string(i)).c_str(), ("d" + std::to_string(domain)).c_str(), "p", 0);
            }
            ::_exit(result == 0 ? 0 : 1);
        }
    }
    ::close(gate[1]);
    ::close(gate[0]);
    for (int i = 0; i < kProcesses; ++i) {
        int status = -1;
        ASSERT_GT(::wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(sql("SELECT count(*) FROM domains"), "5");
    EXPECT_EQ(sql("SELECT count(*) FROM users"), "60");
    EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
}

}  // namespace
