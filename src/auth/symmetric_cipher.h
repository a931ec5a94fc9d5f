// A symmetric cipher with its key, IV and buffers, on libcrypto's EVP interface. Secrets in it are wiped when they are
// replaced and when the record goes. All functions answer 1 or a pointer on success, 0 or null on failure.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <memory>

#include "auth/secret.h"

/// Bits of a cipher's flags.
enum symmetric_cipher_flags : unsigned {
    SYMMETRIC_CIPHER_RANDOM_IV = 1,  ///< a fresh IV for every encryption, stored with the value
    SYMMETRIC_CIPHER_NO_PADDING = 4  ///< zero bytes up to the block's end in place of PKCS padding
};

/// Longest plain or encrypted text in bytes: the cipher library counts in int.
inline constexpr std::size_t kMaxCipherData = 2147483646;

namespace kavro::auth {

/// EVP_CIPHER_CTX_free wipes the key schedule and the block that was last padded.
struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};

}  // namespace kavro::auth

/// The record. A context is set up on first use and only gets a new IV afterwards; null before. The plain and the
/// encrypted buffer, when not empty, end with a zero that does not count.
struct symmetric_cipher {
    std::unique_ptr<EVP_CIPHER_CTX, kavro::auth::CipherContextDeleter> encryption;
    std::unique_ptr<EVP_CIPHER_CTX, kavro::auth::CipherContextDeleter> decryption;
    const EVP_CIPHER* cipher = nullptr;  ///< not owned
    std::array<unsigned char, EVP_MAX_KEY_LENGTH> key{};
    std::array<unsigned char, EVP_MAX_IV_LENGTH> iv{};
    kavro::auth::SecretBytes plain;
    kavro::auth::SecretBytes encrypted;
    unsigned flags = 0;
};

/// Empties the record and sets AES-256-CBC with a random IV. The key comes from the caller.
int symmetric_cipher_init(symmetric_cipher* record);
/// Releases contexts and buffers and zeroes the record. 0 when the library failed to release a context.
int symmetric_cipher_cleanup(symmetric_cipher* record);

/// Copy `size` bytes: at least what the cipher needs, at most what the record holds, else EINVAL. A new key takes
/// effect with the next operation.
int symmetric_cipher_set_key(symmetric_cipher* record, const unsigned char* bytes, std::size_t size);
int symmetric_cipher_set_iv(symmetric_cipher* record, const unsigned char* bytes, std::size_t size);
/// The record's IV; its length is the cipher's.
const unsigned char* symmetric_cipher_get_iv(const symmetric_cipher* record);

/// The text is copied. EINVAL for null and, logged, for 2147483647 bytes or more.
int symmetric_cipher_set_plain(symmetric_cipher* record, const char* text);
/// Owned by the record; null when empty.
const char* symmetric_cipher_get_plain(const symmetric_cipher* record);
/// The bytes are copied. EINVAL as above.
int symmetric_cipher_set_encrypted(symmetric_cipher* record, const unsigned char* bytes, std::size_t size);
/// Owned by the record; null when empty.
const unsigned char* symmetric_cipher_get_encrypted(const symmetric_cipher* record, std::size_t* size);

/// From the plain to the encrypted buffer and back, with the record's key and IV.
int encrypt_symmetric(symmetric_cipher* record);
int decrypt_symmetric(symmetric_cipher* record);
