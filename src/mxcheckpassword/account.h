// What a login leads to. An address may be a mailname's own, a mail alias of it, or either under a domain alias: the
// lookup tables lead it to its mailbox as they lead mail, the authentication database says whether it may log in.
//
// Whatever refuses a login takes the same path through the stores, so that the time tells nobody whether an address
// exists. A store that cannot be read is an exception, and never a refusal: a client that is told "wrong password"
// forgets it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "auth/secret.h"

namespace mxcheckpassword {

/// Bytes of a login name and of a password. Longer ones are refused unread.
inline constexpr std::size_t kMaxLogin = 320;
inline constexpr std::size_t kMaxPassword = 4096;

struct Account {
    std::string login;    ///< as it was given, in lower case
    std::string address;  ///< the mailname's own
    std::string home;     ///< absolute, without a slash at the end
    std::string maildir;
    uid_t uid = 0;
    gid_t gid = 0;
    /// Only from findWithPassword: as Dovecot takes it, with the scheme in front.
    kavro::auth::SecretCString password;
};

/// All answer nothing for a refusal, which is logged with its reason, and throw std::exception when that cannot be
/// told. The login's password decides:
std::optional<Account> authenticate(const std::string& login, const char* password);
/// It may log in; no password is asked for.
std::optional<Account> findLogin(const std::string& login);
std::optional<Account> findWithPassword(const std::string& login);
/// It has a mailbox, which is all that a delivery needs.
std::optional<Account> findMailbox(const std::string& login);

/// Calls back for every mailname's own address that may log in.
void forEachAccount(const std::function<void(const Account&)>& use);

}  // namespace mxcheckpassword
