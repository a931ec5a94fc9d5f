// SIGHUP, SIGINT and SIGTERM, which would end the program between two stores: they wait while a change is under way.
#pragma once

namespace kavro::process {

/// From here on the three only leave a mark. One that the caller ignores stays ignored. Children are not concerned:
/// they have the actions that this process had, and its signal mask. A second call does nothing. Throws SystemError.
void deferEndSignals();

/// Whether they wait now.
bool endSignalsDeferred() noexcept;

/// Gives the signals their former actions back and raises those that came meanwhile: with the usual actions the process
/// ends here. Does nothing when none was deferred.
void actOnEndSignals() noexcept;

}  // namespace kavro::process
