// What reaches the user: the error stream, the last reports, call stacks; and the quoting of shell arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "process/error_stream.h"
#include "process/report_exception.h"
#include "process/shell_quote.h"
#include "process/subprocess.h"
#include "process/system_error.h"
#include "process/traceback.h"

namespace kavro {

/// An exception of a later floor: with a text that may be missing, and a call stack.
struct TracedError : std::exception, Traceback {
    TracedError(const char* message, std::size_t skip) : Traceback(skip), text(message) {}
    const char* what() const noexcept override { return text; }
    const char* text;
};

namespace {

using test::inSubprocess;

// As early as any other static constructor of a program.
[[gnu::init_priority(103)]] const struct EarlyUser { bool good = uerr.good() && std::cout.good(); } early;

TEST(ErrorStreamTest, StandardErrorAtOnceAndStandardOutputAtEachFlush) {
    EXPECT_TRUE(early.good);
    const auto result = inSubprocess([] {
        uerr << "ab\xFF";
        std::cout << "1 " << std::flush;
        std::cerr << "| ";
        uerr << std::endl;
        uerr << "not flushed";
    });
    EXPECT_EQ(result.err, "ab\xFF| \nnot flushed");
    EXPECT_EQ(result.out, "1 ab\xFF\n");
}

TEST(ReportTest, FatalErrorNamesTypeAndTextAndSurvivesAMissingText) {
    const auto result = inSubprocess([] {
        reportException<std::exception>(SystemError("select", EINVAL));
        reportUntypedException();
        reportException<std::exception>(TracedError(nullptr, 100));
        test::require(uerr.fail(), "failure flag");
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err,
              "Fatal error: kavro::SystemError(select: Invalid argument)\nUNSPECIFIED ERROR OCCURED\n"
              "Fatal error: kavro::TracedError()\nTraceback addresses:\n");
    EXPECT_EQ(result.out, result.err);
}

/// Called back from the standard library, whose functions have names that can be looked up.
struct ReportingBuf : std::streambuf {
    int overflow(int c) override {
        const TracedError original("text", 0);
        reportException<std::exception>(TracedError(original));
        return c;
    }
};

TEST(ReportTest, CallStackFollowsWithReadableNames) {
    const auto result = inSubprocess([] {
        ReportingBuf buffer;
        std::ostream(&buffer).put('x');
    });
    EXPECT_EQ(result.err.rfind("Fatal error: kavro::TracedError(text)\nTraceback:\n\t", 0), 0U) << result.err;
    EXPECT_NE(result.err.find("(std::ostream::put(char)+"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 13);
    EXPECT_EQ(result.out, result.err);
}

TEST(ShellQuoteTest, CharactersWithAMeaningAreQuotedOrRejected) {
    EXPECT_EQ(sh_quote("a b\n"), "a\\ b'\n'");
    EXPECT_EQ(sh_quote("\t\"#$&'()*;<>?[\\`|~"), "\\\t\\\"\\#\\$\\&\\'\\(\\)\\*\\;\\<\\>\\?\\[\\\\\\`\\|\\~");
    const std::string plain = "!%+,-./09:=@AZ]^_az{}\r\x01\x7F";
    EXPECT_EQ(sh_quote(plain + "\xC3\xA4"), plain + "\xC3\xA4");
    EXPECT_NO_THROW(check_shell_arg(plain));
    EXPECT_EQ(check_shell_arg_nothrow(nullptr), 1);
    for (const char* text : {"a;b", "a\n", "a\xC3"}) {
        EXPECT_EQ(test::textOf<std::runtime_error>([&] { check_shell_arg(text); }),
                  "Internal error: bad escape_chars value");
    }
}

}  // namespace
}  // namespace kavro
