// The wiring of the child's streams, fork, its way to exec, and the report of what went wrong on it.
#include "process/process_launch.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "process/retry.h"
#include "process/start_state.h"

namespace kavro::process {

namespace {

constexpr int kFirstOther = STDERR_FILENO + 1;

// Exit statuses of a child that could not run its program.
constexpr int kUnknownException = 65;
constexpr int kException = 66;
constexpr int kSystemError = 67;

/// The texts that name one stream's steps in errors.
struct StreamTags {
    const char* devNullOpen;
    const char* pipe;
    const char* invalid;
    const char* dup2;
};

/// What the child is to get as one of its standard streams.
struct ChildStream {
    int source = -1;  ///< -1: what the parent has
    FdOwner owned;    ///< holds `source` when it was opened here
};

/// All three, by number.
using ChildStreams = std::array<ChildStream, 3>;

constexpr std::array<StreamTags, 3> kTags = {{
    {"stdin /dev/null open", "stdin pipe", "invalid FD for stdin", "stdin dup2"},
    {"stdout /dev/null open", "stdout pipe", "invalid FD for stdout", "stdout dup2"},
    {"stderr /dev/null open", "stderr pipe", "invalid FD for stderr", "stderr dup2"},
}};

/// A caller's descriptor may itself be 0 to 2, and wiring an earlier stream would put another file there.
void saveOverwrittenSources(ChildStreams& streams) {
    for (std::size_t target = 1; target < streams.size(); ++target) {
        const int source = streams[target].source;
        if (source < 0 || source >= static_cast<int>(target)) {
            continue;
        }
        const int before = streams[static_cast<std::size_t>(source)].source;
        if (before != -1 && before != source) {
            streams[target].owned = FdOwner(
                checkedCall(kTags[target].dup2, [&] { return ::fcntl(source, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); }));
            streams[target].source = streams[target].owned.get();
        }
    }
}

/// Opens stream number `target` as the selector of ProcessLaunch says; `parentEnd` gets the other end of a pipe.
/// Throws SystemError, std::invalid_argument.
ChildStream openChildStream(int target, int selector, FdOwner& parentEnd) {
    const StreamTags& tags = kTags[static_cast<std::size_t>(target)];
    const bool input = target == STDIN_FILENO;
    ChildStream stream;
    switch (selector) {
        case ProcessLaunch::INHERIT:
            return stream;
        case ProcessLaunch::DEV_NULL: {
            const int flags = O_CLOEXEC | (input ? O_RDONLY : O_WRONLY);
            FdOwner null(checkedCall(tags.devNullOpen, [&] { return ::open("/dev/null", flags); }));
            stream.owned = aboveStandardStreams(std::move(null), tags.devNullOpen);
            break;
        }
        case ProcessLaunch::PIPE: {
            PipeOwner pipe;
            pipe.create(tags.pipe);
            stream.owned = std::move(input ? pipe.readEnd() : pipe.writeEnd());
            parentEnd = std::move(input ? pipe.writeEnd() : pipe.readEnd());
            break;
        }
        default:
            if (selector < 0) {
                throw std::invalid_argument(tags.invalid);
            }
            stream.source = selector;
            return stream;
    }
    stream.source = stream.owned.get();
    return stream;
}

/// In the child: makes the sources its descriptors 0 to 2 and closes those that were opened for it. Throws SystemError.
void connectStreams(ChildStreams& streams) {
    saveOverwrittenSources(streams);
    for (std::size_t i = 0; i < streams.size(); ++i) {
        const int target = static_cast<int>(i);
        const int source = streams[i].source;
        if (source == target) {
            // dup2(2) onto itself would leave the mark in place.
            checkedCall(kTags[i].dup2, [&] { return ::fcntl(target, F_SETFD, 0); });
        } else if (source >= 0) {
            checkedCall(kTags[i].dup2, [&] { return ::dup2(source, target); });
        }
        streams[i].owned.close();
    }
}

/// What the child does before the new program takes over.
struct ChildTask {
    const char* const* argv;
    const char* path;
    const char* cwd;
    const char* const* envp;
    bool closeDescriptors;
    bool searchPath;
    bool callSetsid;
    const boost::function<void()>& beforeExec;
    ChildGrant grant;
    ChildStreams streams;

