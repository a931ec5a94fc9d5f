// Domain and mailname records on real tables and a real mail tree.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "postfix/domain_manager.h"
#include "postfix/mailname_manager.h"
#include "tables_fixture.h"

namespace kavro::mail::postfix {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

const fs::path kMailRoot = "/var/qmail/mailnames";

class ManagersTest : public TablesTest {
protected:
    void SetUp() override {
        TablesTest::SetUp();
        fs::remove_all(kMailRoot);
        fs::create_directories(kMailRoot);
        loadSession(R"({"domain":{"name":"d.test","mbox_quota":-1,"dom_aliases":["a1.test","a2.test"],
            "maillists":["list"],"mails":[{"name":"info","aliases":["sales","help"]},{"name":"bob","aliases":[]}]}})");
    }

    static Table standardAddresses(const std::string& domain) {
        Table records;
        for (const char* name : {"postmaster", "mailer-daemon", "root", "anonymous", "drweb", "kluser"}) {
            records[addressOf(name, domain)] = addressOf(name, "localhost.localdomain");
        }
        return records;
    }

    static Table joined(std::initializer_list<Table> tables) {
        Table all;
        for (const Table& table : tables) {
            all.insert(table.begin(), table.end());
        }
        return all;
    }

    static std::string hostName() {
        char name[256] = {};
        ::gethostname(name, sizeof name - 1);
        return std::string(name) + ".mail.test";
    }
};

TEST_F(ManagersTest, DomainLifeTouchesOnlyItsOwnRecords) {
    const Table foreign{{"xd.test", "1"}, {"i@xd.test", "i@xd.test"}, {"i@s.d.test", "p@e,q@e"}, {"i@e", "x@d.test.e"}};
    const Table foreignAfterwards{
        {"xd.test", "1"}, {"i@xd.test", "i@xd.test"}, {"i@s.d.test", "p@e, q@e"}, {"i@e", "x@d.test.e"}};
    fill(kVirtualTable, joined({foreign, {{"d.test", "1"}, {"old@d.test", "x@e"}, {"gone@e", "x@d.test"}}}));
    DomainManager::createDomain("d.test", false);
    EXPECT_EQ(dump(kVirtualDomainsTable), (Table{{"d.test", "d.test/"}}));
    EXPECT_EQ(dump(kVirtualTable), joined({foreignAfterwards, standardAddresses("d.test")}));
    EXPECT_TRUE(fs::is_directory(kMailRoot / "d.test"));

    DomainManager::disableDomain("d.test");
    EXPECT_EQ(dump(kVirtualDomainsTable), Table());
    EXPECT_EQ(dump(kVirtualTable), foreignAfterwards);
    for (const char* mailname : {"info", "bob"}) {
        MaildirManager::getInstance().createMailnameHome("d.test", mailname);
    }
    DomainManager::createDomain("d.test", 1000, true);
    EXPECT_TRUE(fs::exists(kMailRoot / "d.test/bob/Maildir/maildirsize"));
    EXPECT_EQ(dump(kVirtualDomainsTable), Table());
    EXPECT_EQ(dump(kVirtualTable), joined({foreignAfterwards, standardAddresses("d.test")}));
    DomainManager::enableDomain("d.test");
    EXPECT_EQ(dump(kVirtualDomainsTable), (Table{{"d.test", "d.test/"}}));

    fill(kVmailboxTable, {{"i@d.test", "d.test/i/Maildir/"}, {"i@xd.test", "xd.test/i/Maildir/"}});
    ASSERT_EQ(::mount("tmpfs", (kMailRoot / "d.test").c_str(), "tmpfs", 0, ""), 0);
    EXPECT_THROW(DomainManager::removeDomain("d.test", OnRemoval::Backup), boost::filesystem::filesystem_error);
    EXPECT_EQ(dump(kVirtualDomainsTable), Table());
    DomainManager::removeDomain("d.test", OnRemoval::Remove);
    EXPECT_EQ(::umount((kMailRoot / "d.test").c_str()), 0);
    EXPECT_TRUE(fs::exists(kMailRoot / "d.test"));
    EXPECT_EQ(dump(kVirtualTable), foreignAfterwards);
    EXPECT_EQ(dump(kVmailboxTable), (Table{{"i@xd.test", "xd.test/i/Maildir/"}}));
    DomainManager::removeDomain("d.test", OnRemoval::Backup);
    EXPECT_FALSE(fs::exists(kMailRoot / "d.test"));
    EXPECT_FALSE(fs::is_empty(kMailRoot));
    DomainManager::removeDomainReferences("test", true);
    EXPECT_EQ(dump(kVirtualTable), (Table{{"i@e", "x@d.test.e"}}));
}

