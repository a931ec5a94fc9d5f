// Making of missing stores: only what is missing, with the right owner and mode, and never over anything.
#include "mxrepair/init.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace {

namespace fs = boost::filesystem;

std::string init() {
    std::ostringstream report;
    mxrepair::makeMissingStores(report);
    return report.str();
}

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// "user:group mode" of a file.
std::string access(const std::string& path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        return "missing";
    }
    std::ostringstream text;
    text << ::getpwuid(found.st_uid)->pw_name << ':' << ::getgrgid(found.st_gid)->gr_name << ' ' << std::oct
         << std::setw(4) << std::setfill('0') << (found.st_mode & 07777);
    return text.str();
}

const std::string kTables = "/var/spool/postfix/kavro/";
const std::string kHandlers = "/var/lib/kavro/mail/handlers/handlers.db";

class Init : public testing::Test {
protected:
    void SetUp() override {
        for (const char* path : {"/var/lock/files", "/var/spool/postfix/kavro", "/var/qmail", "/var/lib/kavro",
                                 "/etc/domainkeys", "/usr/lib/kavro-9.0"}) {
            fs::remove_all(path);
        }
    }
};

TEST_F(Init, MakesEverythingOnAnEmptyHostAndNothingAfterwards) {
    const std::string report = init();
    const std::pair<std::string, const char*> expected[] = {
        {"/var/lock/files", "root:root 0755"},
        {kTables, "postfix:postfix 0770"},
        {"/var/qmail", "root:root 0755"},
        {"/var/qmail/mailnames", "popuser:popuser 0755"},
        {"/var/lib/kavro/mail/handlers", "root:root 0755"},
        {"/etc/domainkeys", "root:root 0755"},
        {"/usr/lib/kavro-9.0/domain_rename", "root:root 0755"},
        {kTables + "virtual_domains.db", "root:root 0644"},
        {kTables + "vmailbox.db", "root:root 0644"},
        {kTables + "virtual.db", "root:root 0644"},
        {kTables + "aliases.db", "root:root 0644"},
        {kTables + "passwd.db", "postfix:root 0460"},
        {kTables + "passwd_db_key", "postfix:root 0440"},
        {kHandlers, "root:popuser 0640"},
    };
    for (const auto& [path, rights] : expected) {
        EXPECT_EQ(access(path), rights) << path;
    }
    EXPECT_EQ(fs::file_size(kTables + "passwd_db_key"), 32U);
    EXPECT_THAT(report, testing::HasSubstr("created directory /var/qmail\ncreated directory /var/qmail/mailnames\n"));
    EXPECT_EQ(std::distance(fs::directory_iterator(kTables), fs::directory_iterator()), 6);
    EXPECT_EQ(init(), "");
}

TEST_F(Init, MakesOnePieceAndLeavesTheRestAsItIs) {
    init();
    fs::permissions("/etc/domainkeys", fs::owner_all);
    ASSERT_EQ(std::system("echo 'a@b.test c' | /usr/sbin/postmap -i hash:/var/spool/postfix/kavro/virtual"), 0);
    const std::string table = contents(kTables + "virtual.db");
    const std::string key = contents(kTables + "passwd_db_key");
    const std::pair<std::string, const char*> pieces[] = {
        {"/usr/lib/kavro-9.0/domain_rename", "created directory /usr/lib/kavro-9.0/domain_rename\n"},
        {kTables + "vmailbox.db", "created table hash:/var/spool/postfix/kavro/vmailbox\n"},
        {kHandlers, "created mail handlers database /var/lib/kavro/mail/handlers/handlers.db\n"},
    };
    for (const auto& [path, report] : pieces) {
        const std::string rights = access(path);
        fs::remove_all(path);
        EXPECT_EQ(init(), report);
        EXPECT_EQ(access(path), rights);
    }
    EXPECT_EQ(access("/etc/domainkeys"), "root:root 0700");
    EXPECT_EQ(contents(kTables + "virtual.db"), table);
    EXPECT_EQ(contents(kTables + "passwd_db_key"), key);
    EXPECT_FALSE(fs::exists(kHandlers + ".new"));
}

TEST_F(Init, NeverMakesHalfOfDatabaseAndKey) {
    init();
    for (const std::string lost : {"passwd.db", "passwd_db_key"}) {
        const std::string kept = kTables + (lost == "passwd.db" ? "passwd_db_key" : "passwd.db");
        const std::string before = contents(kept);
        fs::rename(kTables + lost, kTables + "aside");
        EXPECT_THROW(init(), std::runtime_error) << lost;
        EXPECT_EQ(access(kTables + lost), "missing");
        EXPECT_EQ(contents(kept), before);
        fs::rename(kTables + "aside", kTables + lost);
    }
    EXPECT_EQ(init(), "");
}

TEST_F(Init, MakesNothingWhereSomethingItNeedsIsMissing) {
    fs::rename("/usr/sbin/postmap", "/usr/sbin/postmap.aside");
    EXPECT_THROW(init(), std::runtime_error);
    fs::rename("/usr/sbin/postmap.aside", "/usr/sbin/postmap");
    EXPECT_FALSE(fs::exists("/var/lock/files"));
    std::ofstream("/etc/domainkeys") << "a file in the way";
    EXPECT_THROW(init(), std::runtime_error);
    EXPECT_EQ(contents("/etc/domainkeys"), "a file in the way");
    fs::remove("/etc/domainkeys");
}

TEST_F(Init, SeveralAtOnceMakeEachPieceOnce) {
    const std::string path = (fs::temp_directory_path() / fs::unique_path()).string();
    for (int run = 0; run < 6; ++run) {
        if (::fork() == 0) {
            std::ofstream report(path, std::ios::app);
            try {
                mxrepair::makeMissingStores(report);
            } catch (const std::exception&) {
                report << "failed\n";
            }
            report.close();
            ::_exit(0);
        }
    }
    while (::wait(nullptr) > 0) {
    }
    std::multiset<std::string> lines;
    std::ifstream reports(path);
    for (std::string line; std::getline(reports, line);) {
        lines.insert(line);
    }
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), lines.size());
    EXPECT_EQ(lines.count("failed"), 0U);
    EXPECT_EQ(lines.count("created key " + kTables + "passwd_db_key"), 1U);
    EXPECT_EQ(init(), "");
}

}  // namespace
