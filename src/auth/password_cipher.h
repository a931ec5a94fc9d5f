// Encryption of stored passwords at the level the database uses: AES-256-CBC, a random IV with each value, text form
// "$AES-256-CBC:PKCS$<IV>$<ciphertext>" in Base64 (RFC 4648).
#pragma once

#include <cstddef>

/// Bytes of the key, which is also what a key file holds.
inline constexpr std::size_t kMailAesKeySize = 32;

/// Makes the cipher context available (reference-counted). 1, or 0 on failure, logged.
int mail_aes_init(const char* key_path);
/// Gives one reference back.
void mail_aes_cleanup();
/// Newly allocated results, null on failure; the caller wipes and frees plain texts.
char* mail_aes_encrypt(const char* plain);
char* mail_aes_decrypt(const char* stored);
/// Fills 32 bytes. Returns 32, or 0 with errno EINVAL for a smaller buffer.
std::size_t mail_aes_gen_key(unsigned char* buffer, std::size_t size);
/// 1 when the text begins with the scheme's 18 characters.
int is_encrypted_with_mail_aes(const char* text);

enum mail_cipher_operation : int { MAIL_CIPHER_DECRYPT = 0, MAIL_CIPHER_ENCRYPT = 1 };

/// Keep the cipher loaded across many operations; pairs only count references. 0 or -1, logged.
int mailPasswdCipherInit();
void mailPasswdCipherCleanup();
/// En- or decrypts one password; newly allocated, null on failure, logged with the address.
char* mailPasswdCipherOp(const char* password, int operation, const char* mailname, const char* domain);
