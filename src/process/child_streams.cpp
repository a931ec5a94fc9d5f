// Wiring of a child's standard streams.
#include "process/child_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "process/process_launch.h"
#include "process/retry.h"

namespace kavro::process {

namespace {

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

}  // namespace

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

}  // namespace kavro::process
