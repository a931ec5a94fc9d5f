// The pipeline of one process that every change of a table goes through, and the judgement of what it says, by the
// shape that all Postfix tools give their diagnostics: "program: severity: message".
#include "postfix/postmap.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <string_view>

#include "postfix/running_postfix.h"
#include "postfix/tables.h"
#include "process/process_launch.h"

namespace kavro::mail::postfix {

namespace {

/// The text from the severity word on; empty for a line of another shape.
std::string_view severityOf(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    const std::size_t word = line.find_first_not_of(' ', colon + 1);
    if (word == std::string_view::npos || word + 1 == line.size() ||
        line.find(':', word + 1) == std::string_view::npos) {
        return {};
    }
    return line.substr(word);
}

bool isError(std::string_view line, bool strict) {
    const std::string_view severity = severityOf(line);
    if (severity.empty()) {
        return false;
    }
    if (severity.starts_with("panic:") || severity.starts_with("fatal:") || severity.starts_with("error:")) {
        return true;
    }
    return strict && !severity.starts_with("warning:");
}

}  // namespace

bool PostmapResult::succeeded() const noexcept {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool PostmapResult::succeededUnlessMissing() const {
    return succeeded() || (WIFEXITED(status) && WEXITSTATUS(status) == 1 && holdsNoError(diagnostics, false));
}

std::string PostmapResult::reason() const {
    return diagnostics.empty() ? "unknown error" : diagnostics;
}

PostmapResult runPostmap(const std::vector<std::string>& arguments, const process::Producer& input,
                         const process::Consumer& output, int lock) {
    using process::ProcessLaunch;

    const MapSecond second(arguments.back());
    PostmapResult result;
    process::Parameters<process::PipeProcessFlags> postmap(kPostmap);
    postmap.argv.insert(postmap.argv.end(), arguments.begin(), arguments.end());
    postmap.grant = {lock, SIGCHLD};  // the pipeline launches with that signal blocked
    postmap.stderrChannel = {ProcessLaunch::PIPE, process::makeStringReceiver(result.diagnostics)};

    process::Pipe pipe(postmap);
    pipe.flags().stdinChannel = {input.empty() ? ProcessLaunch::DEV_NULL : ProcessLaunch::PIPE, input};
    pipe.flags().stdoutChannel = {output.empty() ? ProcessLaunch::DEV_NULL : ProcessLaunch::PIPE, output};
    pipe.run();
    result.status = pipe.statuses().front().status;
    return result;
}

bool holdsNoError(const std::string& text, bool strict) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        if (isError(rest.substr(0, length), strict)) {
            return false;
        }
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return true;
}

}  // namespace kavro::mail::postfix