    // The exec functions do not change what they are given; their types are older than const.
    char* const* arguments() const { return const_cast<char* const*>(argv); }
    char* const* environment() const { return const_cast<char* const*>(envp); }
};

/// What is still buffered at fork(2) would be written by both processes.
void flushStandardStreams() {
    std::cout.flush();
    std::cerr.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

/// Soft limit of open files: one more than the highest descriptor.
rlim_t openFilesLimit() {
    constexpr rlim_t kAssumed = 20;
    rlimit limit{};
    return retryInterrupted([&] { return ::getrlimit(RLIMIT_NOFILE, &limit); }) == -1 ? kAssumed : limit.rlim_cur;
}

/// Closes first to last, whatever is open there. The limit may be a billion, so the kernel does it where it can.
void closeRange(unsigned first, unsigned last) {
    if (first > last || ::close_range(first, last, 0) == 0) {
        return;
    }
    for (unsigned fd = first; fd <= last; ++fd) {
        retryInterrupted([&] { return ::close(static_cast<int>(fd)); });
    }
}

/// Closes everything above the standard streams but `kept` (-1: nothing is kept). Keeps errno.
void closeOthers(int kept) {
    const ErrnoKeeper keeper;
    const rlim_t limit = std::min<rlim_t>(openFilesLimit(), 1U << 31U);
    if (limit > kFirstOther) {
        const auto last = static_cast<unsigned>(limit - 1);
        if (kept < kFirstOther) {
            closeRange(kFirstOther, last);
        } else {
            const auto gap = static_cast<unsigned>(kept);
            closeRange(kFirstOther, std::min(gap - 1, last));
            closeRange(gap + 1, last);
        }
    }
}

/// Returns never: it throws, or the new program runs.
void runProgram(ChildTask& task, int controlFd) {
    connectStreams(task.streams);
    if (task.cwd != nullptr) {
        checkedCall("cwd chdir", [&] { return ::chdir(task.cwd); });
    }
    if (task.closeDescriptors) {
        closeOthers(controlFd);
    }
    if (task.callSetsid) {
        checkedCall("setsid", [] { return ::setsid(); });
    }
    // The caller may ignore them; programs count on being stopped by them.
    restoreSignalActions();
    if (task.grant.signal != 0) {
        sigset_t granted;
        sigemptyset(&granted);
        sigaddset(&granted, task.grant.signal);
        checkedCall("set sigprocmask", [&] { return ::sigprocmask(SIG_UNBLOCK, &granted, nullptr); });
    }
    if (task.grant.descriptor != -1) {
        checkedCall("fcntl", [&] { return ::fcntl(task.grant.descriptor, F_SETFD, 0); });
    }
    if (!task.beforeExec.empty()) {
        task.beforeExec();
    }
    if (task.envp != nullptr) {
        checkedCall("execve", [&] { return ::execve(task.path, task.arguments(), task.environment()); });
    } else if (!task.searchPath) {
        checkedCall("execv", [&] { return ::execv(task.path, task.arguments()); });
    } else {
        checkedCall("execvp", [&] { return ::execvp(task.path, task.arguments()); });
    }
}

/// Ends the child. Only what the child itself has written to its standard output and error may still go out: a stream
/// of the caller's would write its buffer a second time, and one that reads ahead, standard input first of all, would
/// move the offset that both processes share.
[[noreturn]] void leaveChild(int status) {
    ::close(STDIN_FILENO);
    closeOthers(-1);
    std::exit(status);
}

[[noreturn]] void runChild(ChildTask& task, PipeOwner& control, std::array<FdOwner*, 3> parentEnds) {
    // What could not be flushed before the fork is not this process's to deliver.
    ::__fpurge(stdout);
    const int controlFd = control.writeEnd().get();
    try {
        control.readEnd().close();
        for (FdOwner* end : parentEnds) {
            end->close();
        }
        runProgram(task, controlFd);
    } catch (const SystemError& error) {
        writeException(controlFd, "SystemError", error.what());
        writeErrorCode(controlFd, error.code());
        leaveChild(kSystemError);
    } catch (const std::runtime_error& error) {
        writeException(controlFd, "std::runtime_error", error.what());
        leaveChild(kException);
    } catch (const std::exception& error) {
        writeException(controlFd, "std::exception", error.what());
        leaveChild(kException);
    } catch (...) {
        writeException(controlFd, "std::runtime_error", "unknown error");
    }
    leaveChild(kUnknownException);
}

/// What posix_spawn(3) is to do in the child.
class SpawnPlan {
public:
    SpawnPlan() {
        note(::posix_spawn_file_actions_init(&actions_));
        note(::posix_spawnattr_init(&attributes_));
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        ::posix_spawnattr_destroy(&attributes_);
        ::posix_spawn_file_actions_destroy(&actions_);
    }

    /// A descriptor made its own duplicate loses its mark to be closed.
    void duplicate(int source, int target) { note(::posix_spawn_file_actions_adddup2(&actions_, source, target)); }
    void setSignals(const sigset_t& toDefault, const sigset_t& mask) {
        note(::posix_spawnattr_setsigdefault(&attributes_, &toDefault));
        note(::posix_spawnattr_setsigmask(&attributes_, &mask));
        note(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
    }
    /// The child's id, -1 when anything failed.
    pid_t start(const ChildTask& task) {
        pid_t pid = -1;
        char* const* environment = task.envp == nullptr ? environ : task.environment();
        const auto spawnProgram = task.searchPath ? ::posix_spawnp : ::posix_spawn;
        if (!failed_) {
            note(spawnProgram(&pid, task.path, &actions_, &attributes_, task.arguments(), environment));
        }
        return failed_ ? -1 : pid;
    }

private:
    void note(int error) { failed_ = failed_ || error != 0; }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    bool failed_ = false;
};

/// The child by posix_spawn(3), which copies nothing of this process: half of the price of fork(2). -1 when it cannot
/// do what the task asks for, or failed: it does not say in which step, and fork(2) and its report will.
pid_t spawn(const ChildTask& task) {
    const bool crossing = std::any_of(task.streams.begin(), task.streams.end(), [](const ChildStream& stream) {
        return stream.source >= 0 && stream.source < kFirstOther;
    });
    if (crossing || task.cwd != nullptr || task.closeDescriptors || task.callSetsid || !task.beforeExec.empty() ||
        (task.envp != nullptr && task.searchPath)) {
        return -1;
    }
    SpawnPlan plan;
    for (int target = 0; target < kFirstOther; ++target) {
        if (const int source = task.streams[static_cast<std::size_t>(target)].source; source != -1) {
            plan.duplicate(source, target);
        }
    }
    if (task.grant.descriptor != -1) {
        plan.duplicate(task.grant.descriptor, task.grant.descriptor);
    }
    sigset_t toDefault;
    sigemptyset(&toDefault);
    for (const int signal : kIgnoredSignals) {
        sigaddset(&toDefault, signal);
    }
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    if (task.grant.signal != 0) {
        sigdelset(&mask, task.grant.signal);
    }
    plan.setSignals(toDefault, mask);
    return plan.start(task);
}

}  // namespace

ProcessLaunch::ProcessLaunch(const char* const* argv, const char* path, const char* cwd, const char* const* envp,
                             bool closeDescriptors, bool searchPath, bool callSetsid,
                             const boost::function<void()>& beforeExec, int stdinFd, int stdoutFd, int stderrFd,
                             const ChildGrant& grant) {
    ChildTask task{argv, path, cwd, envp, closeDescriptors, searchPath, callSetsid, beforeExec, grant, {}};
    task.streams[STDIN_FILENO] = openChildStream(STDIN_FILENO, stdinFd, stdin_);
    task.streams[STDOUT_FILENO] = openChildStream(STDOUT_FILENO, stdoutFd, stdout_);
    task.streams[STDERR_FILENO] = openChildStream(STDERR_FILENO, stderrFd, stderr_);
    control_.create("pipe");  // Close-on-exec on both ends: end of file tells that the program was started.
    flushStandardStreams();
    pid_ = spawn(task);
    if (pid_ == -1) {
        pid_ = checkedCall("pipe", [] { return ::fork(); });  // Kept: the tag is the previous step's.
        if (pid_ == 0) {
            runChild(task, control_, {&stdin_, &stdout_, &stderr_});
        }
    }
    control_.writeEnd().close();
    for (ChildStream& stream : task.streams) {
        stream.owned.close();
    }
}

void ProcessLaunch::waitExec() {
    std::string report;
    std::array<char, 1024> chunk{};
    const int fd = control_.readEnd().get();
    const auto readChunk = [&] {
        return checkedCall("control pipe read", [&] { return ::read(fd, chunk.data(), chunk.size()); });
    };
    for (ssize_t size = readChunk(); size > 0; size = readChunk()) {
        report.append(chunk.data(), static_cast<std::size_t>(size));
    }
    control_.readEnd().close();
    throwReportedFailure(report);
}

int ProcessLaunch::waitExit() {
    constexpr const char* kTag = "unable to wait for child process exit";
    int status = 0;
    if (checkedCall(kTag, [&] { return ::waitpid(pid_, &status, 0); }) == 0) {
        throw SystemError(kTag, errno);
    }
    return status;
}

}  // namespace kavro::process
