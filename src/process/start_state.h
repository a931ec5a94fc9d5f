// What a program inherits from its caller and cannot rely on, put right in one call.
#pragma once

#include <array>
#include <csignal>

namespace kavro::process {

/// To be called first of all in main. The caller may be a daemon, a cron job or a broken script, so:
/// - closed descriptors 0 to 2 are opened on /dev/null: else the next file opened, a store perhaps, would get such a
///   number and receive what is meant for standard output or error;
/// - SIGCHLD gets its default action and is let through: ignored, the ends of our children would be lost; blocked, the
///   loop that waits for them would never wake;
/// - SIGPIPE is ignored: a reader that went away must be an error of one write, not the end of the program half-way
///   through a change. Likewise SIGXFSZ: an inherited limit of file sizes makes one write fail. Children get the
///   default actions back;
/// - the umask becomes 022: every mode that is given to open(2) or mkdir(2) then means what it says;
/// - a working directory that was removed is replaced by "/": programs that we run would fail in it.
/// Throws SystemError.
void normalizeStartState();

/// The signals that are ignored from then on: what they would end is an error instead.
inline constexpr std::array<int, 2> kIgnoredSignals = {SIGPIPE, SIGXFSZ};

/// Gives the signals that are ignored since then their default actions back: for a child, or before another program.
void restoreSignalActions() noexcept;

}  // namespace kavro::process
