// SQLite's process-wide settings.
#pragma once

namespace kavro {

/// Makes SQLite wipe all memory that it frees, since stored passwords pass through its buffers, and leave out the
/// mutexes and statistics that a single-threaded program has no use for. To be called before any other use of the
/// library; later calls do nothing.
void configureSqlite();

}  // namespace kavro
