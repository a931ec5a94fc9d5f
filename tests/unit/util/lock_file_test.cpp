// Locks between processes.
#include "util/lock_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <array>

#include "process/system_error.h"
#include "util/semaphore.h"
#include "util/support.h"

namespace {

using kavro::MKLock;
using ::testing::ThrowsMessage;

class Locks : public ScratchTest {
protected:
    Locks() { std::filesystem::create_directories(LOCK_FILES_D); }
};

TEST_F(Locks, SecondHolderWaitsForTheFirst) {
    std::array<int, 2> order{};
    ASSERT_EQ(::pipe(order.data()), 0);
    const auto tell = [&order](char who) { return ::write(order[1], &who, 1) == 1; };
    const pid_t first = ::fork();
    if (first == 0) {
        const MKLock lock("waiting", MKLock::kHashedName, MKLock::kWait);
        bool told = tell('0');
        ::usleep(50000);
        told = tell('1') && told;
        ::_exit(told ? 0 : 1);
    }
    char seen[4] = "";
    EXPECT_EQ(::read(order[0], seen, 1), 1);
    const MKLock second("waiting", MKLock::kHashedName, MKLock::kWait);
    EXPECT_TRUE(tell('2'));
    int status = 0;
    ::waitpid(first, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(::read(order[0], seen, 2), 2);
    EXPECT_STREQ(seen, "12");
}

TEST_F(Locks, BusyLockFailsAtOnceWhenNotWaitedFor) {
    const std::string name = path("lock");
    const MKLock held(name, MKLock::kPlainPath, MKLock::kFailAtOnce);
    EXPECT_EQ(accessOf(name), "0644 0:0");
    EXPECT_THAT([&] { MKLock(name, MKLock::kPlainPath, MKLock::kFailAtOnce); },
                ThrowsMessage<std::runtime_error>("lock(" + name + ") failed: file is already locked"));
    const MKLock none(name, MKLock::kPlainPath, 2);
    const MKLock otherFile(name, MKLock::kHashedName, MKLock::kFailAtOnce);
    EXPECT_THAT([this] { MKLock(path("missing/lock"), MKLock::kPlainPath, MKLock::kWait); },
                ThrowsMessage<kavro::ExSystemError<ENOENT>>("lock() failed: No such file or directory"));
}

TEST_F(Locks, HashedFileIsNamedByTheDigestOfTheName) {
    mk_lock_t* lower = mk_lock("abc", 1);
    mk_lock_t* upper = mk_nonblock_lock("ABC", 1);
    EXPECT_STREQ(lower->path, "/var/lock/files/900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(is_locked(upper), 1);
    EXPECT_NE(::fcntl(lower->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(rm_lock(upper), 0);
    EXPECT_EQ(rm_lock(lower), 0);
    // Where a standard stream is closed, the lock does not take its place.
    const ChildResult closed = runInChild([] {
        ::close(1);
        return mk_lock("abc", 1)->fd;
    });
    EXPECT_GT(closed.status, 2);
}

TEST_F(Locks, SemaphoresExcludeByNumber) {
    std::filesystem::remove_all("/opt/zcp/var");
    init_sem();
    EXPECT_EQ(accessOf("/opt/zcp/var/utilities.sem"), "0600 0:0");
    sem_lock(7);
    const auto answerToChild = [](long n) { return runInChild([n] { return sem_lock_nonblock(n) + 5; }).status; };
    EXPECT_EQ(answerToChild(7), 4);
    EXPECT_EQ(answerToChild(6), 5);
    EXPECT_EQ(answerToChild(8), 5);
    sem_unlock(7);
    EXPECT_EQ(answerToChild(7), 5);
    const ChildResult negative = runInChild([] {
        errno = 0;
        sem_lock(-1);
        return 0;
    });
    EXPECT_EQ(negative.status, 1);
    EXPECT_EQ(negative.err, "sem_lock() failed for semnum -1: semnum must not be negative\n");
    shutdown_sem();
}

}  // namespace
