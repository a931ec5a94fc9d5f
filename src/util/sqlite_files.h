// Which files SQLite may touch. A directory of a database may belong to an account that is not trusted; whatever it
// puts there, SQLite opens, makes and deletes nothing but the database and its own "-journal", both regular files.
#pragma once

namespace kavro {

/// The name of the SQLite file layer that keeps to that, for sqlite3_open_v2; null when there is no memory. Links are
/// followed in the directory's name only. Databases in WAL mode, and journals of transactions over several databases,
/// are refused. Signals interrupt nothing.
const char* sqliteFileLayer();

}  // namespace kavro
