// Reaps the children of the running pipeline from a SIGCHLD handler and wakes the pipeline's loop through a pipe.
#pragma once

#include <csignal>
#include <cstddef>
#include <map>

#include "process/descriptors.h"

namespace kavro::process {

/// What is known of one child's end.
struct ProcessStatus {
    int received = 0;  ///< 1 once a status came
    int status = 0;    ///< raw wait status

    /// An exit or a death by signal was seen, not merely a stop.
    bool ended() const noexcept { return received == 1 && (status & 0x7F) != 0x7F; }
};

/// At most one is installed in a process. Children are registered while SIGCHLD is blocked; the handler changes only
/// their entries and the counters.
class ProcessSetCatcher {
public:
    ProcessSetCatcher() = default;
    ProcessSetCatcher(const ProcessSetCatcher&) = delete;
    ProcessSetCatcher& operator=(const ProcessSetCatcher&) = delete;
    /// Removes the catcher, by force only while an exception is propagating. May throw what remove() throws.
    ~ProcessSetCatcher() noexcept(false);

    /// Throws std::logic_error when a catcher is installed already, SystemError for a failed call.
    void install();
    /// Throws std::logic_error when children are still running, unless `force`. Does nothing when not installed.
    void remove(bool force);
    /// Adds a child just launched. SIGCHLD must be blocked.
    void registerChild(int pid);
    /// The entry of a registered child; changed by the handler while SIGCHLD is not blocked. Throws
    /// SystemError("no such pid").
    const ProcessStatus& status(int pid) const;
    /// Empties the control pipe; returns how many bytes it held. Keeps errno.
    std::size_t clear_control();
    /// Becomes readable when a child has ended.
    int controlFd() noexcept { return control_.readEnd().get(); }

    static void childHandler(int signal, siginfo_t* info, void* context);

private:
    std::map<int, ProcessStatus> children_;
    volatile std::size_t launched_ = 0;
    volatile std::size_t ended_ = 0;
    volatile std::size_t reaped_ = 0;
    struct sigaction former_ {};
    PipeOwner control_;
};

/// The installed catcher, or null. Written by install() and remove() only.
extern ProcessSetCatcher* __global_handler;  // NOLINT(bugprone-reserved-identifier): an established name

}  // namespace kavro::process
