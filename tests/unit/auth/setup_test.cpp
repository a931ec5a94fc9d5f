// Creation of database and key on their real paths, and detection of the style.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include "auth/auth_database.h"
#include "auth/auth_schema.h"
#include "auth/auth_setup.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// "owner:group mode" by number.
std::string access(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return textOf(kavro::CString(asprintf_safe("%u:%u %04o", info.st_uid, info.st_gid, info.st_mode & 07777U)));
}

std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(AuthTest, InitialisesEachStyleWithItsOwnersAndModes) {
    const struct passwd postfix = *::getpwnam("postfix");
    const std::string owner = std::to_string(postfix.pw_uid);
    const std::string spool = "/var/spool/postfix/kavro";
    EXPECT_EQ(mailAuthDBInitStyle(1), 0);
    EXPECT_EQ(textOf(kavro::CString(mailAuthDBToKeyPath(mailAuthDB))), mailAuthKey);
    EXPECT_EQ(access(spool + "/passwd.db"), owner + ":0 0460");
    EXPECT_EQ(access(spool), owner + ":" + std::to_string(postfix.pw_gid) + " 0770");
    EXPECT_EQ(access(spool + "/passwd_db_key"), owner + ":0 0440");
    const std::string firstKey = content(mailAuthKey);
    EXPECT_EQ(firstKey.size(), 32U);
    ASSERT_EQ(mailAuthSet("joe", "d.test", "p", 0), 0);
    EXPECT_EQ(mailAuthDBInitStyle(1), 0);
    EXPECT_NE(content(mailAuthKey), firstKey);
    EXPECT_EQ(sql("SELECT count(*) FROM domains"), "0");

    const std::string nofiles = "0:" + std::to_string(::getgrnam("nofiles")->gr_gid);
    const std::string library = "/var/lib/kavro/mail/auth";
    EXPECT_EQ(mailAuthDBInitStyle(0), 0);
    EXPECT_EQ(access(library + "/passwd.db"), nofiles + " 0640");
    EXPECT_EQ(access(library), nofiles + " 0750");
    EXPECT_EQ(access(library + "/passwd_db_key"), nofiles + " 0440");
    useFiles(directory + "/new/deep/db", directory + "/other/key");
    EXPECT_EQ(mailAuthDBInitStyle(2), 0);
    EXPECT_EQ(access(directory + "/new/deep/db"), "0:0 0600");
    EXPECT_EQ(access(directory + "/new/deep"), "0:0 0750");
    EXPECT_EQ(access(directory + "/other/key"), "0:0 0400");
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AuthTest, AMissingAccountCostsNothing) {
    const std::string accounts = content("/etc/passwd");
    ASSERT_EQ(mailAuthDBInitStyle(1), 0);
    const std::string key = content(mailAuthKey);
    std::ofstream("/etc/passwd") << "root:x:0:0:root:/root:/bin/bash\n";
    const int result = mailAuthDBInitStyle(1);
    std::ofstream("/etc/passwd") << accounts;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(content(mailAuthKey), key);
    ASSERT_EQ(logged().size(), 1U);
    EXPECT_EQ(logged().front().find("2: Unable to get user id for \"postfix\": "), 0U);
}

TEST_F(AuthDatabaseTest, TheSchemaIsWholeAndItsTriggersKeepUsersInDomains) {
    EXPECT_EQ(std::string(mailAuthDBSchema).size(), 1161U);
    EXPECT_EQ(sql("SELECT name FROM sqlite_master WHERE type IN ('index', 'trigger') AND sql IS NOT NULL"),
              "domains_name fkd_users_domains_id users_name users_dom_id fki_users_domains_id fku_users_domains_id");
    const std::string refusal = " on table \"users\" violates foreign key constraint \"fk_domains_id\"";
    EXPECT_EQ(sql("INSERT INTO users(dom_id, name) VALUES(1, 'joe')"), "insert" + refusal);
    sql("INSERT INTO domains(name) VALUES('d'); INSERT INTO users(dom_id, name) VALUES(1, 'joe')");
    EXPECT_EQ(sql("UPDATE users SET dom_id=2"), "update" + refusal);
    EXPECT_EQ(sql("SELECT dom_id, status, userPassword, cmusaslsecretPLAIN FROM users"), "1|0|NULL|NULL");
}

