// Named cipher contexts, and encryption to and from the text form "$<scheme>$<IV>$<ciphertext>" with IV and ciphertext
// in Base64. A scheme name is a cipher's name, ":" and the padding: "AES-256-CBC:PKCS".
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <forward_list>
#include <memory>

#include "auth/symmetric_cipher.h"

/// Room for a scheme name with its zero.
inline constexpr std::size_t kCipherNameSize = 32;

namespace kavro::auth {

struct CipherDeleter {
    void operator()(EVP_CIPHER* cipher) const noexcept { EVP_CIPHER_free(cipher); }
};

}  // namespace kavro::auth

/// One scheme that is ready for use. Zeroed before its memory is freed.
struct cipher_ctx_node {
    cipher_ctx_node() = default;
    cipher_ctx_node(const cipher_ctx_node&) = delete;
    cipher_ctx_node& operator=(const cipher_ctx_node&) = delete;
    ~cipher_ctx_node();

    std::array<char, kCipherNameSize> name{};
    symmetric_cipher record;
    std::unique_ptr<EVP_CIPHER, kavro::auth::CipherDeleter> cipher;
    unsigned flags = 0;       ///< symmetric_cipher_flags
    unsigned references = 0;  ///< initialisations without their clean-up
};

/// All contexts, newest first. Changed by the functions below only.
extern std::forward_list<cipher_ctx_node> gen_ciphers_list;

/// Prepares the cipher library for what we ask of it, once; to be called before any use of it.
void cphr_load_library();
/// Makes a scheme available with the key in that file, or counts one reference more. 1, or 0, logged.
int kavro_cipher_init(const char* name, const char* key_path);
/// Gives one reference back; a scheme that is not there is logged.
void kavro_cipher_cleanup(const char* name);
/// Newly allocated text form; null on failure. The scheme must be available.
char* kavro_cipher_encrypt(const char* name, const char* plain);
/// The same by a scheme text: "$<scheme>", with "$<IV>" behind it to use an IV of the caller's.
char* kavro_cipher_crypt(const char* plain, const char* spec);
/// Newly allocated plain text, which the caller wipes and frees; null on failure and for an empty text.
char* kavro_cipher_decrypt(const char* stored);

/// The node of exactly that name, or null.
cipher_ctx_node* cphr_find_cipher_ctx_node(const char* name);
/// 1 while references remain, 0 when the node was freed, -1 when there is none or nobody refers to it.
int cphr_cleanup_cipher_ctx_node(const char* name);
/// Sets an IV given in Base64. 1, or 0.
int cphr_set_b64_cipher_iv(symmetric_cipher* record, const char* b64);
/// At exit: releases every node's cipher record.
void cphr_atexit_cleanup();
