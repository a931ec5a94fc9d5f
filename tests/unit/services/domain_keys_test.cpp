// DomainKeys files in the real /etc/domainkeys of the throw-away system.
#include "services/domain_keys.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "util/c_memory.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

const fs::path kTree = kDomainKeysDirectory;

class DomainKeys : public testing::Test {
protected:
    std::string reported;

    DomainKeys() { fs::remove_all(kTree); }
    static void write(const fs::path& path, const char* text) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    static std::string key(const char* domain) {
        std::ifstream file(kTree / domain / "default");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// The answer of a call that finds a stale errno; `reported` gets what it wrote to standard error.
    int run(const std::function<int()>& call) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        errno = ENOTTY;
        const int result = call();
        testing::internal::GetCapturedStdout();
        reported = testing::internal::GetCapturedStderr();
        return result;
    }
};

}  // namespace

TEST_F(DomainKeys, TheKeyFileIsNamedAfterTheLowerCaseDomain) {
    const std::string longest(4095 - std::string("/etc/domainkeys//default").size(), 'a');
    EXPECT_NE(kavro::CString(get_domainkeys_file(longest.c_str())), nullptr);
    EXPECT_EQ(run([&] { return domainkeys_enabled((longest + 'A').c_str()); }), 0);
    EXPECT_EQ(reported, "File name 'default' is too long to be stored in /etc/domainkeys/" + longest + "a\n");
    fs::create_directories(kTree / "dir.test/default");
    EXPECT_EQ(domainkeys_enabled("dir.test"), 0);
}

TEST_F(DomainKeys, SetInstallsACopyForEveryDomainPastObstacles) {
    write("/tmp/source.key", "key one\n");
    write(kTree / "file.test", "");
    write(kTree / "b.test/default", "an older and longer key\n");
    fs::create_directories(kTree / "dir.test/default");
    const mode_t before = umask(077);
    EXPECT_EQ(run([] { return set_domain_key("file.test,A.test,,dir.test,..,a/b,b.test,", "/tmp/source.key"); }), -1);
    umask(before);
    for (const char* named : {"file.test", "dir.test/default): rename failed", "'..'", "'a/b'"}) {
        EXPECT_THAT(reported, HasSubstr(named));
    }
    EXPECT_EQ(key("a.test") + key("b.test"), "key one\nkey one\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(kTree / "dir.test"), {}), 1);
    struct stat status {};
    ASSERT_EQ(stat((kTree / "b.test/default").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0440U);
    EXPECT_EQ(status.st_gid, getgrnam("popuser")->gr_gid);
    EXPECT_EQ(fs::status(kTree / "a.test").permissions(), fs::perms(0755));
    for (const char* source : {"/tmp/none.key", "/tmp"}) {
        EXPECT_EQ(run([&] { return set_domain_key("new.test", source); }), -1);
        EXPECT_THAT(reported, testing::StartsWith("No source file '" + std::string(source) + "': "));
    }
    EXPECT_FALSE(fs::exists(kTree / "new.test"));
}

TEST_F(DomainKeys, CloneCopiesAKeyOnlyWhereThereIsOne) {
    EXPECT_EQ(clone_domain_key("a.test", "b.test"), 0);
    EXPECT_FALSE(fs::exists(kTree));
    write(kTree / "a.test/default", "key of a\n");
    EXPECT_EQ(clone_domain_key("A.test", "b.test"), 0);
    EXPECT_EQ(key("b.test"), "key of a\n");
    fs::create_directory(kTree / "loop.test");
    fs::create_symlink("default", kTree / "loop.test/default");
    EXPECT_EQ(run([] { return clone_domain_key("loop.test", "d.test"); }), -1);
    EXPECT_THAT(reported, HasSubstr("Unable to examine /etc/domainkeys/loop.test/default: Too many levels"));
    EXPECT_EQ(run([] { return clone_domain_key("..", "d.test"); }), -1);
    EXPECT_THAT(reported, HasSubstr("Cannot get domainkeys key file for ..\n"));
}

TEST_F(DomainKeys, RemovalTakesTheNamedDomainsAndNothingAbove) {
    for (const char* file : {"a.test/default", "b.test/default", "file.test"}) {
        write(kTree / file, "k");
    }
    EXPECT_EQ(run([] { return remove_domain_key(",,"); }), -1);
    EXPECT_EQ(reported, "cannot split domains list ',,'\n");
    EXPECT_EQ(run([] { return remove_domain_key(".,..,../shadow,file.test,A.test,,absent.test"); }), -1);
    EXPECT_TRUE(fs::exists(kTree / "b.test/default") && fs::exists(kTree / "file.test") && fs::exists("/etc/shadow"));
    EXPECT_FALSE(fs::exists(kTree / "a.test"));
    EXPECT_EQ(remove_domain_key("b.test,absent.test"), 0);
}