TEST_F(AuthTest, TheKeyFileIsPrivateFromTheStartAndTheMaskComesBack) {
    const mode_t former = ::umask(0);
    writeKey(5);
    EXPECT_EQ(mailAuthKeyInit(), 0);
    EXPECT_EQ(access(mailAuthKey), "0:0 0600");
    EXPECT_EQ(::umask(former), 0U);
    useFiles(directory + "/passwd.db", directory + "/passwd_db_key/key");  // below a file
    EXPECT_EQ(mailAuthKeyInit(), -1);
    EXPECT_EQ(mailAuthDBInit(), 0);
    std::filesystem::create_directory(directory + "/dir");
    useFiles(directory + "/dir", directory + "/dir");
    EXPECT_EQ(mailAuthKeyInit(), -1);
    EXPECT_EQ(mailAuthDBInit(), -1);
    EXPECT_THAT(logged(),
                ElementsAre("2: recursive mkdir(" + directory + "/passwd_db_key) failed: Not a directory",
                            "3: Unable to re-create Mail Authentication Password Encryption Key: File exists",
                            "3: Unable to open database " + directory + "/dir: unable to open database file"));
}

TEST_F(AuthTest, RefusesOwnersForPathsThatAreNoFullPaths) {
    for (const char* path : {"passwd.db", "/passwd.db", "./sub/passwd.db"}) {
        mailAuthDBSetPath(path);
        EXPECT_EQ(mailAuthDBSetAccess(0, 0, 0600, 0, 0, 0700), -1);
        EXPECT_EQ(logged().back(), "2: Invalid mail authentication DB path " + std::string(path));
    }
    mailAuthDBSetPath((directory + "/none").c_str());
    EXPECT_EQ(mailAuthDBSetAccess(0, 0, 0600, 1, 2, 0710), -1);
    EXPECT_EQ(logged().back(), "2: chown(\"" + directory + "/none\", 0, 0) failed: No such file or directory");
    EXPECT_EQ(access(directory), "1:2 0710");
}

TEST_F(AuthTest, TellsTheStyleFromThePanelsFeatures) {
    const std::string program = "/opt/zcp/admin/sbin/mxadmin-server";
    std::filesystem::create_directories("/opt/zcp/admin/sbin");
    const auto detect = [&program](const std::string& output) {
        logged().clear();
        std::ofstream(program) << "#!/bin/sh\n[ \"$1\" = --features ] && cat <<'END'\n" << output << "\nEND\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        return mailAuthDBDetectStyle();
    };
    const std::string feature = "$features['SMTP_Server']";
    EXPECT_EQ(detect("$features['Other'] = 'qmail';\n" + feature + " = 'PostFix';"), 1);
    EXPECT_EQ(detect(feature + " = \"QMAIL';"), 0);
    EXPECT_EQ(detect(feature + " = 'q';"), 1);       // one character is compared with nothing
    EXPECT_EQ(detect(feature + " = 'qmailX';"), 0);  // the last character does not count
    EXPECT_EQ(detect(feature + " = 'qmaiX';"), 0);
    EXPECT_EQ(detect(feature + " = 'Xmail';\n" + feature + "='';\n" + feature + " = 'qmail\n " + feature + "='qmail'"),
              -1);
    EXPECT_THAT(logged(),
                ElementsAre("6: Unknown server style \"Xmail\", skipped", "6: Unknown server style \"\", skipped",
                            "6: Unparseable line \"" + feature + " = 'qmail\", skipped",
                            "6: Unable to determine mail server type from ``mxadmin-server --features''"));
    std::filesystem::remove(program);
}

}  // namespace
