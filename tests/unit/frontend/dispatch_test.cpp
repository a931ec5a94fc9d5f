// What becomes of a handler's result and of the exceptions that escape it. The command table is walked from the
// outside.
#include "frontend/dispatch.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

TEST(Guard, ReportsEachKindOfExceptionWithItsStatus) {
    const auto run = [](CommandHandler entry) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = runGuarded(entry, 0, nullptr);
        const std::string out = testing::internal::GetCapturedStdout();
        return std::to_string(status) + "|" + out + "|" + testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(run([](int, char**) { return 255; }), "255||");
    EXPECT_EQ(run([](int, char**) -> int { throw kavro::KavroUtilException("own words"); }),
              "1|own words\n|own words\n");
    EXPECT_EQ(run([](int, char**) -> int { throw std::runtime_error("x"); }),
              "1|Fatal error: std::runtime_error(x)\n|Fatal error: std::runtime_error(x)\n");
    EXPECT_EQ(run([](int, char**) -> int { throw 5; }), "2|UNSPECIFIED ERROR OCCURED\n|UNSPECIFIED ERROR OCCURED\n");
}

}  // namespace
