// One child process, started by fork and exec, or by posix_spawn(3) where that does the same faster. Whatever fails in
// the child before the new program takes over comes back through a control pipe and is thrown in the parent.
#pragma once

#include <sys/types.h>

#include <boost/function.hpp>

#include "process/descriptors.h"
#include "process/launch_protocol.h"

namespace kavro::process {

/// What a child gets that it would not inherit.
struct ChildGrant {
    int descriptor = -1;  ///< one that is marked close-on-exec; -1: none
    int signal = 0;       ///< one that the caller blocks; 0: none
};

/// Starts a child in its constructor. The destructor closes descriptors; it neither waits for the child nor signals it.
/// Output that the caller has buffered in the standard streams and in C streams is written out first. A child that
/// cannot run its program leaves with exit(3), after closing all descriptors but its standard output and error: exit
/// handlers and static destructors run in it too, and must not rely on other descriptors or undo anything outside the
/// process.
class ProcessLaunch {
public:
    static constexpr int INHERIT = -2;   ///< the child keeps the parent's stream
    static constexpr int DEV_NULL = -3;  ///< the child gets /dev/null
    static constexpr int PIPE = -4;      ///< a new pipe; this object keeps the parent's end

    /// Starts the child. `argv` and `envp` are NULL-terminated (`envp` null: inherit), `cwd` null keeps the working
    /// directory. `closeDescriptors` closes everything above 2 in the child, `searchPath` looks `path` up in PATH,
    /// `beforeExec` runs in the child last of all; what it throws is reported by waitExec(). Each stream argument is a
    /// descriptor of the caller's, which stays open, or a selector. The child gets the default actions of SIGPIPE and
    /// SIGXFSZ and otherwise the caller's signal mask and ignored signals, and what `grant` names, which leaves the
    /// caller's own as it is. Throws SystemError, std::invalid_argument for a bad selector.
    ProcessLaunch(const char* const* argv, const char* path, const char* cwd, const char* const* envp,
                  bool closeDescriptors, bool searchPath, bool callSetsid, const boost::function<void()>& beforeExec,
                  int stdinFd, int stdoutFd, int stderrFd, const ChildGrant& grant = {});
    ProcessLaunch(const ProcessLaunch&) = delete;
    ProcessLaunch& operator=(const ProcessLaunch&) = delete;

    /// Waits until the child runs its program; throws what the child reported instead: SystemError (its status is
    /// then 67), std::runtime_error (66, or 65 for an exception of unknown type), std::exception (66).
    void waitExec();
    /// Reaps the child; returns the raw wait status. Throws SystemError.
    int waitExit();

    pid_t pid() const noexcept { return pid_; }
    FdOwner& stdinPipe() noexcept { return stdin_; }    ///< write end, with PIPE
    FdOwner& stdoutPipe() noexcept { return stdout_; }  ///< read end, with PIPE
    FdOwner& stderrPipe() noexcept { return stderr_; }  ///< read end, with PIPE

private:
    pid_t pid_ = -1;
    FdOwner stdin_;
    FdOwner stdout_;
    FdOwner stderr_;
    PipeOwner control_;
};

}  // namespace kavro::process
