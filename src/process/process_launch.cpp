// fork, the child's way to exec, and the report of what went wrong on it.
#include "process/process_launch.h"

#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "process/child_streams.h"
#include "process/retry.h"

namespace kavro::process {

namespace {

constexpr int kFirstOther = STDERR_FILENO + 1;

/// Exit statuses of a child that could not run its program.
enum ChildStatus : int { kUnknownException = 65, kException = 66, kSystemError = 67 };

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
    ChildStreams streams;
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
    const int saved = errno;
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
    errno = saved;
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
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_DFL);
    if (!task.beforeExec.empty()) {
        task.beforeExec();
    }
    // The exec functions do not change what they are given; their types are older than const.
    auto* const* argv = const_cast<char* const*>(task.argv);
    auto* const* envp = const_cast<char* const*>(task.envp);
    if (envp != nullptr) {
        checkedCall("execve", [&] { return ::execve(task.path, argv, envp); });
    } else if (!task.searchPath) {
        checkedCall("execv", [&] { return ::execv(task.path, argv); });
    } else {
        checkedCall("execvp", [&] { return ::execvp(task.path, argv); });
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

}  // namespace

ProcessLaunch::ProcessLaunch(const char* const* argv, const char* path, const char* cwd, const char* const* envp,
                             bool closeDescriptors, bool searchPath, bool callSetsid,
                             const boost::function<void()>& beforeExec, int stdinFd, int stdoutFd, int stderrFd) {
    ChildTask task{argv, path, cwd, envp, closeDescriptors, searchPath, callSetsid, beforeExec, {}};
    task.streams[STDIN_FILENO] = openChildStream(STDIN_FILENO, stdinFd, stdin_);
    task.streams[STDOUT_FILENO] = openChildStream(STDOUT_FILENO, stdoutFd, stdout_);
    task.streams[STDERR_FILENO] = openChildStream(STDERR_FILENO, stderrFd, stderr_);
    control_.create("pipe");  // Close-on-exec on both ends: end of file tells that the program was started.
    flushStandardStreams();
    pid_ = checkedCall("pipe", [] { return ::fork(); });  // Kept: the tag is the previous step's.
    if (pid_ == 0) {
        runChild(task, control_, {&stdin_, &stdout_, &stderr_});
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
