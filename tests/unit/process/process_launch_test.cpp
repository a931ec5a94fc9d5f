// One child: what it is given, what it reports, and what it must not touch.
#include "process/process_launch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <fstream>
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
    const std::array<const char*, 1> environment{nullptr};
    launch.envp = environment.data();
    launch.path = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: execve: Permission denied: Permission denied, 13, 67");
    launch.cwd = "/etc/passwd";
    EXPECT_EQ(launch.run(), "system: cwd chdir: Not a directory: Not a directory, 20, 67");
    launch.cwd = nullptr;
    launch.beforeExec = [] { throw std::runtime_error("no luck"); };
    EXPECT_EQ(launch.run(), "runtime: no luck, 66");
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
    EXPECT_EQ(
        test::textOf<SystemError>([] { throwReportedFailure(std::string("ET: SystemError\0EM: tag\0EC: 1x", 30)); }),
        "tag: Invalid argument");
    EXPECT_THROW(throwReportedFailure("ET: something else"), std::bad_exception);
}

TEST(ProcessLaunchTest, SelectorsThatMeanNothingAreRejected) {
    const auto textFor = [](std::array<int, 3> streams) {
        return test::textOf<std::invalid_argument>([&] { Launch{.streams = streams}.run(); });
    };
    EXPECT_EQ(textFor({-5, -1, -1}), "invalid FD for stdin");
    EXPECT_EQ(textFor({INHERIT, -1, -1}), "invalid FD for stdout");
    EXPECT_EQ(textFor({INHERIT, INHERIT, -1}), "invalid FD for stderr");
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

rlim_t limitInChild = 0;

/// The limit can drop only after the fork: the launcher's own pipes need room.
void lowerLimitInChild() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limitInChild;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(ProcessLaunchTest, OtherDescriptorsAreClosedOnRequestAndUpToTheLimit) {
    const auto result = test::inSubprocess([] {
        ::dup2(STDIN_FILENO, 3);
        ::dup2(STDIN_FILENO, 40);
        ::pthread_atfork(nullptr, nullptr, lowerLimitInChild);
        Launch launch;
        launch.script = "test -e /proc/self/fd/3 || printf 3; test -e /proc/self/fd/40 || printf 40; echo .";
        launch.beforeExec = [] {
            limitInChild = 100;  // The new program needs some.
            lowerLimitInChild();
        };
        limitInChild = 100;
        launch.run();
        launch.closeDescriptors = true;
        for (const rlim_t limit : {100, 40, 3}) {
            limitInChild = limit;
            launch.run();
        }
    });
    EXPECT_EQ(result.out, ".\n340.\n3.\n.\n") << result.err;
}

TEST(ProcessLaunchTest, ChildGetsDefaultSigpipeAndTheCallersMask) {
    const auto result = test::inSubprocess([] {
        std::signal(SIGPIPE, SIG_IGN);
        const SigBlocker blocker({SIGCHLD});
        // Bit 16 of the one and bit 12 of the other, by their hexadecimal digits.
        const char* const pattern = "SigBlk:.*[13579bdf].{4}$|SigIgn:.*[02468ace].{3}$";
        const std::array<const char*, 5> argv{"grep", "-cE", pattern, "/proc/self/status", nullptr};
        ProcessLaunch(argv.data(), "grep", nullptr, nullptr, false, true, false, {}, INHERIT, INHERIT, INHERIT)
            .waitExit();
    });
    EXPECT_EQ(result.out, "2\n");
}

TEST(ProcessLaunchTest, FailedChildTouchesNothingOfItsParents) {
    char path[] = "/tmp/launch-XXXXXX";
    ::close(::mkstemp(path));
    const auto result = test::inSubprocess([&] {
        const int input = ::memfd_create("input", 0);
        test::require(::write(input, "first\nsecond\n", 13) == 13 && ::lseek(input, 0, SEEK_SET) == 0, "input");
        ::dup2(input, STDIN_FILENO);
        test::require(std::getchar() == 'f', "read ahead");
        static std::ofstream file(path, std::ios::app);
        file << "file,";
        std::FILE* stream = std::fopen(path, "a");
        std::fputs("stream,", stream);
        std::cout << "once ";
        std::printf("only");
        test::require(!Launch{.path = "/nonexistent"}.run().empty(), "failure");
        test::require(::lseek(STDIN_FILENO, 0, SEEK_CUR) == 13, "shared offset");
        file.flush();
        std::fclose(stream);
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "once only");
    std::ifstream written(path);
    std::string text;
    std::getline(written, text);
    EXPECT_EQ(text, "stream,file,");
    ::unlink(path);
}

}  // namespace
}  // namespace kavro::process
