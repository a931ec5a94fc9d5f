// Operations on a real authentication database, each also with a failure in the middle: what was done before stays,
// what comes after is not tried, and the log tells which name failed.
#include "session/auth_mass_operations.h"

#include "auth/auth_database.h"
#include "session/session_fixture.h"

namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::IsEmpty;

class MassOperationsTest : public SessionTest {
protected:
    MassOperationsTest() { load(); }

    /// The users of the database, by domain and name.
    static std::string names() {
        return sql(
            "SELECT u.name || '@' || d.name FROM users u, domains d WHERE u.dom_id = d.id ORDER BY d.name, u.name");
    }

    /// Stores every name of "a@b" form with its own text as password.
    static void store(const std::vector<std::string>& addresses) {
        for (const std::string& address : addresses) {
            const auto at = address.find('@');
            ASSERT_EQ(mailAuthSetRaw(address.substr(0, at).c_str(), address.substr(at + 1).c_str(), address.c_str(),
                                     MAIL_AUTH_UNENCRYPTED),
                      0);
        }
    }

    /// Changes of this user fail from now on.
    static void fail(const std::string& event, const std::string& name, const std::string& domain) {
        const std::string row = event == "DELETE" ? "OLD" : "NEW";
        ASSERT_EQ(sql("CREATE TRIGGER refuse BEFORE " + event + " ON users WHEN " + row + ".name = '" + name +
                      "' AND " + row + ".dom_id = (SELECT id FROM domains WHERE name = '" + domain +
                      "') BEGIN SELECT RAISE(ABORT, 'refused'); END"),
                  "");
    }

    const std::vector<std::string> everybody = {
        "ask@example.com", "help@example.com", "info@example.com", "sales@example.com", "ask@one.net", "help@one.net",
        "info@one.net",    "sales@one.net",    "ask@two.net",      "help@two.net",      "info@two.net"};
};

TEST_F(MassOperationsTest, ADomainAliasGetsACloneOfEveryName) {
    store({"help@example.com", "info@example.com", "sales@example.com", "other@example.com"});
    EXPECT_EQ(add_domain_auth_alias("example.com", "new.net"), 1);
    EXPECT_EQ(
        sql("SELECT u.name, cmusaslsecretPLAIN FROM users u, domains d WHERE u.dom_id = d.id AND d.name = 'new.net' "
            "ORDER BY u.id"),
        "help|help@example.com info|info@example.com sales|sales@example.com");
    EXPECT_EQ(add_domain_auth_alias("other.com", "new.net"), 0);
    EXPECT_THAT(logged(), IsEmpty());

    mailAuthRemoveDomain("new.net");
    store({"seed@new.net"});
    fail("INSERT", "info", "new.net");
    EXPECT_EQ(add_domain_auth_alias("example.com", "new.net"), -1);
    EXPECT_EQ(sql("SELECT name FROM users WHERE dom_id = (SELECT id FROM domains WHERE name = 'new.net') ORDER BY id"),
              "seed help");
    EXPECT_EQ(logged().back(), "3: Unable to clone auth record for info@example.com");
    free_session_mail_db_info();
    EXPECT_EQ(add_domain_auth_alias("example.com", "new.net"), -1);
    EXPECT_EQ(logged().back(), "3: Unable to get mailnames from domain example.com");
}

TEST_F(MassOperationsTest, ADomainAliasIsRemovedWithItsUsers) {
    store({"info@one.net", "help@one.net", "info@two.net", "info@example.com"});
    EXPECT_EQ(rm_domain_auth_alias("one.net"), 0);
    EXPECT_EQ(names(), "info@example.com info@two.net");
    EXPECT_EQ(rm_domain_auth_alias("unknown.net"), 0);
    EXPECT_THAT(logged(), IsEmpty());

    // The trigger that removes a domain's users is away: the mail aliases are removed one by one, mailnames are not.
    sql("DROP TRIGGER fkd_users_domains_id; CREATE TRIGGER keep BEFORE DELETE ON domains BEGIN SELECT RAISE(IGNORE); "
        "END");
    store({"help@two.net", "ask@two.net"});
    fail("DELETE", "ask", "two.net");
    EXPECT_EQ(rm_domain_auth_alias("two.net"), -1);
    EXPECT_EQ(names(), "info@example.com ask@two.net info@two.net");
    EXPECT_EQ(logged().back(), "3: Unable to remove mail alias ask@two.net");
    sql("DROP TABLE domains");
    EXPECT_EQ(rm_domain_auth_alias("two.net"), -1);
    EXPECT_EQ(logged().back(), "3: Unable to remove domain two.net from auth database");
}

TEST_F(MassOperationsTest, AMailnameIsRemovedFromEveryDomain) {
    store(everybody);
    EXPECT_EQ(rm_mname_from_domains("info", "example.com"), 1);
    EXPECT_EQ(names(),
              "ask@example.com help@example.com sales@example.com ask@one.net help@one.net sales@one.net "
              "ask@two.net help@two.net");
    // Without aliases to walk only the name itself goes.
    EXPECT_EQ(rm_mname_from_domains("ask", "two.net"), 0);
    EXPECT_EQ(names(),
              "ask@example.com help@example.com sales@example.com ask@one.net help@one.net sales@one.net "
              "help@two.net");
    EXPECT_THAT(logged(), IsEmpty());
    fail("DELETE", "help", "one.net");
    EXPECT_EQ(rm_mname_from_domains("help", "example.com"), -1);
    EXPECT_EQ(names(), "ask@example.com sales@example.com ask@one.net help@one.net sales@one.net help@two.net");
    EXPECT_EQ(logged().back(), "3: Unable to remove mailname help@one.net");
}

