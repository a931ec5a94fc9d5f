// The command table, and what becomes of exceptions and lost output.
#include "frontend/dispatch.h"

#include <gmock/gmock.h>

#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "auth/auth_paths.h"
#include "frontend/arguments.h"
#include "frontend/command_descriptions.h"
#include "frontend/usage.h"
#include "util/kavro_util_exception.h"

namespace {

TEST(CommandTable, HoldsEachDescribedCommandOnceAndNoOther) {
    std::multiset<std::string> described;
    for (const auto& row : mxadmin_commands::commandDescriptions) {
        if (std::string(row.command) != "-h, --help") {
            described.insert(row.command);
        }
    }
    described.insert({"-h", "--help"});
    std::multiset<std::string> dispatched;
    for (const Command& command : commandTable()) {
        dispatched.insert(command.word);
    }
    EXPECT_EQ(dispatched, described);
}

TEST(Dispatch, RefusesMissingAndUnknownWordsAndSelectsTheDatabaseForOthers) {
    Arguments none({});
    EXPECT_EXIT(do_main(none.argc(), none.argv()), testing::ExitedWithCode(1),
                "^Error: no command specified\nUsage: mxadmin <COMMAND>");
    Arguments unknown({"--Add-Domain"});
    EXPECT_EXIT(do_main(unknown.argc(), unknown.argv()), testing::ExitedWithCode(1),
                "^Error: invalid command --Add-Domain\nUsage: mxadmin");
    Arguments malformed({"--get-mailbox-size", "--mailname=.x"});
    EXPECT_THROW(do_main(malformed.argc(), malformed.argv()), std::runtime_error);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/kavro/passwd.db");
}

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

TEST(Output, LostTextIsAFailure) {
    std::ofstream full("/dev/full");
    EXPECT_EXIT(mxadmin_commands::usageLegacy(0, full), testing::ExitedWithCode(1),
                "Unable to write the output: No space left on device");
}

}  // namespace
