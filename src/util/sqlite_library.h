// How SQLite is set up for this program: what it does with freed memory, and which files it may touch. A directory of a
// database may belong to an account that is not trusted; whatever it puts there, SQLite opens, makes and deletes
// nothing but the database and its own "-journal", both regular files.
#pragma once

namespace kavro {

/// Makes SQLite wipe all memory that it frees, since stored passwords pass through its buffers, and leave out the
/// mutexes and statistics that a single-threaded program has no use for. To be called before any other use of the
/// library; later calls do nothing.
void configureSqlite();

/// The name of the SQLite file layer that keeps to that, for sqlite3_open_v2; null when there is no memory. Links are
/// followed in the directory's name only. Databases in WAL mode, and journals of transactions over several databases,
/// are refused. Signals interrupt nothing.
const char* sqliteFileLayer();

/// Whether an open database still holds a lock that could not be given back: closing it is what helps.
bool sqliteLockIsStuck();

}  // namespace kavro
