// The list of cipher contexts: how a node is made from a key file and when it goes.
#include "auth/cipher_registry.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth/base64.h"
#include "process/descriptors.h"
#include "process/retry.h"
#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

/// Room for a key read from its file. More than any cipher of today needs.
constexpr std::size_t kKeyBufferSize = 80;
using KeyBuffer = std::array<unsigned char, kKeyBufferSize>;

/// Reads the key, unbuffered so that no other memory gets to hold it. False, logged, on failure.
bool read_key(KeyBuffer& key, std::size_t size, const char* path) {
    kavro::QuietFdOwner file(kavro::openRegular(path, O_RDONLY));
    if (file.empty()) {
        kavro_log(KAVRO_LOG_ERROR, "Can't read encryption key from '%s': %s (%d)", path, std::strerror(errno), errno);
        return false;
    }
    errno = 0;
    std::size_t have = 0;
    while (have < size) {
        const ssize_t got = kavro::retryInterrupted([&] { return ::read(file.get(), key.data() + have, size - have); });
        if (got <= 0) {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    if (have < size) {
        kavro_log(KAVRO_LOG_ERROR, "Failed to read entire encryption key from '%s': %s (%d)", path,
                  std::strerror(errno), errno);
    }
    return have == size;
}

/// Puts a node for the scheme at the head of the list. False, logged, on failure; the list is then as it was.
bool create_node(const std::string& name, const char* keyPath) {
    const std::string::size_type colon = name.find(':');
    const std::string cipherName = name.substr(0, colon);
    decltype(cipher_ctx_node::cipher) cipher;
    if (name.size() < kCipherNameSize) {
        cipher.reset(EVP_CIPHER_fetch(nullptr, cipherName.c_str(), nullptr));
    }
    if (cipher == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Unknown encryption cipher: '%s'", cipherName.c_str());
        return false;
    }
    const auto keySize = static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher.get()));
    if (keySize > kKeyBufferSize) {
        kavro_log(KAVRO_LOG_CRITICAL, "Not enough space supplied to read encryption key data from '%s'", keyPath);
        return false;
    }
    KeyBuffer key{};
    const kavro::auth::ScopedWipe wipeKey(key);
    if (!read_key(key, keySize, keyPath)) {
        return false;
    }

    cipher_ctx_node& node = gen_ciphers_list.emplace_front();
    const bool pkcs = colon != std::string::npos && name.find("PKCS", colon) != std::string::npos;
    node.flags = SYMMETRIC_CIPHER_RANDOM_IV | (pkcs ? 0U : SYMMETRIC_CIPHER_NO_PADDING);
    node.references = 1;
    name.copy(node.name.data(), kCipherNameSize - 1);
    node.cipher = std::move(cipher);
    symmetric_cipher_init(&node.record);
    node.record.cipher = node.cipher.get();
    node.record.flags = node.flags;
    if (symmetric_cipher_set_key(&node.record, key.data(), keySize) == 1) {
        return true;
    }
    kavro_log(KAVRO_LOG_ERROR, "Failed to create encryption cipher '%s'. Invalid key or IV length?", name.c_str());
    if (cphr_cleanup_cipher_ctx_node(name.c_str()) != 0) {
        // Kept: callers match this text.
        kavro_log(KAVRO_LOG_INFO, "Failed to clean up cipher context after unsuccessfull construction");
    }
    return false;
}

}  // namespace

std::forward_list<cipher_ctx_node> gen_ciphers_list;

void cphr_load_library() {
    // Its configuration file is not for us, and filling its tables of all names and of the texts of all errors, which
    // nobody asks for, costs more than all else we ask of it: ciphers are fetched by name instead. Its own clean-up at
    // exit would only free memory.
    static const bool kLoaded = [] {
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS |
                                OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS |
                                OPENSSL_INIT_NO_ATEXIT,
                            nullptr);
        return std::atexit(cphr_atexit_cleanup) == 0;
    }();
    static_cast<void>(kLoaded);
}

cipher_ctx_node::~cipher_ctx_node() {
    symmetric_cipher_cleanup(&record);
    name.fill('\0');
    flags = 0;
}

int kavro_cipher_init(const char* name, const char* key_path) {
    if (name == nullptr || key_path == nullptr) {
        errno = EINVAL;
        return 0;
    }
    if (cipher_ctx_node* node = cphr_find_cipher_ctx_node(name); node != nullptr) {
        ++node->references;
        return 1;
    }
    cphr_load_library();
    if (create_node(name, key_path)) {
        return 1;
    }
    kavro_log(KAVRO_LOG_ERROR, "Failed to initialize encryption cipher '%s' with key '%s'", name, key_path);
    return 0;
}

void kavro_cipher_cleanup(const char* name) {
    if (cphr_cleanup_cipher_ctx_node(name) == -1) {
        kavro_log(KAVRO_LOG_INFO, "Failed to correctly destroy encryption cipher '%s'. A programming error?", name);
    }
}

cipher_ctx_node* cphr_find_cipher_ctx_node(const char* name) {
    for (cipher_ctx_node& node : gen_ciphers_list) {
        if (std::strcmp(node.name.data(), name) == 0) {
            return &node;
        }
    }
    return nullptr;
}

int cphr_cleanup_cipher_ctx_node(const char* name) {
    cipher_ctx_node* node = cphr_find_cipher_ctx_node(name);
    if (node == nullptr || node->references == 0) {
        return -1;
    }
    if (--node->references > 0) {
        return 1;
    }
    gen_ciphers_list.remove_if([node](const cipher_ctx_node& other) { return &other == node; });
    return 0;
}

int cphr_set_b64_cipher_iv(symmetric_cipher* record, const char* b64) {
    std::size_t size = 0;
    const kavro::CPtr<unsigned char> iv(b64_decode(b64, &size));
    return iv == nullptr ? 0 : symmetric_cipher_set_iv(record, iv.get(), size);
}

void cphr_atexit_cleanup() {
    for (cipher_ctx_node& node : gen_ciphers_list) {
        symmetric_cipher_cleanup(&node.record);
    }
}
