// Look-ups of system users and groups; owner and mode of files.
#pragma once

#include <pwd.h>
#include <sys/types.h>

/// The account that owns the mail storage.
inline constexpr const char* kMailUser = "popuser";

/// getpwnam(3), which signals do not interrupt. Null, with errno 0 when there is no such user. The record is the
/// C library's own and lives until the next look-up.
const passwd* find_user(const char* name);
/// Fills the outputs that are not null; `home` is newly allocated. 0, or -1, reported, for an unknown user.
int kavro_getpw(const char* name, uid_t* uid, gid_t* gid, char** home);
/// The user's uid, or gid when `which` is not 0; 0 for an unknown user.
unsigned kavro_ugid(const char* name, int which);
/// The group's id in `gid`. 0, or -1 with errno (0 when it does not exist).
int kavro_getgr(const char* name, gid_t* gid);
/// Owner and group of the user, then mode. 0 or -1, reported.
int file_set_user_mode(const char* path, const char* user, mode_t mode);
/// The same for the file that the last name of `path` is in an open directory; messages name the whole path.
int file_set_user_mode_at(int directory, const char* path, const char* user, mode_t mode);
/// Owner, group, mode. 0 also for a file that does not exist; -1, reported.
int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode);
