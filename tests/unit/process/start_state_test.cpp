// The state that a program starts in, whatever its caller was.
#include "process/start_state.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "process/signal_blocker.h"
#include "process/subprocess.h"

namespace kavro::process {
namespace {

namespace fs = std::filesystem;
using test::require;

bool isNull(int fd) {
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == "/dev/null" && ::fcntl(fd, F_GETFD) == 0;
}

TEST(StartStateTest, WorstCallerIsPutRight) {
    const auto result = test::inSubprocess([] {
        char directory[] = "/tmp/start-XXXXXX";
        require(::mkdtemp(directory) != nullptr && ::chdir(directory) == 0, "set up");
        const SigBlocker blocker({SIGCHLD, SIGUSR1});
        std::signal(SIGCHLD, SIG_IGN);
        std::signal(SIGPIPE, SIG_DFL);
        ::umask(0);
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);

        normalizeStartState();

        require(isNull(STDIN_FILENO) && isNull(STDOUT_FILENO), "closed descriptors are /dev/null");
        require(!isNull(STDERR_FILENO), "an open descriptor stays");
        require(std::signal(SIGCHLD, SIG_DFL) == SIG_DFL, "SIGCHLD default");
        require(std::signal(SIGPIPE, SIG_DFL) == SIG_IGN, "SIGPIPE ignored");
        sigset_t signals;
        ::sigprocmask(SIG_BLOCK, nullptr, &signals);
        require(::sigismember(&signals, SIGCHLD) == 0 && ::sigismember(&signals, SIGUSR1) == 1, "SIGCHLD alone let in");
        require(::umask(0) == 022, "umask");
        require(fs::current_path() == directory && ::rmdir(directory) == 0, "usable directory stays");
        normalizeStartState();
        require(fs::current_path() == "/", "removed directory is left");
    });
    EXPECT_EQ(result.status, 0) << result.err;
}

}  // namespace
}  // namespace kavro::process
