// Pipelines: data in both directions, commands that fail, callers in odd states; and the reaping of their children.
#include "process/pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

#include "process/process_launch.h"
#include "process/signal_blocker.h"
#include "process/subprocess.h"
#include "process/system_error.h"

namespace kavro::process {
namespace {

using test::textOf;
constexpr int PIPE = ProcessLaunch::PIPE;
using Command = Parameters<PipeProcessFlags>;

Command shell(const std::string& script) {
    return Command("/bin/sh", "-c", script);
}

/// Feeds a text in pieces that are larger than a pipe.
Producer feeder(const std::string& text) {
    return [text, position = std::size_t{0}](std::vector<char>& buffer) mutable {
        const std::string part = text.substr(position, 100000);
        buffer.assign(part.begin(), part.end());
        position += part.size();
        return position < text.size();
    };
}

std::string numbers(std::size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; text += std::to_string(i++) + '\n') {
    }
    return text;
}

/// A pipeline with a text to read and strings to write to.
struct TestPipe {
    std::string out, err;
    Pipe pipe;

    TestPipe(Command first, const std::string& input) : pipe(withErrors(std::move(first))) {
        pipe.flags().stdinChannel = {PIPE, feeder(input)};
        pipe.flags().stdoutChannel = {PIPE, makeStringReceiver(out)};
    }
    Command withErrors(Command command) {
        command.stderrChannel = {PIPE, makeStringReceiver(err)};
        return command;
    }
    int status(std::size_t i = 0) const { return pipe.statuses().at(i).status; }
};

TEST(PipeTest, LargeDataPassesThroughThreeCommandsAndAllErrorsAreCollected) {
    const std::string text = numbers(4000000);
    TestPipe run(shell("cat; echo one >&2"), text);
    std::string ends;
    Command second = run.withErrors(shell("head -c 300000 /dev/zero >&2; cat"));
    second.onExit = [&](unsigned long index, int status) {
        ends += std::to_string(index) + ":" + std::to_string(status);
    };
    run.pipe.append(second);
    run.pipe.append(run.withErrors(shell("cat; exit 3")));
    run.pipe.run();
    EXPECT_TRUE(run.out == text) << run.out.size();
    EXPECT_EQ(run.err.size(), 300004U);
    EXPECT_EQ(ends, "1:0");
    EXPECT_EQ(WEXITSTATUS(run.status(2)), 3);
}

TEST(PipeTest, RunsOnceAndWritersEndWithTheirReaders) {
    TestPipe run(Command("yes"), "");
    run.pipe.append(Command("head", "-c", "2"));
    run.pipe.run();
    EXPECT_EQ(run.out, "y\n");
    EXPECT_TRUE(WIFSIGNALED(run.status()) && WTERMSIG(run.status()) == SIGPIPE);
    EXPECT_EQ(textOf<std::logic_error>([&] { run.pipe.run(); }), "the pipe has been launched already");
    EXPECT_EQ(textOf<std::logic_error>([&] { run.pipe.append(shell("true")); }),
              "adding processes to the launched pipe is prohibited");
}

TEST(PipeTest, UnreadInputIsAnErrorUnlessTheCommandFailedItself) {
    for (const auto& [size, end, thrown] : {std::tuple{10U, "exit 1", "nothing thrown"},
                                            {1000000U, "kill $$", "nothing thrown"},
                                            {10U, "exit 0", "write: Broken pipe"},
                                            {1000000U, "exit 0", "write: Broken pipe"}}) {
        // The first write already finds no reader.
        Command command = shell(std::string("exec >&-; echo last words >&2; ") + end);
        command.beforeExec = [] { ::close(STDIN_FILENO); };
        TestPipe refused(command, numbers(size));
        EXPECT_EQ(textOf<SystemError>([&] { refused.pipe.run(); }), thrown) << end << size;
        EXPECT_EQ(refused.err, "last words\n");
    }
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);  // restored
}

TEST(PipeTest, AllThatIsLeftAtTheEndIsReadButAGrandchildIsNotWaitedFor) {
    ::alarm(30);
    TestPipe run(shell("echo $$; head -c 50000 /dev/zero; sleep 60 &"), "");
    run.pipe.flags().stdoutChannel.function = [&](const std::vector<char>& chunk) {
        while (run.out.empty() && ::kill(std::atoi(chunk.data()), 0) == 0) {  // until it has ended
        }
        collectOutput(run.out, chunk);
    };
    run.pipe.run();
    ::alarm(0);
    EXPECT_EQ(run.out.size() - run.out.find('\0'), 50000U);
}

