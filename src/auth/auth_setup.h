// Creation of the mail authentication database and of its key, their owners and modes.
#pragma once

#include <sys/types.h>

/// The schema's script, for one call. The triggers stand in for a foreign key from users to domains.
extern const char* const kMailAuthSchema;

/// Creates database and key anew (existing ones are replaced) and sets owners and modes. Each is made whole beside the
/// former one and then renamed over it. 0 or -1, logged; then nothing is replaced, but for the key when the database
/// cannot be renamed.
int mailAuthDBInitStyle(int style);
/// Creates the database anew. 0 or -1.
int mailAuthDBInit();
/// Creates a new random key; every stored password becomes unreadable. 0 or -1.
int mailAuthKeyInit();
/// Owner and mode of the database's directory, then of the database. 0 or -1.
int mailAuthDBSetAccess(uid_t owner, gid_t group, mode_t mode, uid_t dir_owner, gid_t dir_group, mode_t dir_mode);
int mailAuthKeySetAccess(uid_t owner, gid_t group, mode_t mode);

namespace kavro::auth {

/// mailAuthDBInitStyle for the database alone, which is to work with the key that is there. 0 or -1.
int initDatabaseBesideKey(int style);
/// Removes what an initialisation left that was killed.
void removeDrafts();

}  // namespace kavro::auth
