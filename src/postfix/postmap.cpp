// The pipeline of one process that every change of a table goes through.
#include "postfix/postmap.h"

#include <signal.h>
#include <sys/wait.h>

#include "postfix/tables.h"
#include "process/process_launch.h"

namespace kavro::mail::postfix {

namespace {

/// The pipeline launches with SIGCHLD blocked; postmap shall not inherit that.
void unblockChildSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

bool PostmapResult::succeeded() const noexcept {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool PostmapResult::killed() const noexcept {
    return WIFSIGNALED(status);
}

std::string PostmapResult::reason() const {
    return diagnostics.empty() ? "unknown error" : diagnostics;
}

PostmapResult runPostmap(const std::vector<std::string>& arguments, const process::Producer& input,
                         const process::Consumer& output) {
    using process::ProcessLaunch;

    PostmapResult result;
    process::Parameters<process::PipeProcessFlags> postmap(kPostmap);
    postmap.argv.insert(postmap.argv.end(), arguments.begin(), arguments.end());
    postmap.beforeExec = unblockChildSignal;
    postmap.stderrChannel = {ProcessLaunch::PIPE, process::makeStringReceiver(result.diagnostics)};

    process::Pipe pipe(postmap);
    pipe.flags().stdinChannel = {input.empty() ? ProcessLaunch::DEV_NULL : ProcessLaunch::PIPE, input};
    pipe.flags().stdoutChannel = {output.empty() ? ProcessLaunch::DEV_NULL : ProcessLaunch::PIPE, output};
    pipe.run();
    result.status = pipe.statuses().front().status;
    return result;
}

}  // namespace kavro::mail::postfix
