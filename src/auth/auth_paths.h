// Where the mail authentication database and its key are. Process-wide, written by the functions below only.
#pragma once

extern const char* mailAuthDB;   ///< path of the database
extern const char* mailAuthKey;  ///< path of the key file

/// The style of a server that runs Postfix.
inline constexpr int kPostfixStyle = 1;

/// 1 for postfix, 0 for qmail, by the panel's own feature list; -1, logged, when that does not tell.
int mailAuthDBDetectStyle();
/// 0: /var/lib/kavro/mail/auth, 1: /var/spool/postfix/kavro; any other style leaves the paths as they are.
void mailAuthDBSelectStyle(int style);
/// Set one path; the text is copied.
void mailAuthDBSetPath(const char* path);
void mailAuthKeySetPath(const char* path);
/// The key file's path beside a database; newly allocated, free with free(3).
char* mailAuthDBToKeyPath(const char* db_path);