TEST_F(MassOperationsTest, AMailnameIsRemovedWithItsAliases) {
    store(everybody);
    EXPECT_EQ(rm_mails_from_domains("sales", "example.com"), 0);
    EXPECT_EQ(rm_mails_from_domains("info", "example.com"), 1);
    EXPECT_EQ(names(), "");
    EXPECT_THAT(logged(), IsEmpty());

    store(everybody);
    fail("DELETE", "help", "two.net");
    EXPECT_EQ(rm_mails_from_domains("info", "example.com"), -1);
    EXPECT_EQ(names(), "ask@example.com sales@example.com ask@one.net sales@one.net ask@two.net help@two.net");
    EXPECT_THAT(logged(), Contains("3: Unable to remove mailname help@two.net"));
    EXPECT_EQ(logged().back(), "3: Unable to remove mailname from domain aliases");
    free_session_mail_db_info();
    EXPECT_EQ(rm_mname_from_domains("info", "example.com"), -1);
    EXPECT_EQ(logged().back(), "3: Unable to get domain aliases for domain example.com");
}

TEST_F(MassOperationsTest, APasswordReachesEveryName) {
    EXPECT_EQ(set_passwd_for_domains("sales", "example.com", "secret", 0), 1);
    EXPECT_EQ(names(), "sales@example.com sales@one.net sales@two.net");
    const std::string stored = sql("SELECT userPassword FROM users WHERE id = 3");
    const kavro::CString password(mailPasswdCipherOp(stored.c_str(), MAIL_CIPHER_DECRYPT, "sales", nullptr));
    EXPECT_STREQ(password.get(), "secret");
    EXPECT_EQ(set_passwd_for_domains("sales", "example.com", "", 0), 1);
    EXPECT_EQ(names(), "");
    EXPECT_EQ(set_passwd_for_domains("sales", "other.com", "hash", MAIL_AUTH_UNENCRYPTED), 0);
    EXPECT_EQ(sql("SELECT cmusaslsecretPLAIN FROM users"), "hash");
    EXPECT_EQ(set_mass_postbox_passwd("sales", "example.com", "secret", 0), 0);
    EXPECT_EQ(set_mass_postbox_passwd("info", "example.com", "secret", 0), 1);
    EXPECT_EQ(sql("SELECT count(*) FROM users WHERE userPassword IS NOT NULL"), "12");
    EXPECT_THAT(logged(), IsEmpty());
    // The cipher is not kept longer than needed: one more clean-up has nothing to clean.
    mailPasswdCipherCleanup();
    EXPECT_EQ(logged().size(), 1U);

    fail("INSERT", "help", "one.net");
    logged().clear();
    EXPECT_EQ(set_mass_postbox_passwd("info", "example.com", "hash", MAIL_AUTH_UNENCRYPTED), -1);
    EXPECT_EQ(
        sql("SELECT u.name, d.name FROM users u, domains d WHERE u.dom_id = d.id AND cmusaslsecretPLAIN = 'hash' AND "
            "d.name <> 'other.com' ORDER BY u.id"),
        "info|example.com info|one.net info|two.net help|example.com");
    EXPECT_EQ(logged().size(), 1U);
    sql("DROP TRIGGER refuse");
    fail("INSERT", "info", "example.com");
    EXPECT_EQ(set_mass_postbox_passwd("info", "example.com", "hash", MAIL_AUTH_UNENCRYPTED), -1);
    EXPECT_EQ(logged().back(), "3: Unable to set password for mailname info@example.com");
}

TEST_F(MassOperationsTest, AnActionStopsAtTheFirstDomainThatFails) {
    static std::string done;
    static std::string refused;
    const auto action = [](const char* domain) {
        done += std::string(domain) + " ";
        return domain == refused ? -1 : 0;
    };
    const struct {
        const char *domain, *refused;
        int result;
        const char *done, *log;
    } cases[] = {
        {"example.com", "", 1, "example.com one.net two.net ", ""},
        {"other.com", "", 0, "other.com ", ""},
        {"example.com", "one.net", -1, "example.com one.net ", "3: Unable to move for domain alias one.net"},
        {"example.com", "example.com", -1, "example.com ", "3: Unable to move for domain example.com"},
    };
    for (const auto& row : cases) {
        done.clear();
        refused = row.refused;
        logged().clear();
        EXPECT_EQ(domain_auth_action(row.domain, action, "move"), row.result);
        EXPECT_EQ(done, row.done);
        EXPECT_EQ(logged().empty() ? "" : logged().back(), row.log);
    }
    free_session_mail_db_info();
    refused.clear();
    EXPECT_EQ(domain_auth_action("example.com", action, "move"), -1);
    EXPECT_EQ(logged().back(), "3: Unable to get aliases for domain example.com");
}

}  // namespace
