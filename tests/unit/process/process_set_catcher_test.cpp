// Reaping of registered children from the signal handler.
#include "process/process_set_catcher.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ptrace.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "process/signal_blocker.h"
#include "process/subprocess.h"
#include "process/system_error.h"

namespace kavro::process {
namespace {

using test::textOf;

/// A child that runs `body` and ends with status 7.
pid_t startChild(void (*body)()) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(7);
    }
    return pid;
}

pid_t startRegistered(ProcessSetCatcher& catcher, void (*body)()) {
    const SigBlocker blocker({SIGCHLD});
    const pid_t pid = startChild(body);
    catcher.registerChild(pid);
    return pid;
}

void waitForByte(ProcessSetCatcher& catcher) {
    pollfd control{catcher.controlFd(), POLLIN, 0};
    while (::poll(&control, 1, -1) != 1) {
    }
}

bool sigchldIsDefault() {
    struct sigaction action {};
    ::sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

TEST(ProcessSetCatcherTest, KeepsStatusesOfRegisteredChildrenAndIgnoresOthers) {
    ProcessSetCatcher catcher;
    catcher.install();
    ProcessSetCatcher second;
    EXPECT_EQ(textOf<std::logic_error>([&] { second.install(); }),
              "ProcessSetCatcher instance has been installed already");
    const pid_t stranger = startChild([] {});
    while (::kill(stranger, 0) == 0) {  // until the handler has reaped it
    }
    EXPECT_EQ(catcher.clear_control(), 0U);
    const pid_t exiting = startRegistered(catcher, [] {});
    const pid_t killed = startRegistered(catcher, [] { ::raise(SIGKILL); });
    for (std::size_t bytes = 0; bytes < 2;) {
        waitForByte(catcher);
        errno = ENOSPC;
        bytes += catcher.clear_control();
        EXPECT_EQ(errno, ENOSPC);
    }
    ::raise(SIGCHLD);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(WEXITSTATUS(catcher.status(exiting).status), 7);
    EXPECT_TRUE(catcher.status(exiting).ended());
    EXPECT_EQ(WTERMSIG(catcher.status(killed).status), SIGKILL);
    EXPECT_THROW(catcher.status(stranger), SystemError);
    catcher.remove(false);
    EXPECT_TRUE(sigchldIsDefault());
}

TEST(ProcessSetCatcherTest, RemovalWithRunningChildrenNeedsForce) {
    const char* const text = "there're some child processes still running";
    pid_t running = -1;
    EXPECT_EQ(textOf<std::logic_error>([&] {
                  ProcessSetCatcher catcher;
                  catcher.install();
                  running = startRegistered(catcher, [] { ::pause(); });
                  EXPECT_EQ(textOf<std::logic_error>([&] { catcher.remove(false); }), text);
              }),
              text);
    EXPECT_EQ(__global_handler, nullptr);
    EXPECT_TRUE(sigchldIsDefault());
    ::kill(running, SIGKILL);
    ::waitpid(running, nullptr, 0);
}

TEST(ProcessSetCatcherTest, StopIsNoEnd) {
    ProcessSetCatcher catcher;
    catcher.install();
    // Only a traced child's stop is seen by a waitpid(2) that does not ask for stops.
    const pid_t pid = startRegistered(catcher, [] {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
    });
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
    ::raise(SIGCHLD);
    EXPECT_EQ(catcher.status(pid).received, 1);
    EXPECT_FALSE(catcher.status(pid).ended());
    EXPECT_EQ(catcher.clear_control(), 0U);
    EXPECT_THROW(catcher.remove(false), std::logic_error);
    catcher.remove(true);
    ::ptrace(PTRACE_KILL, pid, nullptr, nullptr);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace
}  // namespace kavro::process
