// One child: what it is given, what it reports, and what it must not touch.
#include "process/process_launch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <map>
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

    /// What waitExec() throws, and the child's exit status.
    std::string run() const {
        const std::array<const char*, 4> argv{path, "-c", script.c_str(), nullptr};
        ProcessLaunch child(argv.data(), path, cwd, envp, closeDescriptors, searchPath, false, beforeExec, streams[0],
                            streams[1], streams[2]);
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
    Launch launch;
    launch.path = "/nonexistent/program";
    EXPECT_EQ(launch.run(), "system: execv: No such file or directory: No such file or directory, 2, 67");
    launch.searchPath = true;
    EXPECT_EQ(launch.run(), "system: execvp: No such file or directory: No such file or directory, 2, 67");
    launch.envp = environ;
    launch.path = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: execve: Permission denied: Permission denied, 13, 67");
    launch.cwd = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: cwd chdir: Not a directory: Not a directory, 20, 67");
    launch.cwd = nullptr;
    launch.beforeExec = [] { throw std::runtime_error(""); };
    EXPECT_EQ(launch.run(), "runtime: an error in child process, 66");
    launch.beforeExec = [] { throw std::bad_alloc(); };
    EXPECT_EQ(launch.run(), "plain: std::exception, 66");
    launch.beforeExec = [] { throw 5; };
    EXPECT_EQ(launch.run(), "runtime: unknown error, 65");
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

TEST(ProcessLaunchTest, SelectorsThatMeanNothingAreRejected) {
    const std::map<std::string, std::array<int, 3>> cases{
        {"stdin", {-5, -1, -1}}, {"stdout", {INHERIT, -1, -1}}, {"stderr", {INHERIT, INHERIT, -1}}};
    for (const auto& [name, streams] : cases) {
        const Launch launch{.streams = streams};
        EXPECT_EQ(test::textOf<std::invalid_argument>([&] { launch.run(); }), "invalid FD for " + name);
    }
}

TEST(ProcessLaunchTest, StreamsAreWiredAlsoWhereTheNumbersCross) {
    const auto result = test::inSubprocess([] {
        Launch{.script = "echo to-out; echo to-err >&2", .streams = {INHERIT, STDERR_FILENO, STDOUT_FILENO}}.run();
        ::fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
        constexpr int DEV_NULL = ProcessLaunch::DEV_NULL;
        Launch{.script = "cat; echo kept; echo dropped >&2", .streams = {DEV_NULL, STDOUT_FILENO, DEV_NULL}}.run();
    });
    EXPECT_EQ(result.out, "to-err\nkept\n");
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

TEST(ProcessLaunchTest, ChildGetsDefaultSigpipeAndTheCallersMask) {
    const auto result = test::inSubprocess([] {
        std::signal(SIGPIPE, SIG_IGN);
        const SigBlocker blocker({SIGCHLD});
        // Bit 16 of the one and bit 12 of the other, by their hexadecimal digits.
        Launch{.script = "exec grep -cE 'SigBlk:.*[13579bdf].{4}$|SigIgn:.*[02468ace].{3}$' /proc/self/status"}.run();
    });
    EXPECT_EQ(result.out, "2\n");
}

TEST(ProcessLaunchTest, FailedChildTouchesNothingOfItsParents) {
    char path[] = "/tmp/launch-XXXXXX";
    ::close(::mkstemp(path));
    const auto result = test::inSubprocess([&] {
        const int input = ::memfd_create("input", 0);
        test::require(::write(input, "first\nsecond\n", 13) == 13 && ::lseek(input, 0, SEEK_SET) == 0, "input");
        test::require(::dup2(input, STDIN_FILENO) == 0 && std::getchar() == 'f', "read ahead");
        std::FILE* stream = std::fopen(path, "a");
        std::fputs("stream,", stream);
        std::cout << "once ";
        std::printf("only");
        test::require(!Launch{.path = "/nonexistent"}.run().empty(), "failure");
        test::require(::lseek(STDIN_FILENO, 0, SEEK_CUR) == 13, "shared offset");
        std::fclose(stream);
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "once only");
    EXPECT_EQ(test::contentsOf(::open(path, O_RDONLY)), "stream,");
    ::unlink(path);
}

}  // namespace
}  // namespace kavro::process
