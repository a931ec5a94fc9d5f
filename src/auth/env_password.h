// The password that the panel hands over in the environment: never on a command line, never left for a child.
#pragma once

namespace kavro::auth {

inline constexpr const char* kPlainVariable = "ZCP_PASSWORD";
inline constexpr const char* kCryptedVariable = "ZCP_CRYPTED_PASSWORD";

/// The variable's text when it is set and not empty, else null.
const char* env_value(const char* name);
/// Wipes the variable's text and removes it.
void forget_env(const char* name);

}  // namespace kavro::auth

/// Plain password first, crypted one else; the variable that it answers with is wiped and removed. 0, or -1 when
/// neither is set and non-empty (outputs untouched). The text is newly allocated and nothing here frees it: it lives as
/// long as the process unless the caller wipes and frees it.
int get_env_password(const char** password, int* crypted);
/// A crypt(3) hash in a process-wide buffer of 4096 bytes, made once. Both variables are removed.
const char* get_env_crypted_password();
/// The plain password in a process-wide buffer of 4096 bytes, read once. The variable is removed.
const char* get_env_noncrypted_password();

/// The password from the environment for the length of one command. Afterwards neither variable is left in the
/// environment, nor their texts in the memory that the environment used. The destructor wipes the text.
class PasswordAccessor {
public:
    PasswordAccessor();
    PasswordAccessor(const PasswordAccessor&) = delete;
    PasswordAccessor& operator=(const PasswordAccessor&) = delete;
    ~PasswordAccessor();

    const char* password() const noexcept { return password_; }  ///< null when none was given
    bool crypted() const noexcept { return crypted_; }           ///< a crypt(3) hash already
    /// Password flags of the authentication database: bit 0 is crypted.
    unsigned char flags() const noexcept { return crypted_ ? 1 : 0; }

private:
    const char* password_ = nullptr;
    bool crypted_ = false;
};
