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
    Locks() { std::filesystem::create_directories(kLockFilesDirectory); }
};

TEST_F(Locks, SecondHolderWaitsForTheFirst) {
    std::array<int, 2> held{};
    ASSERT_EQ(::pipe(held.data()), 0);
    const pid_t first = ::fork();
    if (first == 0) {
        const MKLock lock("waiting", MKLock::kHashedName, MKLock::kWait);
        const bool told = ::write(held[1], "h", 1) == 1;
        ::usleep(50000);
        ::_exit(told && ::write(held[1], "e", 1) == 1 ? 0 : 1);
    }
    char byte = 0;
    EXPECT_EQ(::read(held[0], &byte, 1), 1);
    const MKLock second("waiting", MKLock::kHashedName, MKLock::kWait);
    ::fcntl(held[0], F_SETFL, O_NONBLOCK);
    EXPECT_EQ(::read(held[0], &byte, 1), 1);
    EXPECT_EQ(::waitpid(first, nullptr, 0), first);
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
    mk_lock_t* lock = mk_lock("abc", 1);
    EXPECT_STREQ(lock->path, "/var/lock/files/900150983cd24fb0d6963f7d28e17f72");
    EXPECT_NE(::fcntl(lock->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(rm_lock(lock), 0);
}

TEST_F(Locks, SemaphoresAreHeldByProcessAndNumber) {
    EXPECT_EXIT(sem_lock(-1), ::testing::ExitedWithCode(1), "sem_lock\\(\\) failed for semnum -1: semnum must not");
    const auto isFree = [](long n) { return runInChild([n] { return sem_lock_nonblock(n) == 0; }).status == 1; };
    init_sem();
    sem_lock(3);
    EXPECT_TRUE(!isFree(3) && isFree(4));
    sem_unlock(3);
    EXPECT_TRUE(isFree(3));
    shutdown_sem();
}

}  // namespace