TEST_F(ManagersTest, CatchAllsAndBouncesReachTheAliases) {
    DomainManager::createCatchall("d.test", "c@e");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"@d.test", "c@e"}, {"@a1.test", "c@e"}, {"@a2.test", "c@e"}}));
    DomainManager::removeCatchall("d.test");
    EXPECT_EQ(dump(kVirtualTable), Table());
    DomainManager::setBounce("d.test", "");
    Table bounces;
    Table commands;
    for (const std::string domain : {"d.test", "a1.test", "a2.test"}) {
        bounces["@" + domain] = "_kavro_bounce_" + domain + "@localhost.localdomain";
        commands["_kavro_bounce_" + domain] = "\"|/usr/lib/kavro-9.0/bouncemessage\"";
    }
    EXPECT_EQ(dump(kVirtualTable), bounces);
    EXPECT_EQ(dump(kAliasesTable), commands);
}

TEST_F(ManagersTest, ListAliasesReportTheirOwnFailures) {
    usePostmap("echo 'postmap: fatal: no' >&2; exit 1");
    CaptureStderr();
    EXPECT_EQ(createListAliasForDomainAlias("d.test", "a1.test", "list"), 1);
    EXPECT_EQ(removeListAliasForDomainAlias("a1.test", "list"), 1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("PostfixDatabaseError"));
}

TEST_F(ManagersTest, MailnamesUnderEveryDomainAlias) {
    MailnameManager::createMailname("d.test", "info");
    MailnameManager::createMailAlias("d.test", "info", "sales");
    Table addresses;
    for (const std::string domain : {"d.test", "a1.test", "a2.test"}) {
        addresses["info@" + domain] = addresses["sales@" + domain] = "info@d.test";
    }
    EXPECT_EQ(dump(kVmailboxTable), (Table{{"info@d.test", "d.test/info/Maildir/"}}));
    EXPECT_EQ(dump(kVirtualTable), addresses);
    const fs::path home = kMailRoot / "d.test/info";
    MailnameManager::addForward("d.test", "info", "x@e.test");
    EXPECT_EQ(outputOf("cat " + (home / ".qmail").string()), "| true\n&x@e.test\n");
    MailnameManager::removeForward("d.test", "info", "x@e.test");
    EXPECT_EQ(outputOf("cat " + (home / ".qmail").string()), "| true\n");

    MailnameManager::renameMailnameOnDomainAlias("a1.test", "sales", "shop");
    addresses.erase("sales@a1.test");
    addresses["shop@a1.test"] = "info@d.test";
    EXPECT_EQ(dump(kVirtualTable), addresses);
    MailnameManager::removeMailAlias("d.test", "info", "sales");
    MailnameManager::removeMailname("d.test", "info", OnRemoval::Keep);
    EXPECT_TRUE(fs::exists(home));
    EXPECT_EQ(dump(kVmailboxTable), Table());
    EXPECT_EQ(dump(kVirtualTable), (Table{{"shop@a1.test", "info@d.test"}}));
    MailnameManager::removeMailname("d.test", "info", OnRemoval::Backup);
    EXPECT_TRUE(!fs::exists(home) && !fs::is_empty(kMailRoot / "d.test"));
}

TEST_F(ManagersTest, TheHostsOwnRecordsGiveWayAndComeBack) {
    const std::string host = hostName();
    std::string upper = host;
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(c));
    }
    const Table ofHost = joined({standardAddresses(host), {{host, "1"}}});
    fill(kVirtualTable,
         joined({ofHost, {{"alias.test", "1"}, {"i@alias.test", "i@d.test"}, {"i@s.alias.test", "x@y"}}}));
    DomainManager::renameDomainAlias("alias.test", upper);
    EXPECT_EQ(dump(kVirtualTable), (Table{{host, "1"}, {"i@" + host, "i@d.test"}, {"i@s.alias.test", "x@y"}}));
    DomainManager::renameDomainAlias(host, "alias.test");
    EXPECT_EQ(dump(kVirtualTable),
              joined({ofHost, {{"alias.test", "1"}, {"i@alias.test", "i@d.test"}, {"i@s.alias.test", "x@y"}}}));
}

}  // namespace
}  // namespace kavro::mail::postfix
