// The pipeline runner: launching, one select loop, and what is left to read at the end.
#include "process/pipe.h"

#include <sys/select.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <deque>
#include <stdexcept>

#include "process/pipe_channels.h"
#include "process/process_launch.h"
#include "process/retry.h"
#include "process/signal_blocker.h"

namespace kavro::process {

namespace {

using Commands = std::vector<Parameters<PipeProcessFlags>>;
// Its elements' destructors may throw, the container's may not: every descriptor is closed by the time it goes.
using Launches = std::deque<ProcessLaunch>;

constexpr int kUnset = -1;

/// Larger than fd_set, whose macros end a fortified program beyond 1023. Descriptors 0 to 16383, as the kernel reads
/// them: bit n % 64 of word n / 64.
class DescriptorSet {
public:
    static constexpr int kSize = 16384;

    /// Throws SystemError("select") with EINVAL for a descriptor that no set has room for.
    static void requireRoom(int fd) {
        if (fd < 0 || fd >= kSize) {
            throw SystemError("select", EINVAL);
        }
    }
    /// Throws as requireRoom() does.
    void add(int fd) {
        requireRoom(fd);
        word(fd) |= bit(fd);
    }
    bool contains(int fd) const noexcept {
        return fd >= 0 && fd < kSize && (words_[static_cast<std::size_t>(fd) / kWordBits] & bit(fd)) != 0;
    }
    /// For select(2), which reads and writes kSize bits.
    fd_set* native() noexcept { return reinterpret_cast<fd_set*>(words_.data()); }

private:
    static constexpr std::size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;

    static unsigned long bit(int fd) noexcept { return 1UL << (static_cast<std::size_t>(fd) % kWordBits); }
    unsigned long& word(int fd) noexcept { return words_[static_cast<std::size_t>(fd) / kWordBits]; }

    std::array<unsigned long, kSize / kWordBits> words_{};
};

int selectorOf(int fd) {
    return fd == kUnset ? ProcessLaunch::INHERIT : fd;
}

void launch(const Parameters<PipeProcessFlags>& command, int stdinFd, int stdoutFd, Launches& launches) {
    std::vector<const char*> argv;
    argv.reserve(command.argv.size() + 1);
    for (const std::string& argument : command.argv) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    const std::string& program = command.path.empty() ? command.argv.at(0) : command.path;
    const bool explicitPath = program.starts_with('.') || program.starts_with('/');
    launches.emplace_back(argv.data(), program.c_str(), command.cwd.empty() ? nullptr : command.cwd.c_str(),
                          command.envp, command.closeDescriptors, !explicitPath, false, command.beforeExec, stdinFd,
                          stdoutFd, selectorOf(command.stderrChannel.fd), command.grant);
}

/// Starts all commands. SIGCHLD is blocked meanwhile: none may end before its id is known to the catcher.
void launchAll(const Commands& commands, int stdinFd, int stdoutFd, ProcessSetCatcher& catcher, Launches& launches,
               std::vector<ProcessStatus>& statuses) {
    const SigBlocker blocker({SIGCHLD});
    catcher.install();
    // With as many descriptors open as the loop can tell apart, it fails before anything runs.
    DescriptorSet::requireRoom(catcher.controlFd());
    for (std::size_t i = 0; i < commands.size(); ++i) {
        const bool first = i == 0;
        const bool last = i + 1 == commands.size();
        const int source = first ? selectorOf(stdinFd) : launches.back().stdoutPipe().get();
        launch(commands[i], source, last ? selectorOf(stdoutFd) : ProcessLaunch::PIPE, launches);
        if (!first) {
            launches[i - 1].stdoutPipe().close("pipe read-end close");
        }
        launches.back().waitExec();
        catcher.registerChild(launches.back().pid());
        statuses.emplace_back();
    }
}

/// The loop that serves the commands until all of them have ended.
class Loop {
public:
    Loop(const PipeFlags& flags, const Commands& commands, ProcessSetCatcher& catcher, Launches& launches,
         std::vector<ProcessStatus>& statuses)
        : commands_(commands),
          catcher_(catcher),
          launches_(launches),
          statuses_(statuses),
          input_(launches.front().stdinPipe(), flags.stdinChannel.function) {
        registerChannel(launches.back().stdoutPipe(), flags.stdoutChannel.function);
        for (std::size_t i = 0; i < commands.size(); ++i) {
            registerChannel(launches[i].stderrPipe(), commands[i].stderrChannel.function);
        }
    }

    void run() {
        while (ended_ < commands_.size()) {
            input_.prepare();
            const bool idle = wait() == 0;
            if (idle || readable_.contains(catcher_.controlFd())) {
                collectEnds();
            }
            for (OutputChannel& output : outputs_) {
                if (output.open() && readable_.contains(output.fd())) {
                    output.serve();
                }
            }
            if (input_.wantsToWrite() && writable_.contains(input_.fd())) {
                input_.write();
            }
        }
    }

    /// What the commands wrote last. A grandchild may keep a pipe open for longer than we want to wait.
    void handleTailOutput() {
        for (OutputChannel& output : outputs_) {
            output.finish();
        }
    }

