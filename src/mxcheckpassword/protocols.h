// The three protocols in which mail servers ask about logins. Each answers an exit status; a store that cannot be read
// is an exception, which main turns into kExitTemporary.
#pragma once

namespace mxcheckpassword {

// checkpassword's own statuses, which Dovecot knows; pam_exec(8) tells zero from the rest.
inline constexpr int kExitAccepted = 0;
inline constexpr int kExitRefused = 1;
inline constexpr int kExitMisused = 2;
inline constexpr int kExitUnknown = 3;  ///< Dovecot: no such user, where no password was asked for
inline constexpr int kExitTemporary = 111;

/// checkpassword: "login NUL password NUL timestamp NUL" on descriptor 3. Becomes the command when it accepts.
/// With AUTHORIZED=1 in the environment Dovecot asks for a user without a password.
int serveCheckpassword(char** command);
/// Courier's authpipe: requests on standard input, until its end.
int serveAuthpipe();
/// pam_exec(8) with expose_authtok: PAM_TYPE, PAM_USER, and the password on standard input. With `ownOnly` only a
/// mailname's own address is accepted.
int servePam(bool ownOnly);

}  // namespace mxcheckpassword
