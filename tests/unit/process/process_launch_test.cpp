// One child: what it is given, what it reports, and what it must not touch.
#include "process/process_launch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <sstream>

#include "process/signal_blocker.h"
#include "process/subprocess.h"
#include "process/system_error.h"

namespace kavro::process {
namespace {

constexpr int INHERIT = ProcessLaunch::INHERIT;

/// The launcher's arguments with the usual values, and a child's way from start to end.
struct Launch {
    std::string script = "true";
    const char* path = "/bin/sh";
    const char* cwd = nullptr;
    const char* const* envp = nullptr;
    bool closeDescriptors = false;
    bool searchPath = false;
    boost::function<void()> beforeExec{};
    std::array<int, 3> streams{INHERIT, INHERIT, INHERIT};
    ChildGrant grant{};

    /// What waitExec() throws, and the child's exit status.
    std::string run() const {
        const std::array<const char*, 4> argv{path, "-c", script.c_str(), nullptr};
        ProcessLaunch child(argv.data(), path, cwd, envp, closeDescriptors, searchPath, false, beforeExec, streams[0],
                            streams[1], streams[2], grant);
        std::string report;
        try {
            child.waitExec();
        } catch (const SystemError& error) {
            report = std::string("system: ") + error.what() + ", " + std::to_string(error.code()) + ", ";
        } catch (const std::runtime_error& error) {
            report = std::string("runtime: ") + error.what() + ", ";
        } catch (const std::exception& error) {
            report = std::string("plain: ") + error.what() + ", ";
        }
        return report + std::to_string(WEXITSTATUS(child.waitExit()));
    }
};

TEST(ProcessLaunchTest, FailureBeforeTheProgramRunsComesBackAsAnException) {
    Launch launch{.closeDescriptors = true};
    launch.path = "/nonexistent/program";
    EXPECT_EQ(launch.run(), "system: execv: No such file or directory: No such file or directory, 2, 67");
    launch.searchPath = true;
    EXPECT_EQ(launch.run(), "system: execvp: No such file or directory: No such file or directory, 2, 67");
    launch.envp = environ;
    launch.path = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: execve: Permission denied: Permission denied, 13, 67");
    launch.cwd = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: cwd chdir: Not a directory: Not a directory, 20, 67");
    launch = Launch{};
    launch.beforeExec = [] { throw std::runtime_error(""); };
    EXPECT_EQ(launch.run(), "runtime: an error in child process, 66");
    launch.beforeExec = [] { throw std::bad_alloc(); };
    EXPECT_EQ(launch.run(), "plain: std::exception, 66");
    launch.beforeExec = [] { throw 5; };
    EXPECT_EQ(launch.run(), "runtime: unknown error, 65");
    const auto rejection = [](std::array<int, 3> streams) {
        return test::textOf<std::invalid_argument>([&] { Launch{.streams = streams}.run(); });
    };
    EXPECT_EQ(rejection({-5, -1, -1}), "invalid FD for stdin");
    EXPECT_EQ(rejection({INHERIT, -1, -1}), "invalid FD for stdout");
    EXPECT_EQ(rejection({INHERIT, INHERIT, -1}), "invalid FD for stderr");
}

TEST(ProcessLaunchTest, ReportTextsAreReadAsTheyCame) {
    std::ostringstream log;
    auto* former = std::clog.rdbuf(log.rdbuf());
    EXPECT_NO_THROW(throwReportedFailure(std::string("hello\0EM: alone\0more", 20)));
    std::clog.rdbuf(former);
    EXPECT_EQ(log.str(), "child output: hello\nchild output: more\n");
    const std::string malformed("ET: SystemError\0EM: tag\0EC: 1x", 30);
    EXPECT_EQ(test::textOf<SystemError>([&] { throwReportedFailure(malformed); }), "tag: Invalid argument");
    EXPECT_THROW(throwReportedFailure("ET: something else"), std::bad_exception);
}

TEST(ProcessLaunchTest, ChildGetsItsStreamsAlsoWhereTheNumbersCrossAndTheCallersMaskButDefaultActions) {
    const auto result = test::inSubprocess([] {
        Launch{.script = "echo to-out; echo to-err >&2", .streams = {INHERIT, STDERR_FILENO, STDOUT_FILENO}}.run();
        ::fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
        constexpr int DEV_NULL = ProcessLaunch::DEV_NULL;
        Launch discarding{.script = "cat && echo dropped >&2 && echo kept",
                          .streams = {DEV_NULL, STDOUT_FILENO, DEV_NULL}};
        test::require(discarding.run() == "0", "null streams");
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGXFSZ, SIG_IGN);
        const SigBlocker blocker({SIGCHLD});
        ::fcntl(STDOUT_FILENO, F_SETFD, 0);
        ::dup3(STDOUT_FILENO, 9, O_CLOEXEC);
        // A working directory takes fork. Bit 16 of the one, bits 24 and 12 of the other, by their hexadecimal digits.
        for (const char* cwd : {static_cast<const char*>(nullptr), "/"}) {
            for (const int granted : {0, SIGCHLD}) {
                Launch{.script =
                           "echo granted >&9; exec grep -cE "
                           "'SigBlk:.*[13579bdf].{4}$|SigIgn:.*[02468ace]..[02468ace].{3}$' /proc/self/status",
                       .cwd = cwd,
                       .grant = {9, granted}}
                    .run();
            }
        }
    });
    EXPECT_EQ(result.out, "to-err\nkept\ngranted\n2\ngranted\n1\ngranted\n2\ngranted\n1\n");
    EXPECT_EQ(result.err, "to-out\n");
}

TEST(ProcessLaunchTest, OtherDescriptorsAreClosedOnRequestAndUpToTheLimit) {
    const auto result = test::inSubprocess([] {
        for (const int fd : {3, 39, 40}) {
            ::dup2(STDIN_FILENO, fd);
        }
        Launch launch;
        launch.script = "for i in 3 39 40; do test -e /proc/self/fd/$i || printf $i,; done; echo .";
        launch.run();
        launch.closeDescriptors = true;
        launch.run();
        const rlimit limit{40, 40};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        launch.run();
    });
    EXPECT_EQ(result.out, ".\n3,39,40,.\n3,39,.\n") << result.err;
}

TEST(ProcessLaunchTest, FailedChildTouchesNothingOfItsParents) {
    const auto result = test::inSubprocess([] {
        const int file = ::memfd_create("file", 0);
        test::require(::write(file, "first\nsecond\n", 13) == 13 && ::lseek(file, 0, SEEK_SET) == 0, "input");
        test::require(::dup2(file, STDIN_FILENO) == 0 && std::getchar() == 'f', "read ahead");
        std::FILE* output = ::fdopen(file, "a");
        std::fputs("third", output);
        std::cout << "once ";
        std::printf("only");
        test::require(!Launch{.path = "/nonexistent"}.run().empty(), "failure");
        test::require(::lseek(STDIN_FILENO, 0, SEEK_CUR) == 18, "offset");
        std::fclose(output);
        test::require(test::contentsOf(STDIN_FILENO) == "first\nsecond\nthird", "contents");
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "once only");
}

}  // namespace
}  // namespace kavro::process
