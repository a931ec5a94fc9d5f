// Pipelines: data in both directions, commands that fail, and callers in odd states.
#include "process/pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

#include "process/process_launch.h"
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
    for (int i = 0; text.size() < size; ++i) {
        text += std::to_string(i) + '\n';
    }
    return text;
}

/// A pipeline with a text to read and a string to write to.
struct TestPipe {
    std::string out;
    std::string err;
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
    std::vector<std::pair<unsigned long, int>> ends;
    Command second = run.withErrors(shell("head -c 300000 /dev/zero >&2; cat"));
    second.onExit = [&](unsigned long index, int status) { ends.emplace_back(index, status); };
    run.pipe.append(second);
    run.pipe.append(run.withErrors(shell("cat; exit 3")));
    run.pipe.run();
    EXPECT_TRUE(run.out == text) << run.out.size();
    EXPECT_EQ(run.err.size(), 300004U);
    EXPECT_EQ(ends, (std::vector<std::pair<unsigned long, int>>{{1, 0}}));
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
    for (const std::size_t size : {std::size_t{10}, std::size_t{1000000}}) {
        // The first write already finds no reader.
        Command failing = shell("echo fatal: sorry >&2; exit 1");
        failing.beforeExec = [] { ::close(STDIN_FILENO); };
        TestPipe refused(failing, numbers(size));
        refused.pipe.run();
        EXPECT_EQ(refused.err, "fatal: sorry\n");
        EXPECT_EQ(WEXITSTATUS(refused.status()), 1);
        Command succeeding = shell("exec >&-; echo late >&2");
        succeeding.beforeExec = failing.beforeExec;
        TestPipe ignored(succeeding, numbers(size));
        EXPECT_EQ(textOf<SystemError>([&] { ignored.pipe.run(); }), "write: Broken pipe");
        EXPECT_EQ(ignored.err, "late\n");
    }
    TestPipe killed(shell("kill $$"), numbers(1000000));
    killed.pipe.run();
    EXPECT_EQ(WTERMSIG(killed.status()), SIGTERM);
    TestPipe half(shell("head -c 5"), numbers(1000000));
    EXPECT_EQ(textOf<SystemError>([&] { half.pipe.run(); }), "write: Broken pipe");
    EXPECT_EQ(half.out, "0\n1\n2");
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);  // restored
}

TEST(PipeTest, UnservedChannelsNeitherBlockNorFeed) {
    Command command = shell("cat; head -c 300000 /dev/zero; head -c 300000 /dev/zero >&2");
    command.stderrChannel.fd = PIPE;
    Pipe pipe(command);
    pipe.flags().stdinChannel.fd = PIPE;
    pipe.flags().stdoutChannel.fd = PIPE;
    pipe.run();
    EXPECT_EQ(pipe.statuses().at(0).status, 0);
    TestPipe empty(shell("cat; echo end"), "");
    empty.pipe.run();
    EXPECT_EQ(empty.out, "end\n");
}

TEST(PipeTest, AllThatIsLeftAtTheEndIsReadButAGrandchildIsNotWaitedFor) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    // The grandchild holds the output until this test closes its end; the command itself ends at once.
    Command command = shell("echo $$; head -c 500000 /dev/zero; cat <&" + std::to_string(ends[0]) + " &");
    command.beforeExec = [] { ::fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 1 << 20); };
    TestPipe run(command, "");
    run.pipe.flags().stdoutChannel.function = [&](const std::vector<char>& chunk) {
        while (run.out.empty() && ::kill(std::atoi(chunk.data()), 0) == 0) {  // until it has ended
        }
        collectOutput(run.out, chunk);
    };
    run.pipe.run();
    EXPECT_EQ(run.out.size() - run.out.find('\0'), 500000U);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(PipeTest, BareNamesAreLookedUpAndPathsAreNot) {
    Command local("./sh", "-c", "echo \"$0\" \"$#\" \"$PWD\"", "a", "", "c");
    local.cwd = "/bin";
    TestPipe run(local, "");
    run.pipe.run();
    EXPECT_EQ(run.out.substr(0, 4), "a 0 ");
    local.path = "sh";
    local.cwd = "/";
    TestPipe found(local, "");
    found.pipe.run();
    EXPECT_EQ(found.out, "a 0 /\n");
}

TEST(PipeTest, CallersInOddStatesAreServedAndRestored) {
    const auto result = test::inSubprocess([] {
        sigset_t mask;
        ::sigemptyset(&mask);
        ::sigaddset(&mask, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &mask, nullptr);
        std::signal(SIGCHLD, SIG_IGN);
        ::alarm(60);  // A lost signal would be waited for without end.
        const int errors = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);
        ::close(STDERR_FILENO);
        TestPipe run(shell("cat; echo err >&2; exit 4"), "data");
        run.pipe.run();
        ::dup2(errors, STDERR_FILENO);
        test::require(run.out == "data" && run.err == "err\n" && WEXITSTATUS(run.status()) == 4, "results");
        ::sigprocmask(SIG_BLOCK, nullptr, &mask);
        test::require(::sigismember(&mask, SIGCHLD) == 1, "mask restored");
        test::require(std::signal(SIGCHLD, SIG_DFL) == SIG_IGN, "action restored");
    });
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST(PipeTest, ExceptionsLeaveNothingInstalled) {
    TestPipe run(shell("echo out; cat"), "in");
    run.pipe.flags().stdoutChannel.function = [](const std::vector<char>&) { throw std::range_error("consumer"); };
    EXPECT_THROW(run.pipe.run(), std::range_error);
    TestPipe broken(shell("cat"), "in");
    broken.pipe.append(Command("/nonexistent/second"));
    EXPECT_THROW(broken.pipe.run(), SystemError);
    EXPECT_EQ(__global_handler, nullptr);
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
}

TEST(PipeTest, ManyOpenDescriptorsAreNoObstacleAndTooManyAreReported) {
    const auto result = test::inSubprocess([] {
        const rlimit limit{20000, 20000};
        test::require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "limit");
        const auto occupyUpTo = [](int last) {
            while (::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3) < last) {
            }
        };
        const std::string text = numbers(200000);
        occupyUpTo(2000);
        TestPipe many(shell("cat; echo err >&2"), text);
        many.pipe.run();
        test::require(many.out == text && many.err == "err\n", "data above 1024");
        occupyUpTo(16384);
        TestPipe tooMany(shell("cat"), text);
        std::cout << textOf<SystemError>([&] { tooMany.pipe.run(); }) << std::endl;
    });
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "select: Invalid argument\n");
}

}  // namespace
}  // namespace kavro::process
