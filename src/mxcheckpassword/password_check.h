// Comparison of an offered password with what is stored: encrypted by the panel's cipher, hashed by crypt(3), or as it
// is.
#pragma once

#include "auth/secret.h"

namespace mxcheckpassword {

/// `stored` is null for a user who does not exist or has no password: false, after the same work. A value that begins
/// with "$" is the cipher's own form or a crypt(3) hash; a hash is never the password itself. Throws
/// std::runtime_error when the key, or a value encrypted with it, cannot be read.
bool passwordMatches(const char* stored, const char* offered);

/// The stored password with the scheme in front that tells Dovecot how to use it. Throws as passwordMatches; null when
/// there is none.
kavro::auth::SecretCString passwordForServer(const char* stored);

}  // namespace mxcheckpassword
