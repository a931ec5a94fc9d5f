// Runs one command, or a chain of commands joined by pipes, and serves their streams from one select loop.
#pragma once

#include <boost/function.hpp>
#include <cstddef>
#include <string>
#include <vector>

#include "process/process_launch.h"
#include "process/process_set_catcher.h"

namespace kavro::process {

/// Takes a piece of output, 1 to 1024 bytes.
using Consumer = boost::function<void(const std::vector<char>&)>;
/// Gets an empty buffer and fills it with the next input, as much as it likes; answers whether more will follow. Called
/// when all of the former input is written. One that has nothing yet is asked again after the next event.
using Producer = boost::function<bool(std::vector<char>&)>;

/// A stream of a command: a descriptor or a selector of ProcessLaunch (-1: not set, inherited), and who serves it when
/// it is ProcessLaunch::PIPE. Without a function such an input is empty, such an output is read and dropped.
template <typename Function>
struct Channel {
    int fd = -1;
    Function function;
};

/// What a command and its environment have in common.
struct CommonFlags {
    std::string cwd;                    ///< empty: the caller's
    const char* const* envp = nullptr;  ///< null: inherited
    bool closeDescriptors = false;
    ChildGrant grant;                    ///< cheaper than beforeExec, which takes fork(2)
    boost::function<void()> beforeExec;  ///< runs in the child
    Channel<Consumer> stderrChannel;
};

/// Flags of one command of a pipeline.
struct PipeProcessFlags : CommonFlags {
    /// Called with the command's position and raw wait status when it ends.
    boost::function<void(unsigned long, int)> onExit;
};

/// Flags of the pipeline as a whole.
struct PipeFlags {
    Channel<Producer> stdinChannel;
    Channel<Consumer> stdoutChannel;
};

/// One command with its flags.
template <typename Flags>
struct Parameters : Flags {
    Parameters() = default;
    /// The argument list ends at the first empty argument.
    explicit Parameters(const std::string& program, const std::string& a1 = {}, const std::string& a2 = {},
                        const std::string& a3 = {}, const std::string& a4 = {}, const std::string& a5 = {},
                        const std::string& a6 = {}, const std::string& a7 = {}, const std::string& a8 = {},
                        const std::string& a9 = {})
        : path(program), argv{program} {
        for (const std::string* argument : {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9}) {
            if (argument->empty()) {
                break;
            }
            argv.push_back(*argument);
        }
    }

    std::string path;               ///< empty: argv[0]; looked up in PATH unless it begins with "." or "/"
    std::vector<std::string> argv;  ///< argv[0] first
};

/// A pipeline. Runs once. A command's failure is not the pipeline's: see statuses().
class Pipe {
public:
    explicit Pipe(const Parameters<PipeProcessFlags>& first);
    Pipe(const Pipe&) = default;
    Pipe& operator=(const Pipe&) = default;
    virtual ~Pipe() = default;

    /// The pipeline's own ends; set them before run().
    PipeFlags& flags() noexcept { return flags_; }
    /// Throws std::logic_error after run().
    void append(const Parameters<PipeProcessFlags>& next);
    /// Launches everything and returns when every command has ended and its output is delivered. Throws SystemError,
    /// what waitExec() throws, what the functions throw, and std::logic_error for a second run or an empty pipeline.
    /// Input that the first command did not take is SystemError("write") with EPIPE, after everything has ended,
    /// unless that command has itself reported a failure by its status. Before an exception leaves, the streams are
    /// closed and every child is waited for; none is killed. SIGPIPE is ignored and SIGCHLD is let through meanwhile.
    void run();
    /// One per command, in order; complete after run().
    const std::vector<ProcessStatus>& statuses() const noexcept { return statuses_; }

private:
    PipeFlags flags_;
    std::vector<Parameters<PipeProcessFlags>> commands_;
    std::vector<ProcessStatus> statuses_;
    bool launched_ = false;
};

/// Appends a piece of output.
void collectOutput(std::string& target, const std::vector<char>& chunk);
/// A consumer that does so; `target` must outlive it.
Consumer makeStringReceiver(std::string& target);

}  // namespace kavro::process