TEST(PipeTest, BareNamesAreLookedUpAndPathsAreNot) {
    for (const char* path : {"./sh", "sh"}) {
        Command local("", "-c", "echo \"$0\" \"$#\" \"$PWD\"", "a", "", "c");
        local.argv[0] = path;
        local.cwd = "/usr/bin";
        TestPipe run(local, "");
        run.pipe.run();
        EXPECT_EQ(run.out, "a 0 /usr/bin\n");
    }
}

TEST(PipeTest, CallersInOddStatesAreServedAndRestored) {
    const auto result = test::inSubprocess([] {
        const SigBlocker blocker({SIGCHLD});
        std::signal(SIGCHLD, SIG_IGN);
        ::alarm(60);  // A lost signal would be waited for without end.
        const rlimit limit{20000, 20000};
        test::require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "limit");
        while (::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3) < 2000) {
        }
        ::close_range(STDIN_FILENO, STDERR_FILENO, 0);
        const std::string text = numbers(200000);
        TestPipe run(shell("cat; echo err >&2; exit 4"), text);
        run.pipe.run();
        ::dup2(2000, STDOUT_FILENO);
        ::dup2(2000, STDERR_FILENO);
        test::require(run.out == text && run.err == "err\n" && WEXITSTATUS(run.status()) == 4, "results");
        while (::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3) < 16383) {
        }
        TestPipe refused(shell("touch /tmp/ran"), "");
        test::require(textOf<SystemError>([&] { refused.pipe.run(); }) == "select: Invalid argument", "refused");
        ::wait(nullptr);
        test::require(::access("/tmp/ran", F_OK) == -1, "nothing ran");
        sigset_t mask;
        ::sigprocmask(SIG_BLOCK, nullptr, &mask);
        test::require(::sigismember(&mask, SIGCHLD) == 1, "mask restored");
        test::require(std::signal(SIGCHLD, SIG_DFL) == SIG_IGN, "action restored");
    });
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST(PipeTest, ExceptionsLeaveNothingInstalledAndNoCommandRunning) {
    int child = 0;
    TestPipe run(shell("echo $$; cat; sleep 0.2"), "in");
    run.pipe.flags().stdoutChannel.function = [&](const std::vector<char>& chunk) {
        child = std::atoi(chunk.data());
        throw std::range_error("consumer");
    };
    EXPECT_THROW(run.pipe.run(), std::range_error);
    EXPECT_EQ(::kill(child, 0), -1);
    EXPECT_EQ(__global_handler, nullptr);
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
}

/// A registered child that waits for the end.
pid_t startWaiting(ProcessSetCatcher& catcher) {
    const SigBlocker blocker({SIGCHLD});
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::pause();
    }
    catcher.registerChild(pid);
    return pid;
}

TEST(ProcessSetCatcherTest, ReapsAllAndRemembersItsOwn) {
    ProcessSetCatcher catcher;
    catcher.install();
    EXPECT_EQ(textOf<std::logic_error>([] { ProcessSetCatcher().install(); }),
              "ProcessSetCatcher instance has been installed already");
    const pid_t stranger = ::fork();
    if (stranger == 0) {
        ::_exit(7);
    }
    while (::kill(stranger, 0) == 0) {  // until the handler has reaped it
    }
    EXPECT_EQ(catcher.clear_control(), 0U);
    EXPECT_EQ(textOf<SystemError>([&] { catcher.status(stranger); }), "no such pid: No such process");
    const pid_t child = startWaiting(catcher);
    ::kill(child, SIGKILL);
    errno = ENOSPC;
    while (catcher.clear_control() != 1) {
    }
    ::raise(SIGCHLD);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(catcher.status(child).ended());
    EXPECT_EQ(WTERMSIG(catcher.status(child).status), SIGKILL);
    EXPECT_FALSE((ProcessStatus{1, W_STOPCODE(SIGSTOP)}.ended()));
    catcher.remove(false);
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
}

TEST(ProcessSetCatcherTest, RemovalWithRunningChildrenIsAnErrorAndEndsAllTheSame) {
    pid_t running = -1;
    const auto leaveRunning = [&] {
        ProcessSetCatcher catcher;
        catcher.install();
        running = startWaiting(catcher);
    };
    EXPECT_EQ(textOf<std::logic_error>(leaveRunning), "there're some child processes still running");
    EXPECT_EQ(__global_handler, nullptr);
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
    ::kill(running, SIGKILL);
}

}  // namespace
}  // namespace kavro::process
