// The program's one scheme, and the operations that the authentication database makes of it.
#include "auth/password_cipher.h"

#include <openssl/rand.h>

#include <cerrno>
#include <cstring>

#include "auth/auth_paths.h"
#include "auth/cipher_registry.h"
#include "util/log.h"

namespace {

constexpr char kScheme[] = "AES-256-CBC:PKCS";
constexpr char kPrefix[] = "$AES-256-CBC:PKCS$";

}  // namespace

int mail_aes_init(const char* key_path) {
    return kavro_cipher_init(kScheme, key_path);
}

void mail_aes_cleanup() {
    kavro_cipher_cleanup(kScheme);
}

char* mail_aes_encrypt(const char* plain) {
    return kavro_cipher_encrypt(kScheme, plain);
}

char* mail_aes_decrypt(const char* stored) {
    if (is_encrypted_with_mail_aes(stored) == 0) {
        errno = EINVAL;
        return nullptr;
    }
    return kavro_cipher_decrypt(stored);
}

std::size_t mail_aes_gen_key(unsigned char* buffer, std::size_t size) {
    if (size < kMailAesKeySize) {
        errno = EINVAL;
        return 0;
    }
    cphr_load_library();
    return RAND_bytes(buffer, static_cast<int>(kMailAesKeySize)) < 1 ? 0 : kMailAesKeySize;
}

int is_encrypted_with_mail_aes(const char* text) {
    return text != nullptr && std::strncmp(text, kPrefix, sizeof(kPrefix) - 1) == 0 ? 1 : 0;
}

int mailPasswdCipherInit() {
    if (mail_aes_init(mailAuthKey) == 0) {
        kavro_log(KAVRO_LOG_ERROR, "Failed to initialize password cipher context");
        return -1;
    }
    return 0;
}

void mailPasswdCipherCleanup() {
    mail_aes_cleanup();
}

char* mailPasswdCipherOp(const char* password, int operation, const char* mailname, const char* domain) {
    const char* at = domain != nullptr ? "@" : "";
    const char* host = domain != nullptr ? domain : "";
    if (mail_aes_init(mailAuthKey) == 0) {
        kavro_log(KAVRO_LOG_ERROR, "Failed to initialize password cipher context (for mail address '%s%s%s')", mailname,
                  at, host);
        return nullptr;
    }
    const bool encrypts = operation == MAIL_CIPHER_ENCRYPT;
    char* result = encrypts ? mail_aes_encrypt(password) : mail_aes_decrypt(password);
    mail_aes_cleanup();
    if (result == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Failed to %s password for mail address '%s%s%s'", encrypts ? "encrypt" : "decrypt",
                  mailname, at, host);
    }
    return result;
}
