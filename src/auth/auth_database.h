// The mail authentication database: domains, users and their passwords in SQLite. Every operation opens its own
// connection, runs its statement and closes; nothing is cached. Failures are logged and answered with -1.
#pragma once

#include <sys/types.h>

/// Bits of the password flags.
enum mail_auth_flags : unsigned char {
    MAIL_AUTH_UNENCRYPTED = 1,     ///< the password is stored as it is, in cmusaslsecretPLAIN
    MAIL_AUTH_USER_DISABLED = 2,   ///< users.status 1
    MAIL_AUTH_DOMAIN_DISABLED = 4  ///< domains.status 1, when a domain row is made on the fly
};

/// One user as stored. Release with free_user_data.
struct mail_auth_user_data {
    char* name;
    char* value;  ///< the password column that is not null; null when both are
    unsigned char flags;
};

/// Set or replace a password; encrypts it unless flag bit 0 is set. A null password stores NULL. 0 or -1.
int mailAuthSet(const char* mailname, const char* domain, const char* password, unsigned char flags);
/// Stores a value as it is; makes the domain's row when missing, disabled exactly when flag bit 2 is set. 0 or -1.
int mailAuthSetRaw(const char* mailname, const char* domain, const char* value, unsigned char flags);
/// mailAuthSet for a non-empty password, else mailAuthRemove. 0 or -1.
int set_postbox_passwd(const char* mailname, const char* domain, const char* password, unsigned char flags);
/// Stores the source's value and flags for the destination. A missing source changes nothing. 0 or -1.
int mailAuthClone(const char* src_mailname, const char* src_domain, const char* dst_mailname, const char* dst_domain);
/// A missing domain or user is success. 0 or -1.
int mailAuthRemove(const char* mailname, const char* domain);
/// A missing domain is a failure, a missing user is not. 0 or -1.
int mailAuthRename(const char* old_mailname, const char* new_mailname, const char* domain);
int mailAuthRenameDomain(const char* old_domain, const char* new_domain);
/// The same; on success `renamed`, unless null, gets whether there was a row with the old name.
int mailAuthRenameCounted(const char* old_mailname, const char* new_mailname, const char* domain, bool* renamed);
int mailAuthRenameDomainCounted(const char* old_domain, const char* new_domain, bool* renamed);
/// Removes the domain and its users. 0 or -1.
int mailAuthRemoveDomain(const char* domain);
/// A domain that is not there is no error. 0 or -1.
int mailAuthDisableDomain(const char* domain);
int mailAuthEnableDomain(const char* domain);

/// 1 and a filled record, 0 when the domain or user is absent, -1 on failure. Both columns null: 1 with a null value.
int get_user_data(mail_auth_user_data* record, const char* mailname, const char* domain);
void free_user_data(mail_auth_user_data* record);

/// Gets the full address, the plain password or null, the flags and the caller's context. The password is null when it
/// could not be decrypted, and is wiped after the call. The database is open for reading meanwhile: a callback that
/// writes to it would wait for itself.
using mail_auth_callback = int (*)(const char* address, const char* password, unsigned char flags, void* context);

/// Calls back for one user; returns the callback's result, -1 on failure, when there is no such user and when both
/// password columns are null.
int mailAuthCheck(const char* address, mail_auth_callback callback, void* context);
/// Calls back for every user by domain and name, or for one mailname in every domain; a result below 1 stops the
/// iteration and is returned. 0 when all were called, -1 on failure.
int mailAuthIterateAll(mail_auth_callback callback, void* context);
int mailAuthCheckShort(const char* mailname, mail_auth_callback callback, void* context);
