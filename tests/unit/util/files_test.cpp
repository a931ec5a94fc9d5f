// Editing and copying of files, their owners and modes: what is left after success and after each kind of failure.
#include <sys/resource.h>

#include <csignal>

#include "util/accounts.h"
#include "util/atomic_copy.h"
#include "util/line_file.h"
#include "util/lock_file.h"
#include "util/support.h"

namespace {

class Files : public ScratchTest {
protected:
    Files() {
        std::filesystem::create_directories(kLockFilesDirectory);
        uid_ = kavro_ugid(kMailUser, 0);
        gid_ = kavro_ugid(kMailUser, 1);
    }
    std::string mailUserAccess(const char* mode) const {
        return std::string(mode) + " " + std::to_string(uid_) + ":" + std::to_string(gid_);
    }
    int edit(const char* line, int action) { return file_str(path("f").c_str(), line, action, FILE_STRINGS_AT_END); }

    uid_t uid_;
    gid_t gid_;
};

TEST_F(Files, LinesAreRemovedWholeAndAppendedToCompleteLines) {
    writeFile(path("f"), "one\ntwo\none\n one\none two\nlast");
    ASSERT_EQ(file_set_user_mode(path("f").c_str(), kMailUser, 0640), 0);
    writeFile(path("f.tmp"), "left by an interrupted edit");
    ASSERT_EQ(edit("one\n", FILE_STRINGS_REMOVE), 0);
    EXPECT_EQ(readFile(path("f")), "two\n one\none two\nlast");
    ASSERT_EQ(edit("one", FILE_STRINGS_ADD) + edit("two\n", FILE_STRINGS_ADD), 0);
    EXPECT_EQ(readFile(path("f")), "two\n one\none two\nlast\none\ntwo\n");
    const char* const lines[] = {"two\n", "last", nullptr};
    ASSERT_EQ(file_strings(path("f").c_str(), lines, FILE_STRINGS_REMOVE, FILE_STRINGS_AT_END), 0);
    EXPECT_EQ(readFile(path("f")), " one\none two\none\n");
    EXPECT_EQ(accessOf(path("f")), mailUserAccess("0640"));
    EXPECT_EQ(entryCount(), 1);
}

TEST_F(Files, MissingLineFileIsMadeByAddingOnly) {
    EXPECT_EQ(edit("x", FILE_STRINGS_REMOVE), -1);
    EXPECT_EQ(entryCount(), 0);
    ASSERT_EQ(edit("x", FILE_STRINGS_ADD), 0);
    EXPECT_EQ(readFile(path("f")), "x\n");
    EXPECT_EQ(accessOf(path("f")), "0600 0:0");
}

TEST_F(Files, LineFileIsUntouchedByAFailedEdit) {
    const std::string before(5000, 'x');
    writeFile(path("f"), before);
    const ChildResult full = runInChild([this] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        return edit("y", FILE_STRINGS_ADD) + 5;
    });
    EXPECT_EQ(full.status, 4) << full.err;
    std::filesystem::remove_all(kLockFilesDirectory);
    EXPECT_EQ(edit("y", FILE_STRINGS_ADD), 1);
    EXPECT_EQ(readFile(path("f")), before);
    EXPECT_EQ(entryCount(), 1);
}

TEST_F(Files, PlantedLinksAreNeverFollowedNorPipesWaitedFor) {
    ASSERT_EQ(::mkfifo(path("f").c_str(), 0600), 0);
    EXPECT_EQ(edit("x", FILE_STRINGS_ADD), -1);
    EXPECT_EQ(file_set_perms(path("f").c_str(), uid_, gid_, 0600), 0);
    std::filesystem::remove(path("f"));
    writeFile(path("victim"), "secret\n");
    const std::string access = accessOf(path("victim"));
    std::filesystem::create_symlink(path("victim"), path("f"));
    EXPECT_EQ(edit("x", FILE_STRINGS_ADD), -1);
    EXPECT_EQ(file_set_user_mode(path("f").c_str(), kMailUser, 0600), -1);
    std::filesystem::rename(path("f"), path("f.tmp"));
    EXPECT_EQ(edit("x", FILE_STRINGS_ADD), 0);
    EXPECT_EQ(readFile(path("f")), "x\n");
    EXPECT_EQ(readFile(path("victim")), "secret\n");
    EXPECT_EQ(accessOf(path("victim")), access);
}

TEST_F(Files, OwnerAndModeAreSetWhereTheFileIs) {
    errno = EIO;
    EXPECT_EQ(file_set_perms(path("f").c_str(), uid_, gid_, 0600), 0);
    EXPECT_EQ(errno, 0);
    writeFile(path("f"), "");
    EXPECT_EQ(file_set_perms(path("f").c_str(), uid_, gid_, 02711), 0);
    EXPECT_EQ(accessOf(path("f")), mailUserAccess("2711"));
    const ChildResult unknown = runInChild([this] {
        return file_set_user_mode(path("f").c_str(), "nobody-here", 0600) == -1 && kavro_ugid("nobody-here", 0) == 0;
    });
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, "user nobody-here not found\nUnable to getpwnam for user nobody-here\n");
}

TEST_F(Files, AtomicCopyReplacesTheTargetWholeOrEndsTheProcessWithoutATrace) {
    const std::string contents = std::string(9000, 'k') + '\0' + "end";
    writeFile(path("source"), contents);
    writeFile(path("target"), "old");
    const auto copy = [this](const char* source, const char* target) {
        copy_file_atomic(path(source).c_str(), path(target).c_str(), uid_, gid_, 0440);
    };
    EXPECT_EXIT(copy(".", "target"), ::testing::ExitedWithCode(1), "/target\\): open failed\n");
    EXPECT_EXIT(copy("source", "."), ::testing::ExitedWithCode(1), "rename failed\n");
    EXPECT_EQ(readFile(path("target")), "old");
    copy("source", "target");
    EXPECT_EQ(readFile(path("target")), contents);
    EXPECT_EQ(accessOf(path("target")), mailUserAccess("0440"));
    EXPECT_EQ(entryCount(), 2);
}

}  // namespace
