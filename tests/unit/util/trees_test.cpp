// Directory trees: size, creation, removal; the scoped working directory.
#include <sys/resource.h>

#include "util/directory_tree.h"
#include "util/support.h"
#include "util/working_directory.h"

namespace {

using Trees = ScratchTest;

long lstatOf(const std::string& path, bool blocks) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return blocks ? status.st_blocks * 512 : status.st_size;
}

TEST_F(Trees, SizeCountsDirectoriesAndLinksButNotWhatLinksLeadTo) {
    const std::string root = path("root");
    std::filesystem::create_directories(root + "/a/b");
    writeFile(path("outside"), std::string(100000, 'x'));
    writeFile(root + "/a/b/.file", std::string(70000, 'x'));
    std::filesystem::create_symlink("../../outside", root + "/a/link");
    std::filesystem::create_symlink("..", root + "/a/b/loop");
    for (const bool blocks : {false, true}) {
        long expected = lstatOf(root, blocks);
        for (const char* name : {"a", "a/b", "a/b/.file", "a/link", "a/b/loop"}) {
            expected += lstatOf(root + "/" + name, blocks);
        }
        EXPECT_EQ(get_dir_size(root.c_str(), blocks ? 1 : 0), expected);
        EXPECT_EQ(get_dir_size(path("outside").c_str(), blocks ? 1 : 0), lstatOf(path("outside"), blocks));
    }
    EXPECT_EQ(get_dir_size(path("missing").c_str(), 0), -1);
}

TEST_F(Trees, WorkingDirectoryIsFoundAgainAlsoWhenRemoved) {
    std::filesystem::create_directory(path("gone"));
    std::filesystem::current_path(path("gone"));
    std::filesystem::remove(path("gone"));
    {
        kavro::WorkingDirectoryScope scope;
        ASSERT_TRUE(scope.enter("/tmp"));
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/cwd"), path("gone") + " (deleted)");
    std::filesystem::current_path("/");
}

TEST_F(Trees, MadeDirectoriesGetModeAndOwnerWhateverTheUmask) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(make_dir_p(path("a//b/c/").c_str(), 02755, 12, 34), 0);
    EXPECT_EQ(accessOf(path("a")), "2755 12:34");
    EXPECT_EQ(accessOf(path("a/b/c")), "2755 12:34");
    ::umask(before);
}

TEST_F(Trees, RemovalTakesDeepTreesAndLeavesWhatLinksLeadTo) {
    const std::string root = path("root");
    std::filesystem::create_directories(path("outside/kept"));
    std::filesystem::create_directory(root);
    std::filesystem::current_path(root);
    std::filesystem::create_directory_symlink(path("outside"), "link");
    for (int level = 0; level < 500; ++level) {
        std::filesystem::create_directory("deeper");
        writeFile("file", "");
        std::filesystem::current_path("deeper");
    }
    std::filesystem::current_path("/");
    const ChildResult run = runInChild([&root] {
        const rlimit few{100, 100};
        ::setrlimit(RLIMIT_NOFILE, &few);
        return rm_tree(root.c_str()) == 0 ? 0 : errno;
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(std::filesystem::exists(root));
    EXPECT_TRUE(std::filesystem::exists(path("outside/kept")));
    EXPECT_EQ(rm_tree(root.c_str()), 0);
}

}  // namespace
