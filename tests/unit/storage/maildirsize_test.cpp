// Quota files: what is written, what is believed, what is counted.
#include "storage/maildirsize.h"

#include <climits>
#include <ctime>

#include "session/session_mail_data.h"
#include "storage/mailbox_quota.h"
#include "storage_fixture.h"
#include "util/directory_tree.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class MaildirsizeTest : public StorageTest {
protected:
    std::string quotaFile() const { return readFile(maildir / "maildirsize"); }
    long mtime() const {
        struct stat status {};
        EXPECT_EQ(::stat((maildir / "maildirsize").c_str(), &status), 0);
        return status.st_mtime;
    }
    const std::string nothing = "           0           0\n";
};

TEST_F(MaildirsizeTest, WritesLimitsLessAttachmentsAndTheUsageCounted) {
    const long empty = get_dir_size((home / "@attachments").c_str(), 0);
    writeFile(maildir / "new/1.mail", "12345");
    for (const auto& [quota, limit] :
         {std::pair{-1L, 0L}, {-7L, 0L}, {0L, 1L}, {empty, 1L}, {100000L, 100000 - empty}}) {
        ASSERT_EQ(store_mbox_quota("Example.COM", "Info", quota), 1) << quota;
        EXPECT_EQ(quotaFile(), std::to_string(limit) + "S,0C\n           5           1\n") << quota;
    }
    EXPECT_EQ(describe(maildir / "maildirsize"), "100644 popuser");
    EXPECT_EQ(fs::current_path(), "/");
    writeFile(home / "@attachments/big", std::string(1500, 'x'));
    const long filled = get_dir_size((home / "@attachments").c_str(), 0);
    EXPECT_EQ(reportOf([&] { store_mbox_quota("example.com", "info", filled); }), "");
    EXPECT_EQ(reportOf([&] { store_mbox_quota("example.com", "info", filled - 1); }),
              "WARNING: @attachments directory is big enough to disable delivery!\n");
    EXPECT_EQ(quotaFile().substr(0, 6), "1S,0C\n");
    get_session_mail_db_info()->domain_name = "example.com";
    append_session_mail(sj_get_dummy_parser(nullptr), session_mail_db_info)->name = "info";
    manager.setDefaultMailboxQuota("example.com", 9000 + filled);
    EXPECT_EQ(quotaFile().substr(0, 6), "9000S,");
    manager.removeDefaultMailboxQuota("example.com");
    EXPECT_EQ(quotaFile().substr(0, 3), "0S,");
    manager.setDomainQuota("example.com", 9000 + filled);
    manager.removeDomainQuota("example.com");
    EXPECT_EQ(quotaFile().substr(0, 3), "0S,");
    free_session_mail_db_info();
}

TEST_F(MaildirsizeTest, ReportsWhyAMailboxGetsNoQuota) {
    const auto report = [](const std::string& mailname) {
        return reportOf([&] { EXPECT_EQ(store_mbox_quota("example.com", mailname.c_str(), 1), 0); });
    };
    EXPECT_EQ(report("nobody"),
              "unable to change to mbox folder /var/qmail/mailnames/example.com/nobody: No such file or directory\n"
              "System error 2: No such file or directory\n");
    // 33 characters of root and domain, then the name.
    EXPECT_EQ(report(std::string(4096 - 33, 'a')), "domain and/or user name too long to be stored on the filesystem\n");
}

TEST_F(MaildirsizeTest, FollowsNoLinkOfTheMailUserAndWaitsForNoPipe) {
    const fs::path moved = root / "moved";
    fs::create_directories(moved / "Maildir/new");
    fs::create_directory(moved / "@attachments");
    writeFile(moved / "Maildir/new/1,S=44", "");
    const auto store = [] { return store_mbox_quota("example.com", "info", 1000); };
    for (const fs::path& link : {maildir, home}) {
        fs::remove_all(link);
        fs::create_directory_symlink(moved / link.lexically_relative(home).relative_path(), link);
        EXPECT_EQ(store(), 0) << link;
    }
    EXPECT_EQ(get_mbox_size("info", "example.com", 0), 0U);
    fs::remove(home);
    manager.createMailnameHome("example.com", "info");
    fs::remove(maildir / "new");
    fs::create_directory_symlink(moved / "Maildir/new", maildir / "new");
    run("mkfifo " + (maildir / "maildirsize").string());
    EXPECT_EQ(get_mbox_size("info", "example.com", 0),
              static_cast<std::uint64_t>(get_dir_size((home / "@attachments").c_str(), 0)));
    fs::rename(root / "example.com", root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "example.com");
    EXPECT_EQ(store(), 1);  // root made this link
    EXPECT_EQ(quotaFile().substr(8), nothing);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(moved), {}), 4);
}

TEST_F(MaildirsizeTest, MarksTheFileStaleWhenMailMovedMeanwhile) {
    const long now = std::time(nullptr);
    const std::string inMaildir = "cd " + maildir.string() + "; ";
    // A linked folder is watched but not counted: to the check it looks like one that changed after the count.
    run(inMaildir +
        "mkdir -p .Trash/new linked/new linked/cur; ln -s linked .Linked; "
        "touch -d @50000 new cur .Spam/new; touch -d @60000 .Spam/cur linked/*");
    ASSERT_EQ(store_maildirpp_quota_raw(maildir.c_str(), 10), 1);
    EXPECT_GE(mtime(), now);
    run(inMaildir + "touch -d @60001 linked/cur; touch .subscriptions");
    EXPECT_EQ(reportOf([&] { EXPECT_EQ(store_maildirpp_quota_raw(maildir.c_str(), 10), 1); }),
              "Bad/unrecognized entry .subscriptions within Maildir folder " + maildir.string() + "\n");
    EXPECT_EQ(mtime(), 60000 - 960);
}

