// Every check encrypts once, decrypts once and, where any user's password is hashed, hashes once, whether or not the
// user exists and however the password is stored.
#include "mxcheckpassword/password_check.h"

#include <crypt.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "auth/auth_statement.h"
#include "auth/password_cipher.h"
#include "mxcheckpassword/account.h"
#include "util/sqlite_connection.h"

namespace mxcheckpassword {

using kavro::auth::ScopedWipe;
using kavro::auth::SecretCString;

namespace {

bool isEncrypted(const char* stored) {
    return stored != nullptr && is_encrypted_with_mail_aes(stored) == 1;
}

bool isHash(const char* stored) {
    return stored != nullptr && *stored == '$' && !isEncrypted(stored);
}

SecretCString decrypt(const char* stored) {
    SecretCString plain(mailPasswdCipherOp(stored, MAIL_CIPHER_DECRYPT, "", nullptr));
    if (!plain) {
        throw std::runtime_error("a stored password cannot be decrypted");
    }
    return plain;
}

/// Neither the position of the first difference nor either length shows in the time.
bool equalTexts(const char* one, const char* other) {
    using Padded = std::array<char, kMaxPassword + 1>;
    if (std::strlen(one) > kMaxPassword || std::strlen(other) > kMaxPassword) {
        return false;
    }
    Padded left{};
    Padded right{};
    const ScopedWipe wipeLeft(left);
    const ScopedWipe wipeRight(right);
    std::copy_n(one, std::strlen(one), left.begin());
    std::copy_n(other, std::strlen(other), right.begin());
    return CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

/// False also for a hash that crypt(3) does not know.
bool hashesTo(const char* hash, const char* offered) {
    const auto work = std::make_unique<struct crypt_data>();
    const char* made = ::crypt_rn(offered, hash, work.get(), sizeof(*work));
    const bool equal = made != nullptr && equalTexts(made, hash);
    ::explicit_bzero(work.get(), sizeof(*work));
    return equal;
}

/// A hash of one of the newest users, as the measure of what a check of a hash costs here. Empty when none has one.
SecretCString sampleHash() {
    constexpr const char* kSample =
        "SELECT value FROM (SELECT cmusaslsecretPLAIN AS value FROM users ORDER BY id DESC LIMIT 1000) "
        "WHERE value LIKE '$%' AND value NOT LIKE '$AES-%' LIMIT 1";
    kavro::SqliteConnection connection;
    if (!kavro::auth::openForReading(connection)) {
        throw std::runtime_error("the authentication database cannot be read");
    }
    kavro::SqliteStatement row(connection);
    const int stepped = row.prepare(kSample) ? row.step() : SQLITE_ERROR;
    if (stepped != SQLITE_ROW && stepped != SQLITE_DONE) {
        throw std::runtime_error("the authentication database cannot be read");
    }
    return SecretCString(::strdup(stepped == SQLITE_ROW ? row.text(0) : ""));
}

}  // namespace

bool passwordMatches(const char* stored, const char* offered) {
    const SecretCString encrypted(mailPasswdCipherOp(offered, MAIL_CIPHER_ENCRYPT, "", nullptr));
    if (!encrypted) {
        throw std::runtime_error("the key of the stored passwords cannot be read");
    }
    const SecretCString plain = decrypt(isEncrypted(stored) ? stored : encrypted.get());
    const SecretCString sample = sampleHash();
    const char* hash = isHash(stored) ? stored : sample.get();
    const bool hashed = *hash != '\0' && hashesTo(hash, offered);
    if (isHash(stored)) {
        return hashed;
    }
    const bool equal = equalTexts(stored == nullptr || isEncrypted(stored) ? plain.get() : stored, offered);
    return stored != nullptr && *stored != '\0' && equal;
}

SecretCString passwordForServer(const char* stored) {
    if (stored == nullptr || *stored == '\0') {
        return nullptr;
    }
    const SecretCString plain = isEncrypted(stored) ? decrypt(stored) : nullptr;
    const char* scheme = isHash(stored) ? "{CRYPT}" : "{PLAIN}";
    const char* value = plain ? plain.get() : stored;
    SecretCString text(static_cast<char*>(::calloc(std::strlen(scheme) + std::strlen(value) + 1, 1)));
    if (!text) {
        throw std::bad_alloc();
    }
    ::strcat(::strcpy(text.get(), scheme), value);
    return text;
}

}  // namespace mxcheckpassword
