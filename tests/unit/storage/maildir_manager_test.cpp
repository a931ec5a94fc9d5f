// The mail tree: what is made with which owner and mode, and what renames, backups and removals refuse.
#include "process/system_error.h"
#include "storage/mail_tree.h"
#include "storage/mailbox_quota.h"
#include "storage_fixture.h"

namespace fs = std::filesystem;
using boost::filesystem::filesystem_error;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAreArray;

class MaildirManagerTest : public StorageTest {
protected:
    static std::string savedName(const fs::path& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return path.string() + ".KavroSaved." + std::to_string(status.st_ino);
    }
};

TEST_F(MaildirManagerTest, PutsOwnersAndModesRightAgain) {
    const std::vector<std::string> expected = describeTree(root / "example.com");
    run("chown -R 0:0 " + root.string() + "; chmod -R 2755 " + root.string());
    fs::remove(home / "@attachments");
    manager.createDomainRoot("Example.COM");
    manager.createMailnameHome("Example.COM", "Info");
    EXPECT_THAT(describeTree(root / "example.com"), UnorderedElementsAreArray(expected));
    EXPECT_EQ(::umask(022), 022U);
    manager.createMailnameHome("bare.test", "x");
    EXPECT_EQ(describe(root / "bare.test"), "42700 root");  // the set-group-ID bit is inherited
}

TEST_F(MaildirManagerTest, NeverGivesAwayWhatAPlantedLinkPointsAt) {
    const fs::path victim = root / "victim";
    fs::create_directory(victim);
    const std::string before = describe(victim);
    const auto create = [&] { manager.createMailnameHome("example.com", "info"); };

    fs::remove(maildir / "new");
    fs::create_directory_symlink(victim, maildir / "new");
    EXPECT_THAT(textOf<kavro::mail::FSError>(create),
                AllOf(StartsWith("chown: "), HasSubstr("\"" + (maildir / "new").string() + "\"")));
    fs::remove_all(home);
    fs::create_directory_symlink(victim, home);
    EXPECT_THAT(textOf<kavro::mail::FSError>(create), StartsWith("chown: "));
    // A link in the domain root's place leads somewhere when root made it only.
    fs::create_directory_symlink(victim, root / "linked.test");
    manager.createMailnameHome("linked.test", "kept");
    run("chown -h popuser " + (root / "linked.test").string());
    EXPECT_THROW(manager.createMailnameHome("linked.test", "info"), kavro::mail::FSError);
    EXPECT_THROW(manager.createDomainRoot("linked.test"), kavro::mail::FSError);
    EXPECT_THROW(manager.renameMailnameHome("linked.test", "kept", "info"), filesystem_error);
    EXPECT_THROW(manager.backupMailnameHome("linked.test", "kept"), kavro::mail::FSError);
    EXPECT_THROW(manager.removeMailnameHome("linked.test", "kept"), filesystem_error);
    EXPECT_TRUE(fs::exists(victim / "kept/Maildir"));
    EXPECT_EQ(std::distance(fs::directory_iterator(victim), {}), 1);
    EXPECT_EQ(describe(victim), before);
}

TEST_F(MaildirManagerTest, LeavesTheTreeThroughNoName) {
    EXPECT_EQ(manager.getMailnameRelativeMaildir("Example.COM", "Info"), "example.com/info/Maildir");
    for (const std::string& bad : std::vector<std::string>{"", ".", "..", "/etc", "a/b", {"a\0b", 3}}) {
        EXPECT_THROW(manager.getDomainRoot(bad), std::runtime_error) << bad;
        EXPECT_THROW(manager.removeMailnameHome("example.com", bad), std::runtime_error) << bad;
    }
    EXPECT_TRUE(fs::exists(home));
}

TEST_F(MaildirManagerTest, MovesBackupsAsideUnderTheirInodeNumber) {
    const std::string saved = savedName(home);
    manager.backupMailnameHome("example.com", "info");
    manager.backupMailnameHome("example.com", "info");
    EXPECT_TRUE(fs::exists(saved + "/Maildir/cur"));
    EXPECT_FALSE(fs::exists(home));
    fs::create_symlink("loop.test", root / "loop.test");
    EXPECT_EQ(textOf<kavro::mail::FSError>([&] { manager.backupDomainRoot("loop.test"); }),
              "rename: Too many levels of symbolic links: \"" + (root / "loop.test").string() + "\"");
}

TEST_F(MaildirManagerTest, RemovesADomainAlsoWhereItCannotBeMovedAside) {
    const fs::path inTheWay = savedName(root / "example.com");
    fs::create_directories(inTheWay / "kept");
    fs::create_directory_symlink(inTheWay, maildir / "link");
    manager.removeDomainRoot("example.com");
    manager.removeDomainRoot("example.com");
    EXPECT_TRUE(fs::exists(inTheWay / "kept"));
    EXPECT_EQ(std::distance(fs::directory_iterator(root), {}), 1);
}
