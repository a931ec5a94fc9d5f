// The SIGCHLD handler of the running pipeline and what it leaves for the loop.
#include "process/process_set_catcher.h"

#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>
#include <utility>

#include "process/retry.h"

namespace kavro::process {

ProcessSetCatcher* __global_handler = nullptr;  // NOLINT(bugprone-reserved-identifier): an established name

ProcessSetCatcher::~ProcessSetCatcher() noexcept(false) {
    const bool unwinding = std::uncaught_exceptions() > 0;
    try {
        remove(unwinding);
    } catch (const std::exception&) {
        // The handler must not find an object that is gone.
        if (__global_handler == this) {
            ::sigaction(SIGCHLD, &former_, nullptr);
            __global_handler = nullptr;
        }
        if (!unwinding) {
            throw;
        }
    }
}

void ProcessSetCatcher::install() {
    if (__global_handler != nullptr) {
        throw std::logic_error("ProcessSetCatcher instance has been installed already");
    }
    // Before the action: nothing has to be undone when there is no pipe to be had.
    PipeOwner control;
    control.create("process set catcher control pipe");
    setNonBlocking(control.readEnd().get(), "control pipe fcntl");
    setNonBlocking(control.writeEnd().get(), "control pipe fcntl");

    struct sigaction action {};
    action.sa_sigaction = childHandler;
    action.sa_flags = SA_NOCLDSTOP | SA_SIGINFO;
    checkedCall("get sigprocmask", [&] { return ::sigprocmask(SIG_BLOCK, nullptr, &action.sa_mask); });
    checkedCall("sigaction", [&] { return ::sigaction(SIGCHLD, &action, &former_); });
    control_ = std::move(control);
    __global_handler = this;
}

void ProcessSetCatcher::childHandler(int /*signal*/, siginfo_t* /*info*/, void* /*context*/) {
    ProcessSetCatcher* const self = __global_handler;
    if (self == nullptr) {
        return;
    }
    const ErrnoKeeper keeper;
    int status = 0;
    for (;;) {
        const pid_t pid = retryInterrupted([&] { return ::waitpid(-1, &status, WNOHANG); });
        if (pid <= 0) {
            break;
        }
        const auto child = self->children_.find(pid);
        if (child == self->children_.end()) {
            continue;  // Started by somebody else, perhaps by the program that became this one.
        }
        child->second.status = status;
        child->second.received = 1;
        self->reaped_ = self->reaped_ + 1;
        if (!child->second.ended()) {
            continue;
        }
        self->ended_ = self->ended_ + 1;
        // The byte only wakes the loop: when the pipe is full there is one in it already.
        retryInterrupted([&] { return ::write(self->control_.writeEnd().get(), "t", 1); });
    }
}

std::size_t ProcessSetCatcher::clear_control() {
    const ErrnoKeeper keeper;
    std::size_t count = 0;
    char byte = 0;
    while (retryInterrupted([&] { return ::read(control_.readEnd().get(), &byte, 1); }) == 1) {
        ++count;
    }
    return count;
}

void ProcessSetCatcher::remove(bool force) {
    if (__global_handler != this) {
        return;
    }
    control_.close();
    if (!force && ended_ < launched_) {
        throw std::logic_error("there're some child processes still running");  // Kept: callers match this text.
    }
    checkedCall("restore sigaction", [this] { return ::sigaction(SIGCHLD, &former_, nullptr); });
    __global_handler = nullptr;
    // Only now: the handler may run as long as it is in place.
    children_.clear();
    launched_ = 0;
    ended_ = 0;
    reaped_ = 0;
}

void ProcessSetCatcher::registerChild(int pid) {
    children_[pid] = ProcessStatus{};
    launched_ = launched_ + 1;
}

const ProcessStatus& ProcessSetCatcher::status(int pid) const {
    const auto child = children_.find(pid);
    if (child == children_.end()) {
        throw SystemError("no such pid", ESRCH);
    }
    return child->second;
}

}  // namespace kavro::process
