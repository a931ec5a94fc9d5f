// Creation of database and key on their real paths, and detection of the style.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include "auth/auth_database.h"
#include "auth/auth_setup.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

/// "owner:group mode" by number.
std::string access(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return textOf(kavro::CString(asprintf_safe("%u:%u %04o", info.st_uid, info.st_gid, info.st_mode & 07777U)));
}

/// The same of the database, its directory and the key.
std::string accessOfAll() {
    return access(mailAuthDB) + ", " + access(std::filesystem::path(mailAuthDB).parent_path()) + ", " +
           access(mailAuthKey);
}

TEST_F(AuthTest, InitialisesEachStyleWithItsOwnersAndModes) {
    const struct passwd postfix = *::getpwnam("postfix");
    const std::string owner = std::to_string(postfix.pw_uid);
    const std::string directoryOwner = owner + ":" + std::to_string(postfix.pw_gid);
    EXPECT_EQ(mailAuthDBInitStyle(1), 0);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/kavro/passwd.db");
    EXPECT_EQ(textOf(kavro::CString(mailAuthDBToKeyPath(mailAuthDB))), mailAuthKey);
    EXPECT_EQ(accessOfAll(), owner + ":0 0460, " + directoryOwner + " 0770, " + owner + ":0 0440");
    const std::string firstKey = readFile(mailAuthKey);
    EXPECT_EQ(firstKey.size(), 32U);
    ASSERT_EQ(mailAuthSet("joe", "d.test", "p", 0), 0);
    EXPECT_EQ(mailAuthDBInitStyle(1), 0);
    EXPECT_NE(readFile(mailAuthKey), firstKey);
    EXPECT_EQ(sql("SELECT count(*) FROM domains"), "0");

    const std::string nofiles = "0:" + std::to_string(::getgrnam("nofiles")->gr_gid);
    EXPECT_EQ(mailAuthDBInitStyle(0), 0);
    EXPECT_STREQ(mailAuthDB, "/var/lib/kavro/mail/auth/passwd.db");
    EXPECT_EQ(accessOfAll(), nofiles + " 0640, " + nofiles + " 0750, " + nofiles + " 0440");
    useFiles(directory + "/new/deep/db", directory + "/other/key");
    EXPECT_EQ(mailAuthDBInitStyle(2), 0);
    EXPECT_STREQ(mailAuthDB, (directory + "/new/deep/db").c_str());
    EXPECT_EQ(accessOfAll(), "0:0 0600, 0:0 0750, 0:0 0400");
    EXPECT_TRUE(logged.empty());

    // A missing account costs nothing.
    mailAuthDBSelectStyle(1);
    const std::string key = readFile(mailAuthKey);
    std::filesystem::rename("/etc/passwd", "/etc/passwd.saved");
    EXPECT_EQ(mailAuthDBInitStyle(1), -1);
    std::filesystem::rename("/etc/passwd.saved", "/etc/passwd");
    EXPECT_EQ(readFile(mailAuthKey), key);
    EXPECT_THAT(logged, ElementsAre(StartsWith("2 Unable to get user id for \"postfix\": ")));
}

TEST_F(AuthDatabaseTest, TheSchemaIsWholeAndItsTriggersKeepUsersInDomains) {
    EXPECT_EQ(std::string(kMailAuthSchema).size(), 1161U);
    const std::string refusal = " on table \"users\" violates foreign key constraint \"fk_domains_id\"";
    EXPECT_EQ(sql("INSERT INTO users(dom_id, name) VALUES(1, 'joe')"), "insert" + refusal);
    sql("INSERT INTO domains(name) VALUES('d'); INSERT INTO users(dom_id, name) VALUES(1, 'joe')");
    EXPECT_EQ(sql("UPDATE users SET dom_id=2"), "update" + refusal);
}

TEST_F(AuthTest, TheKeyFileIsPrivateFromTheStartAndTheMaskComesBack) {
    const mode_t former = ::umask(0);
    writeKey(5);
    EXPECT_EQ(mailAuthKeyInit(), 0);
    EXPECT_EQ(access(mailAuthKey), "0:0 0600");
    EXPECT_EQ(::umask(former), 0U);
    useFiles(directory + "/passwd_db_key/db", directory);  // below a file, and a directory
    EXPECT_EQ(mailAuthDBInit(), -1);
    EXPECT_EQ(mailAuthKeyInit(), -1);
    EXPECT_THAT(logged, ElementsAre("2 recursive mkdir(" + directory + "/passwd_db_key) failed: Not a directory",
                                    "3 Unable to re-create Mail Authentication Password Encryption Key: File exists"));
}

TEST_F(AuthTest, SetsOwnersOfFullPathsAndNeverThroughALink) {
    mailAuthDBSetPath("/passwd.db");
    EXPECT_EQ(mailAuthDBSetAccess(0, 0, 0600, 0, 0, 0700), -1);
    EXPECT_EQ(logged.back(), "2 Invalid mail authentication DB path /passwd.db");
    const std::string link = directory + "/link";
    useFiles(link, link);
    std::filesystem::create_symlink("/tmp", link);
    EXPECT_EQ(mailAuthDBSetAccess(3, 4, 0666, 1, 2, 0710), -1);
    EXPECT_EQ(mailAuthKeySetAccess(3, 4, 0666), -1);
    EXPECT_EQ(logged.back(), "2 chown(\"" + link + "\", 3, 4) failed: Too many levels of symbolic links");
}

TEST_F(AuthTest, TellsTheStyleFromThePanelsFeatures) {
    std::filesystem::create_directories("/opt/zcp/admin/sbin");
    const auto detect = [](const std::string& value) {
        const std::string program = "/opt/zcp/admin/sbin/mxadmin-server";
        std::ofstream(program) << "#!/bin/sh\n[ \"$1\" = --features ] && cat <<'END'\n$features['X'] = 'qmail';\n"
                               << "$features['SMTP_Server'] = " << value << ";\nEND\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        return mailAuthDBDetectStyle();
    };
    EXPECT_EQ(detect("'qmail\n$features['SMTP_Server']='PostFix'"), 1);
    EXPECT_EQ(detect("\"q'"), 1);      // one character is compared with nothing
    EXPECT_EQ(detect("'QMAILX'"), 0);  // the last character does not count
    EXPECT_EQ(detect("'Xmail'"), -1);
    EXPECT_THAT(logged, ElementsAre("6 Unparseable line \"$features['SMTP_Server'] = 'qmail\", skipped",
                                    "6 Unknown server style \"Xmail\", skipped",
                                    "6 Unable to determine mail server type from ``mxadmin-server --features''"));
}

}  // namespace