TEST_F(MaildirsizeTest, CountsNamesSizesAndSubfoldersButNeitherTrashNorTmp) {
    // What each file of three bytes counts.
    const std::pair<unsigned, std::vector<const char*>> cases[] = {
        {0, {"tmp/1", ".Trash/cur/2,S=10", ".Spam/tmp/3", "..x/cur/4", "plain/cur/5", ".link/cur/6"}},
        {3, {"cur/a,S=abc", "cur/c,S=77,W=80:2,S", "cur/d,S=9223372036854775808", ".a.b/new/1", ".Trash.old/cur/2"}},
        {100, {"new/e,S=100", "cur/f,S=100:2,S", "cur/g,S=:x,S=100:2,", ".Spam/cur/h,S=100"}},
    };
    run("cd " + maildir.string() + "; mkdir linked; ln -s linked .link; ln -s 123 cur/link");
    std::uint64_t expectedSize = 3;
    std::uint64_t expectedCount = 1;
    for (const auto& [counted, paths] : cases) {
        for (const char* path : paths) {
            fs::create_directories((maildir / path).parent_path());
            writeFile(maildir / path, "xyz");
            expectedSize += counted;
            expectedCount += counted > 0 ? 1 : 0;
            std::uint64_t size = 0;
            std::uint64_t count = 0;
            EXPECT_EQ(get_maildirpp_usage(maildir.c_str(), &size, &count), 1);
            EXPECT_EQ(std::pair(size, count), std::pair(expectedSize, expectedCount)) << path;
        }
    }
}

TEST_F(MaildirsizeTest, BelievesWellFormedFilesOnly) {
    const auto fill = [](std::size_t size) { return "0S,0C\n" + std::string(size - 10, ' ') + "1 2\n"; };
    // The text, then: strict result, both limits, usage when not strict (a count of the mailbox gives 44 and 1), log.
    const std::string unknown = "0: LONG_MAX LONG_MAX: 44 1";
    const std::pair<std::string, std::string> cases[] = {
        {"100S,5C\n          10           1\n-3 -1\n", "1: 100 5: 7 0"},
        {"100S\n", "1: 100 0: 0 0"},
        {"\n1 2\n", "1: 0 0: 1 2"},
        {"100x,5C\n1\t  2\n", "1: 100 5: 1 2"},
        {fill(5120), "1: 0 0: 1 2"},
        {fill(5121), unknown},
        {"100S,5C\n1 -1\n", "0: 100 5: 44 1"},
        {"100x5C\n", unknown + " corrupted"},
        {"100S,5C", unknown + " corrupted"},
        {"-1S,5C\n1 2\n", "0: -1 5: 44 1 corrupted"},
    };
    writeFile(maildir / "new/1,S=44", "");
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long limits[2] = {};
    for (const auto& [text, expected] : cases) {
        writeFile(maildir / "maildirsize", text);
        logged.clear();
        std::ostringstream read;
        read << get_maildirpp_usage_and_limits(maildir.c_str(), 1, &size, &count, &limits[0], &limits[1]) << ":";
        for (const long limit : limits) {
            read << " " << (limit == LONG_MAX ? "LONG_MAX" : std::to_string(limit));
        }
        const bool told = logged == "3 maildirsize quota header is corrupted. Please run mxrepair utility to fix.\n";
        ASSERT_EQ(get_maildirpp_usage(maildir.c_str(), &size, &count), 1);
        read << ": " << size << " " << count << (told ? " corrupted" : logged);
        EXPECT_EQ(read.str(), expected) << text;
    }
}

TEST_F(MaildirsizeTest, StopsAMessageAboveEitherLimit) {
    writeFile(maildir / "maildirsize", "100S,5C\n60 2\n");
    EXPECT_EQ(check_maildirpp_overquota(maildir.c_str(), 40, 3), 0);
    EXPECT_EQ(check_maildirpp_overquota(maildir.c_str(), 41, 1), 1);
    EXPECT_EQ(check_maildirpp_overquota(maildir.c_str(), 1, 4), 1);
    EXPECT_EQ(check_maildirpp_overquota(maildir.c_str(), UINT64_MAX, 0), 1);
    writeFile(maildir / "maildirsize", "0S,0C\n60 2\n");
    EXPECT_EQ(check_maildirpp_overquota(maildir.c_str(), UINT64_MAX, LONG_MAX), 0);
}

TEST_F(MaildirsizeTest, ShowsNoMoreThanANumberHolds) {
    const std::string huge = (maildir / "cur/1,S=9223372036854775807").string();
    writeFile(huge, "");
    writeFile(huge + ":2,S", "");
    EXPECT_EQ(get_mbox_size("info", "example.com", 0), 9223372036854775807U);
    EXPECT_THAT(reportOf([] { EXPECT_EQ(get_mbox_size("nobody", "example.com", 0), 0U); }),
                HasSubstr("Unable to calculate Maildir++ size: No such file or directory"));
    EXPECT_EXIT(get_mbox_size("..", "example.com", 0), ::testing::ExitedWithCode(1), "'..'");
}
