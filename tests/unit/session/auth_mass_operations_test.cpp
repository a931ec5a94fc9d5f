// Operations on a real authentication database that fail in the middle: what was done before stays, what comes after is
// not tried, and the log tells which name failed.
#include "session/auth_mass_operations.h"

#include "auth/auth_database.h"
#include "session/session_fixture.h"

namespace {

class MassOperationsTest : public SessionTest {
protected:
    /// Users in the order in which they were stored.
    static std::string users(const std::string& where = "1") {
        return sql("SELECT u.name || '@' || d.name FROM users u, domains d WHERE u.dom_id = d.id AND " + where +
                   " ORDER BY u.id");
    }

    /// Stores users with their mailname as password.
    static void store(std::initializer_list<const char*> domains, std::initializer_list<const char*> mailnames) {
        for (const char* domain : domains) {
            for (const char* mailname : mailnames) {
                EXPECT_EQ(mailAuthSetRaw(mailname, domain, mailname, MAIL_AUTH_UNENCRYPTED), 0);
            }
        }
    }

    /// From now on a change of this user fails.
    static void refuse(const std::string& event, const std::string& name, const std::string& domain) {
        const std::string row = event == "DELETE" ? "OLD" : "NEW";
        EXPECT_EQ(sql("DROP TRIGGER IF EXISTS refuse; CREATE TRIGGER refuse BEFORE " + event + " ON users WHEN " + row +
                      ".name = '" + name + "' AND " + row + ".dom_id = (SELECT id FROM domains WHERE name = '" +
                      domain + "') BEGIN SELECT RAISE(ABORT, 'refused'); END"),
                  "");
    }
};

TEST_F(MassOperationsTest, AFailureInTheMiddleKeepsWhatWasDoneAndEndsTheRest) {
    store({"example.com", "two.net"}, {"help", "info", "other"});
    refuse("INSERT", "info", "new.net");
    EXPECT_EQ(add_domain_auth_alias("example.com", "new.net"), -1);
    EXPECT_EQ(users("d.name = 'new.net' AND cmusaslsecretPLAIN = u.name"), "help@new.net");
    EXPECT_EQ(logged.back(), "3 Unable to clone auth record for info@example.com");
    EXPECT_EQ(add_domain_auth_alias("other.com", "new.net"), 0);

    // Were the users to outlive their domain, the mail aliases are removed one by one.
    sql("CREATE TRIGGER keep BEFORE DELETE ON domains BEGIN SELECT RAISE(IGNORE); END;"
        "DROP TRIGGER fkd_users_domains_id");
    store({"two.net"}, {"ask"});
    refuse("DELETE", "ask", "two.net");
    EXPECT_EQ(rm_domain_auth_alias("two.net"), -1);
    EXPECT_EQ(users("d.name = 'two.net'"), "info@two.net other@two.net ask@two.net");
    EXPECT_EQ(logged.back(), "3 Unable to remove mail alias ask@two.net");

    refuse("INSERT", "help", "one.net");
    logged.clear();
    EXPECT_EQ(set_mass_postbox_passwd("info", "example.com", "new", 0), -1);
    EXPECT_EQ(users("userPassword IS NOT NULL"), "info@example.com info@one.net info@two.net help@example.com");
    // The cipher is kept no longer than needed: one more clean-up finds nothing.
    EXPECT_EQ(logged.size(), 1U);
    mailPasswdCipherCleanup();
    EXPECT_EQ(logged.size(), 2U);
}

TEST_F(MassOperationsTest, AnActionStopsAtTheFirstDomainThatFails) {
    const auto act = [](const char* domain, const char* refused) {
        static std::string done;
        static std::string last;
        done.clear();
        last = refused;
        const int result = domain_auth_action(
            domain, [](const char* name) { return (done += std::string(name) + " ", name == last) ? -1 : 0; }, "move");
        return done + std::to_string(result);
    };
    EXPECT_EQ(act("other.com", ""), "other.com 0");
    EXPECT_EQ(act("example.com", ""), "example.com one.net two.net 1");
    EXPECT_EQ(act("example.com", "one.net"), "example.com one.net -1");
    EXPECT_EQ(act("example.com", "example.com"), "example.com -1");
    EXPECT_THAT(logged, ::testing::ElementsAre("3 Unable to move for domain alias one.net",
                                               "3 Unable to move for domain example.com"));
}

}  // namespace
