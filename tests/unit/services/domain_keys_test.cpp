// DomainKeys files in the real /etc/domainkeys of the throw-away system.
#include "services/domain_keys.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "util/c_memory.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

const fs::path kTree = DOMAINKEYS_D;

class DomainKeys : public testing::Test {
protected:
    std::string reported;

    void SetUp() override {
        fs::remove_all(kTree);
        write("/tmp/source.key", "key one\n");
    }
    static void write(const fs::path& path, const char* text) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    static std::string key(const char* domain) {
        std::ifstream file(kTree / domain / "default");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// The answer of a call that finds a stale errno; `reported` gets what it wrote to standard error.
    template <typename Call>
    int run(const Call& call) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        errno = ENOTTY;
        const int result = call();
        reported = testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        EXPECT_THAT(reported, testing::Not(HasSubstr("System error 25")));
        return result;
    }
};

}  // namespace

TEST_F(DomainKeys, TheKeyFileIsNamedAfterTheLowerCaseDomain) {
    const std::string longest(4095 - std::string("/etc/domainkeys//default").size(), 'a');
    EXPECT_NE(kavro::CString(get_domainkeys_file(longest.c_str())), nullptr);
    EXPECT_EQ(run([&] { return get_domainkeys_file((longest + 'A').c_str()) == nullptr ? 0 : 1; }), 0);
    EXPECT_EQ(reported, "File name 'default' is too long to be stored in /etc/domainkeys/" + longest + "a\n");
    write(kTree / "a.test/default", "k");
    fs::create_directories(kTree / "b.test/default");
    EXPECT_EQ(domainkeys_enabled("A.TEST"), 1);
    EXPECT_EQ(domainkeys_enabled("b.test"), 0);
    EXPECT_EQ(domainkeys_enabled(nullptr), 0);
}

TEST_F(DomainKeys, SetInstallsACopyForEveryDomainPastObstacles) {
    write(kTree / "file.test", "");
    write(kTree / "b.test/default", "an older and longer key\n");
    fs::create_directories(kTree / "dir.test/default");
    const mode_t before = umask(077);
    EXPECT_EQ(run([] { return set_domain_key("file.test,A.test,,dir.test,..,a/b,b.test,", "/tmp/source.key"); }), -1);
    umask(before);
    for (const char* named : {"file.test", "dir.test/default: Is a directory", "'..'", "'a/b'"}) {
        EXPECT_THAT(reported, HasSubstr(named));
    }
    for (const char* domain : {"a.test", "b.test"}) {
        EXPECT_EQ(key(domain), "key one\n");
        struct stat status {};
        ASSERT_EQ(stat((kTree / domain / "default").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0440U);
        EXPECT_EQ(status.st_gid, getgrnam("popuser")->gr_gid);
        EXPECT_EQ(std::distance(fs::directory_iterator(kTree / domain), {}), 1);
    }
    EXPECT_EQ(fs::status(kTree / "a.test").permissions(), fs::perms(0755));
    EXPECT_EQ(set_domain_key("a.test,b.test", "/tmp/source.key"), 0);

    EXPECT_EQ(run([] { return set_domain_key("new.test", "/tmp/none.key"); }), -1);
    EXPECT_THAT(reported, testing::StartsWith("No source file '/tmp/none.key': No such file or directory\n"));
    EXPECT_EQ(run([] { return set_domain_key("new.test", "/tmp"); }), -1);
    EXPECT_FALSE(fs::exists(kTree / "new.test"));
}

TEST_F(DomainKeys, CloneCopiesAKeyOnlyWhereThereIsOne) {
    EXPECT_EQ(clone_domain_key("a.test", "b.test"), 0);
    EXPECT_FALSE(fs::exists(kTree));
    write(kTree / "a.test/default", "key of a\n");
    EXPECT_EQ(clone_domain_key("A.test", "b.test,C.test"), 0);
    EXPECT_EQ(key("b.test") + key("c.test"), "key of a\nkey of a\n");
    EXPECT_EQ(run([] { return clone_domain_key("..", "d.test"); }), -1);
    EXPECT_THAT(reported, HasSubstr("Cannot get domainkeys key file for ..\n"));
}

TEST_F(DomainKeys, RemovalTakesTheNamedDomainsAndNothingAbove) {
    for (const char* file : {"a.test/default", "b.test/default", "c.test/default", "file.test"}) {
        write(kTree / file, "k");
    }
    EXPECT_EQ(run([&] { return remove_domain_key(",,"); }), -1);
    EXPECT_EQ(reported, "cannot split domains list ',,'\n");
    EXPECT_EQ(run([&] { return remove_domain_key(""); }), -1);
    EXPECT_EQ(run([] { return remove_domain_key(".,..,../shadow,file.test,A.test,,absent.test,c.test"); }), -1);
    EXPECT_FALSE(fs::exists(kTree / "a.test") || fs::exists(kTree / "c.test"));
    EXPECT_TRUE(fs::exists(kTree / "b.test/default") && fs::exists(kTree / "file.test") && fs::exists("/etc/shadow"));
    EXPECT_EQ(remove_domain_key("b.test,absent.test"), 0);
    EXPECT_FALSE(fs::exists(kTree / "b.test"));
}
