// Wiring of a child's standard streams: opened in the parent, put in place in the child.
#pragma once

#include <array>

#include "process/descriptors.h"

namespace kavro::process {

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

/// Opens stream number `target` as the selector of ProcessLaunch says; `parentEnd` gets the other end of a pipe.
/// Throws SystemError, std::invalid_argument.
ChildStream openChildStream(int target, int selector, FdOwner& parentEnd);

/// In the child: makes the sources its descriptors 0 to 2 and closes those that were opened for it. Throws SystemError.
void connectStreams(ChildStreams& streams);

}  // namespace kavro::process
