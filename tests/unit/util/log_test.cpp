// Where reports and log messages go, and what the reporter adds to them.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "util/support.h"

namespace {

TEST(MessageReporter, AppendsTheSystemErrorOfEntryOnBothStreamsAndKeepsErrno) {
    const ChildResult run = runInChild([] {
        errno = ENOENT;
        messlog2(0, 0, "cannot %s", "open");
        PROGNAME = "/usr/sbin/tool";
        messlog2(0, 0, "second\n");
        errno = 0;
        return messlog2(3, 1, "last");
    });
    EXPECT_EQ(run.out,
              "cannot open\nSystem error 2: No such file or directory\n"
              "tool: second\n\nSystem error 2: No such file or directory\ntool: last\n");
    EXPECT_EQ(run.err, run.out);
    EXPECT_EQ(run.status, 3);
}

TEST(MessageReporter, DropsASystemErrorThatDoesNotFitWhole) {
    const std::string suffix = "\nSystem error 2: No such file or directory";
    const std::size_t longest = 4095 - suffix.size();
    for (const std::size_t length : {longest, longest + 1, std::size_t{4096}}) {
        const std::string text(length, 'x');
        const ChildResult run = runInChild([&text] {
            errno = ENOENT;
            return messlog2(0, 0, "%s", text.c_str());
        });
        EXPECT_EQ(run.err, text + (length == longest ? suffix : "") + "\n");
    }
}

TEST(LogHook, ConsoleLocationsDecideAboutStreamsAndTheLevelAboutPriorities) {
    const std::vector<std::array<const char*, 3>> cases = {
        {"CONSOLE", "0\n4\n", "0\n4\n"}, {"StdErr", "0\n4\n", ""}, {"file", "", ""}};
    for (const auto& [location, err, out] : cases) {
        const ChildResult run = runInChild([where = location] {
            kavro_log_init(where, 4, 16, 0, "mxadmin");
            for (const int priority : {0, 4, 5}) {
                kavro_log(priority, "%d", priority);
            }
            return 0;
        });
        EXPECT_EQ(run.err, err) << location;
        EXPECT_EQ(run.out, out) << location;
    }
}

TEST(LogHook, SystemLogGetsFacilityIdentifierAndProcessId) {
    const int log = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    ::unlink(address.sun_path);
    ASSERT_EQ(::bind(log, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const ChildResult run = runInChild([] {
        kavro_log_init(nullptr, 6, 16, 32, "mxadmin");
        kavro_log(7, "debugging");
        errno = EXDEV;
        kavro_log(6, "failed: %s", "why");
        ::unlink("/dev/log");
        kavro_log_init(nullptr, 6, 16, 0, "mxadmin");
        kavro_log(3, "nobody listens");
        return errno;
    });
    EXPECT_EQ(run.status, EXDEV);
    char text[256] = "";
    EXPECT_GT(::recv(log, text, sizeof text - 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(std::string(text).substr(0, 4), "<22>");  // mail, information
    EXPECT_THAT(text, ::testing::ContainsRegex(" mxadmin.[0-9]+.: failed: why"));
    EXPECT_EQ(::recv(log, text, sizeof text, MSG_DONTWAIT), -1);
    EXPECT_NE(run.err.find("]: failed: why\n"), std::string::npos);
    ::close(log);
}

}  // namespace