    bool inputRefused() const noexcept { return input_.refused(); }

private:
    void registerChannel(FdOwner& pipe, const Consumer& consumer) {
        if (!pipe.empty()) {
            outputs_.emplace_back(pipe, consumer);
        }
    }

    /// A writer that has to wake its reader for every block loses a tenth of its time. While output streams, the reader
    /// lets some of it gather; the end of a command cuts the pause short.
    void letOutputGather() const {
        const bool streams =
            std::any_of(outputs_.begin(), outputs_.end(), [](const OutputChannel& output) { return output.streams(); });
        if (streams && !input_.wantsToWrite()) {
            constexpr timespec kPause{0, 1000000};
            ::nanosleep(&kPause, nullptr);
        }
    }

    /// The number of descriptors that are ready; 0 after a second without any.
    int wait() {
        letOutputGather();
        readable_ = DescriptorSet();
        writable_ = DescriptorSet();
        readable_.add(catcher_.controlFd());
        for (const OutputChannel& output : outputs_) {
            if (output.open()) {
                readable_.add(output.fd());
            }
        }
        if (input_.wantsToWrite()) {
            writable_.add(input_.fd());
        }
        return checkedCall("select", [this] {
            // The end of a child that could not be told through the control pipe is found after a second.
            timeval limit{1, 0};
            return ::select(DescriptorSet::kSize, readable_.native(), writable_.native(), nullptr, &limit);
        });
    }

    void collectEnds() {
        catcher_.clear_control();
        for (std::size_t i = 0; i < commands_.size(); ++i) {
            ProcessStatus& known = statuses_[i];
            if (known.ended()) {
                continue;
            }
            known = currentStatus(launches_[i].pid());
            if (!known.ended()) {
                continue;
            }
            if (!commands_[i].onExit.empty()) {
                commands_[i].onExit(i, known.status);
            }
            ++ended_;
            if (i == 0) {
                input_.stop();
            }
        }
    }

    /// The handler changes the entry, so it is kept out while the entry is copied.
    ProcessStatus currentStatus(pid_t pid) const {
        const SigBlocker blocker({SIGCHLD});
        return catcher_.status(pid);
    }

    const Commands& commands_;
    ProcessSetCatcher& catcher_;
    Launches& launches_;
    std::vector<ProcessStatus>& statuses_;
    InputFeed input_;
    std::vector<OutputChannel> outputs_;
    DescriptorSet readable_;
    DescriptorSet writable_;
    std::size_t ended_ = 0;
};

/// What the caller does next, an undo perhaps, must not meet commands that still run. With their streams closed they
/// come to their end.
void endAll(ProcessSetCatcher& catcher, Launches& launches) {
    for (ProcessLaunch& launch : launches) {
        for (FdOwner* end : {&launch.stdinPipe(), &launch.stdoutPipe(), &launch.stderrPipe()}) {
            end->close_nothrow();
        }
    }
    const SigBlocker blocker({SIGCHLD});
    for (const ProcessLaunch& launch : launches) {
        // One that the handler has reaped already is unknown to waitpid(2).
        retryInterrupted([&] { return ::waitpid(launch.pid(), nullptr, 0); });
    }
    catcher.remove(true);
}

bool succeeded(const ProcessStatus& status) {
    return WIFEXITED(status.status) && WEXITSTATUS(status.status) == 0;
}

}  // namespace

Pipe::Pipe(const Parameters<PipeProcessFlags>& first) : commands_{first} {
}

void Pipe::append(const Parameters<PipeProcessFlags>& next) {
    if (launched_) {
        throw std::logic_error("adding processes to the launched pipe is prohibited");
    }
    commands_.push_back(next);
}

void Pipe::run() {
    if (launched_) {
        throw std::logic_error("the pipe has been launched already");
    }
    if (commands_.empty()) {
        throw std::logic_error("No processes to launch were assigned so far");
    }
    launched_ = true;
    const SigIgnorer brokenPipes(SIGPIPE);
    ProcessSetCatcher catcher;
    Launches launches;
    bool refused = false;
    try {
        launchAll(commands_, flags_.stdinChannel.fd, flags_.stdoutChannel.fd, catcher, launches, statuses_);
        const SigUnblocker childEnds({SIGCHLD});
        Loop loop(flags_, commands_, catcher, launches, statuses_);
        loop.run();
        loop.handleTailOutput();
        catcher.remove(false);
        refused = loop.inputRefused();
    } catch (...) {
        endAll(catcher, launches);
        throw;
    }
    // A command that failed tells more by its status and its diagnostics than we know.
    if (refused && succeeded(statuses_.front())) {
        throw SystemError("write", EPIPE);
    }
}

void collectOutput(std::string& target, const std::vector<char>& chunk) {
    target.append(chunk.begin(), chunk.end());
}

Consumer makeStringReceiver(std::string& target) {
    return [&target](const std::vector<char>& chunk) { collectOutput(target, chunk); };
}

}  // namespace kavro::process
