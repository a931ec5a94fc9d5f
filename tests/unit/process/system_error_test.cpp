// System errors, and the owners that throw them.
#include "process/system_error.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "process/descriptors.h"
#include "process/subprocess.h"

namespace kavro {
namespace {

using test::textOf;

constexpr int kNotOpen = 900000;

TEST(SystemErrorTest, TextIsTagAndReasonOrReasonAlone) {
    EXPECT_STREQ(SystemError("", ENOENT).what(), "No such file or directory");
    errno = EACCES;
    const SystemError current("cwd chdir", 0);
    EXPECT_EQ(current.code(), EACCES);
    EXPECT_STREQ(current.what(), "cwd chdir: Permission denied");
}

template <int N>
void expectOwnClass() {
    try {
        throwSystemError("lock() failed", N);
    } catch (const ExSystemError<N>& error) {
        EXPECT_EQ(error.code(), N);
    } catch (const SystemError&) {
        ADD_FAILURE() << "errno " << N << " has no class of its own";
    }
}

TEST(SystemErrorTest, ArgumentAloneDecidesTheClass) {
    expectOwnClass<EPERM>();
    expectOwnClass<ENOENT>();
    expectOwnClass<EINTR>();
    expectOwnClass<ECHILD>();
    expectOwnClass<EAGAIN>();
    errno = ENOENT;
    try {
        throwSystemError("lock() failed", 0);
    } catch (const SystemError& error) {
        EXPECT_EQ(typeid(error), typeid(SystemError));
        EXPECT_EQ(error.code(), ENOENT);
    }
}

TEST(FdOwnerTest, FailedCloseIsReportedAndLeavesTheOwnerEmpty) {
    EXPECT_EQ(textOf<SystemError>([] { const FdOwner owner(kNotOpen); }), "close: Bad file descriptor");
    FdOwner owner(kNotOpen);
    EXPECT_EQ(textOf<SystemError>([&] { owner.close(); }), "close: Bad file descriptor");
    EXPECT_TRUE(owner.empty());
    const auto closeUnderneath = [](FdOwner& (PipeOwner::*end)() noexcept) {
        PipeOwner pipe;
        pipe.create("pipe");
        ::close((pipe.*end)().get());
    };
    EXPECT_EQ(textOf<SystemError>([&] { closeUnderneath(&PipeOwner::readEnd); }),
              "pipe read-end close: Bad file descriptor");
    EXPECT_EQ(textOf<SystemError>([&] { closeUnderneath(&PipeOwner::writeEnd); }), "close: Bad file descriptor");
}

TEST(FdOwnerTest, UnwindingClosesQuietlyAndKeepsErrno) {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    try {
        const FdOwner open(fd);
        const FdOwner bad(kNotOpen);
        PipeOwner pipe;
        pipe.create("pipe");
        ::close(pipe.readEnd().get());
        errno = ENOSPC;
        throw 1;
    } catch (int) {
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

}  // namespace
}  // namespace kavro
