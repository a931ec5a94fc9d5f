// System errors and the owners that throw them; the error stream and the last reports; quoting of shell arguments.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "process/descriptors.h"
#include "process/error_stream.h"
#include "process/report_exception.h"
#include "process/shell_quote.h"
#include "process/subprocess.h"
#include "process/system_error.h"

namespace kavro {

/// An exception of a later floor: with a text that may be missing, and a call stack.
struct TracedError : std::exception, Traceback {
    TracedError(const char* message, std::size_t skip) : Traceback(skip), text(message) {}
    const char* what() const noexcept override { return text; }
    const char* text;
};

namespace {

using test::textOf;
using ::testing::EndsWith;
using ::testing::StartsWith;

constexpr int kNotOpen = 900000;

TEST(SystemErrorTest, ArgumentAloneDecidesTheClassAndNoneTakesErrno) {
    EXPECT_THROW(throwSystemError("", EPERM), ExSystemError<EPERM>);
    EXPECT_THROW(throwSystemError("", ENOENT), ExSystemError<ENOENT>);
    EXPECT_THROW(throwSystemError("", EINTR), ExSystemError<EINTR>);
    EXPECT_THROW(throwSystemError("", ECHILD), ExSystemError<ECHILD>);
    EXPECT_EQ(textOf<ExSystemError<EAGAIN>>([] { throwSystemError("lock() failed", EAGAIN); }),
              "lock() failed: Resource temporarily unavailable");
    errno = ENOENT;
    try {
        throwSystemError("", 0);
    } catch (const SystemError& error) {
        EXPECT_EQ(typeid(error), typeid(SystemError));
        EXPECT_STREQ(error.what(), "No such file or directory");
    }
}

TEST(FdOwnerTest, FailedCloseIsReportedAndLeavesTheOwnerEmpty) {
    EXPECT_EQ(textOf<SystemError>([] { const FdOwner owner(kNotOpen); }), "close: Bad file descriptor");
    FdOwner owner(kNotOpen);
    EXPECT_THROW(owner.close(), SystemError);
    EXPECT_TRUE(owner.empty());
    EXPECT_EQ(textOf<SystemError>([] {
                  PipeOwner pipe;
                  pipe.create("pipe");
                  ::close(pipe.readEnd().get());
              }),
              "pipe read-end close: Bad file descriptor");
}

TEST(FdOwnerTest, UnwindingClosesQuietlyAndKeepsErrno) {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    try {
        const FdOwner open(fd);
        const FdOwner bad(kNotOpen);
        errno = ENOSPC;
        throw 1;
    } catch (int) {
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST(ErrorStreamTest, StandardErrorAtOnceAndStandardOutputAtEachFlush) {
    const auto result = test::inSubprocess([] {
        uerr << "ab\xFF";
        std::cout << "1 " << std::flush;
        std::cerr << "| ";
        uerr << std::endl << "not flushed";
    });
    EXPECT_EQ(result.err, "ab\xFF| \nnot flushed");
    EXPECT_EQ(result.out, "1 ab\xFF\n");
}

TEST(ErrorStreamTest, LinesSurviveWritesThatASlowReaderAndASignalInterrupt) {
    const auto result = test::inSubprocess([] {
        std::array<int, 2> ends{};
        test::require(::pipe(ends.data()) == 0 && ::dup2(ends[1], STDERR_FILENO) == STDERR_FILENO, "pipe");
        if (::fork() == 0) {
            ::close(STDERR_FILENO);
            ::close(ends[1]);
            // Each stream meets a full pipe.
            for (char c = ' '; ::poll(nullptr, 0, c == ' ' ? 50 : 0) == 0 && ::read(ends[0], &c, 1) == 1;) {
                std::cout.put(c);
            }
            return;
        }
        ::dup2(ends[1], STDOUT_FILENO);
        struct sigaction ignore {};
        ignore.sa_handler = [](int) {};  // no restart of system calls
        ::sigaction(SIGALRM, &ignore, nullptr);
        const itimerval often{{0, 5000}, {0, 5000}};
        ::setitimer(ITIMER_REAL, &often, nullptr);
        std::cerr << std::string(100000, '.') << "cerr ";
        std::clog << std::string(100000, '.') << "clog ";
        std::cout << std::string(100000, '.') << "cout " << std::flush;
        uerr << "uerr";
        ::close_range(STDOUT_FILENO, ~0U, 0);
        while (::wait(nullptr) == -1) {
        }
        std::_Exit(0);
    });
    std::string text = result.out;
    EXPECT_EQ(std::erase(text, '.'), 300000U);
    EXPECT_EQ(text, "cerr clog cout uerr");
}

TEST(ReportTest, FatalErrorNamesTypeAndTextAndSurvivesAMissingText) {
    const auto result = test::inSubprocess([] {
        reportException<std::exception>(SystemError("select", EINVAL));
        reportUntypedException();
        const TracedError original("text", 0);
        reportException<std::exception>(TracedError(original));
        reportException<std::exception>(TracedError(nullptr, 100));
        test::require(uerr.fail(), "failure flag");
    });
    EXPECT_THAT(result.err, StartsWith("Fatal error: kavro::SystemError(select: Invalid argument)\n"
                                       "UNSPECIFIED ERROR OCCURED\n"
                                       "Fatal error: kavro::TracedError(text)\nTraceback:\n\t"));
    EXPECT_THAT(result.err, EndsWith("\nFatal error: kavro::TracedError()\nTraceback addresses:\n"));
    EXPECT_EQ(result.out, result.err) << result.status;
}

TEST(ShellQuoteTest, CharactersWithAMeaningAreQuotedOrRejected) {
    EXPECT_EQ(sh_quote("a b\n"), "a\\ b'\n'");
    EXPECT_EQ(sh_quote("\t\"#$&'()*;<>?[\\`|~"), "\\\t\\\"\\#\\$\\&\\'\\(\\)\\*\\;\\<\\>\\?\\[\\\\\\`\\|\\~");
    const std::string plain = "!%+,-./09:=@AZ]^_az{}\r\x01\x7F";
    EXPECT_EQ(sh_quote(plain + "\xC3\xA4"), plain + "\xC3\xA4");
    EXPECT_NO_THROW(check_shell_arg(plain));
    EXPECT_EQ(check_shell_arg_nothrow(nullptr), 1);
    for (const char* text : {"a;b", "a\n", "a\xC3"}) {
        EXPECT_EQ(textOf<std::runtime_error>([&] { check_shell_arg(text); }), "Internal error: bad escape_chars value");
    }
}

}  // namespace
}  // namespace kavro
