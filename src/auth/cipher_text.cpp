// The text form of an encrypted value: put together and taken apart.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "auth/base64.h"
#include "auth/cipher_registry.h"
#include "util/c_memory.h"

namespace {

constexpr char kSeparator = '$';

char* refuse() {
    errno = EINVAL;
    return nullptr;
}

std::size_t iv_size(const cipher_ctx_node& node) {
    return static_cast<std::size_t>(EVP_CIPHER_get_iv_length(node.cipher.get()));
}

/// The wiping end of a pass: what was plain stays nowhere but with the caller.
void forget_plain(cipher_ctx_node& node) {
    kavro::auth::SecretBytes().swap(node.record.plain);
}

/// Encrypts the record's plain buffer, with the caller's IV when there is one.
bool encrypt_with(cipher_ctx_node& node, const std::string& callerIv) {
    if (callerIv.empty() || (node.flags & SYMMETRIC_CIPHER_RANDOM_IV) == 0) {
        return encrypt_symmetric(&node.record) == 1;
    }
    if (cphr_set_b64_cipher_iv(&node.record, callerIv.c_str()) == 0) {
        return false;
    }
    node.record.flags &= ~static_cast<unsigned>(SYMMETRIC_CIPHER_RANDOM_IV);
    const bool done = encrypt_symmetric(&node.record) == 1;
    node.record.flags = node.flags;
    return done;
}

/// The text form of the record's encrypted buffer.
char* format(const cipher_ctx_node& node, const std::string& callerIv) {
    std::size_t size = 0;
    const unsigned char* bytes = symmetric_cipher_get_encrypted(&node.record, &size);
    const kavro::CString ciphertext(b64_encode(bytes, size));
    if (ciphertext == nullptr) {
        return nullptr;
    }
    std::string text = kSeparator + std::string(node.name.data()) + kSeparator;
    if ((node.flags & SYMMETRIC_CIPHER_RANDOM_IV) != 0) {
        if (callerIv.empty()) {
            const kavro::CString iv(b64_encode(symmetric_cipher_get_iv(&node.record), iv_size(node)));
            if (iv == nullptr) {
                return nullptr;
            }
            text += iv.get();
        } else {
            text += callerIv;
        }
        text += kSeparator;
    }
    text += ciphertext.get();
    return ::strdup(text.c_str());
}

}  // namespace

char* kavro_cipher_encrypt(const char* name, const char* plain) {
    if (name == nullptr) {
        return refuse();
    }
    const std::string spec = kSeparator + std::string(name, ::strnlen(name, kCipherNameSize - 1));
    return kavro_cipher_crypt(plain, spec.c_str());
}

char* kavro_cipher_crypt(const char* plain, const char* spec) {
    if (plain == nullptr || spec == nullptr || *spec != kSeparator) {
        return refuse();
    }
    std::string name(spec + 1);
    std::string callerIv;
    if (const std::string::size_type end = name.find(kSeparator); end != std::string::npos) {
        callerIv = name.substr(end + 1);
        name.resize(end);
        // A whole stored value serves as a scheme text too: its ciphertext is left out.
        callerIv.resize(std::min(callerIv.rfind(kSeparator), callerIv.size()));
    }
    cipher_ctx_node* node = cphr_find_cipher_ctx_node(name.c_str());
    if (node == nullptr || symmetric_cipher_set_plain(&node->record, plain) == 0) {
        return nullptr;
    }
    const bool encrypted = encrypt_with(*node, callerIv);
    forget_plain(*node);
    return encrypted ? format(*node, callerIv) : nullptr;
}

char* kavro_cipher_decrypt(const char* stored) {
    if (stored == nullptr || *stored != kSeparator) {
        return refuse();
    }
    const std::string_view text(stored);
    const std::size_t nameEnd = text.find(kSeparator, 1);
    if (nameEnd == std::string_view::npos) {
        return refuse();
    }
    const std::size_t last = text.rfind(kSeparator);
    cipher_ctx_node* node = cphr_find_cipher_ctx_node(std::string(text.substr(1, nameEnd - 1)).c_str());
    if (node == nullptr) {
        return nullptr;
    }
    if ((node->flags & SYMMETRIC_CIPHER_RANDOM_IV) != 0 && last > nameEnd + 1 &&
        cphr_set_b64_cipher_iv(&node->record, std::string(text.substr(nameEnd + 1, last - nameEnd - 1)).c_str()) == 0) {
        return nullptr;
    }
    std::size_t size = 0;
    const kavro::CPtr<unsigned char> ciphertext(b64_decode(stored + last + 1, &size));
    if (ciphertext == nullptr || symmetric_cipher_set_encrypted(&node->record, ciphertext.get(), size) == 0) {
        return nullptr;
    }
    char* plain = nullptr;
    if (decrypt_symmetric(&node->record) == 1) {
        const char* decrypted = symmetric_cipher_get_plain(&node->record);
        plain = decrypted == nullptr ? nullptr : ::strdup(decrypted);
    }
    forget_plain(*node);
    return plain;
}
