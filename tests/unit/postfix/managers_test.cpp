// What no command asks of the managers, on real tables and a real mail tree, and storage that cannot be moved.
#include <gmock/gmock.h>
#include <sys/mount.h>

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
};

TEST_F(ManagersTest, StorageThatCannotBeMovedKeepsTheRecords) {
    fill(kVirtualTable, {{"i@s.d.test", "x@e"}, {"i@d.test", "x@e"}, {"i@e", "x@d.test.e"}});
    DomainManager::createDomain("d.test", true);
    EXPECT_EQ(dump(kVirtualDomainsTable), Table());
    const Table standing = dump(kVirtualTable);
    EXPECT_EQ(standing.size(), 8U);
    ASSERT_EQ(::mount("tmpfs", (kMailRoot / "d.test").c_str(), "tmpfs", 0, ""), 0);
    EXPECT_THROW(DomainManager::removeDomain("d.test", OnRemoval::Backup), boost::filesystem::filesystem_error);
    EXPECT_EQ(dump(kVirtualTable), standing);
    DomainManager::removeDomain("d.test", OnRemoval::Remove);
    EXPECT_EQ(::umount((kMailRoot / "d.test").c_str()), 0);
    EXPECT_EQ(dump(kVirtualTable), (Table{{"i@s.d.test", "x@e"}, {"i@e", "x@d.test.e"}}));
    DomainManager::removeDomain("d.test", OnRemoval::Backup);
    EXPECT_TRUE(!fs::exists(kMailRoot / "d.test") && !fs::is_empty(kMailRoot));
    DomainManager::removeDomainReferences("test", true);
    EXPECT_EQ(dump(kVirtualTable), (Table{{"i@e", "x@d.test.e"}}));
}

TEST_F(ManagersTest, CatchAllsReachTheAliases) {
    DomainManager::createCatchall("d.test", "c@e");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"@d.test", "c@e"}, {"@a1.test", "c@e"}, {"@a2.test", "c@e"}}));
    DomainManager::removeCatchall("d.test");
    EXPECT_EQ(dump(kVirtualTable), Table());
    DomainManager::setBounce("d.test", "");
    EXPECT_EQ(dump(kAliasesTable).size(), 3U);
}

TEST_F(ManagersTest, ListAliasesReportTheirOwnFailures) {
    usePostmap("echo 'postmap: fatal: no' >&2; exit 1");
    CaptureStderr();
    EXPECT_EQ(createListAliasForDomainAlias("d.test", "a1.test", "list"), 1);
    EXPECT_EQ(removeListAliasForDomainAlias("a1.test", "list"), 1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("PostfixDatabaseError"));
}

TEST_F(ManagersTest, ForwardsAndNamesOfOneDomainAlias) {
    MailnameManager::createMailname("d.test", "info");
    const fs::path home = kMailRoot / "d.test/info";
    MailnameManager::addForward("d.test", "info", "x@e.test");
    EXPECT_EQ(outputOf("cat " + (home / ".qmail").string()), "| true\n&x@e.test\n");
    MailnameManager::removeForward("d.test", "info", "x@e.test");
    EXPECT_EQ(outputOf("cat " + (home / ".qmail").string()), "| true\n");

    MailnameManager::renameMailnameOnDomainAlias("a1.test", "info", "shop");
    EXPECT_EQ(
        dump(kVirtualTable),
        (Table{{"info@d.test", "info@d.test"}, {"shop@a1.test", "info@d.test"}, {"info@a2.test", "info@d.test"}}));
    MailnameManager::removeMailname("d.test", "info", OnRemoval::Keep);
    EXPECT_TRUE(fs::exists(home));
    EXPECT_EQ(dump(kVmailboxTable), Table());
    MailnameManager::removeMailname("d.test", "info", OnRemoval::Backup);
    EXPECT_TRUE(!fs::exists(home) && !fs::is_empty(kMailRoot / "d.test"));
}

}  // namespace
}  // namespace kavro::mail::postfix
