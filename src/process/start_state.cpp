// The parts of the start state, each put right by itself.
#include "process/start_state.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "process/descriptors.h"
#include "process/retry.h"

namespace kavro::process {

namespace {

void openStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            // The lowest free number is taken, and those below are open by now. It stays open for good. Standard output
            // refuses writes, so that an answer which nobody gets is an error and not a success.
            checkedCall("/dev/null open",
                        [fd] { return ::open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_RDWR); });
        }
    }
}

void setAction(int signal, sighandler_t handler) {
    struct sigaction action {};
    action.sa_handler = handler;
    checkedCall("sigaction", [&] { return ::sigaction(signal, &action, nullptr); });
}

void letThrough(int signal) {
    sigset_t signals;
    ::sigemptyset(&signals);
    checkedCall("sigaddset", [&] { return ::sigaddset(&signals, signal); });
    checkedCall("set sigprocmask", [&] { return ::sigprocmask(SIG_UNBLOCK, &signals, nullptr); });
}

void leaveRemovedDirectory() {
    std::array<char, PATH_MAX> path{};
    if (::getcwd(path.data(), path.size()) == nullptr && errno == ENOENT) {
        checkedCall("cwd chdir", [] { return ::chdir("/"); });
    }
}

}  // namespace

void normalizeStartState() {
    openStandardDescriptors();
    setAction(SIGCHLD, SIG_DFL);
    letThrough(SIGCHLD);
    for (const int signal : kIgnoredSignals) {
        setAction(signal, SIG_IGN);
    }
    ::umask(S_IWGRP | S_IWOTH);
    leaveRemovedDirectory();
}

void restoreSignalActions() noexcept {
    for (const int signal : kIgnoredSignals) {
        ::signal(signal, SIG_DFL);
    }
}

}  // namespace kavro::process
