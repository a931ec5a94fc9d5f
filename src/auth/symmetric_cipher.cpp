// The symmetric-cipher record: one way in and out for both directions.
#include "auth/symmetric_cipher.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "util/log.h"

using kavro::auth::SecretBytes;

namespace {

enum class Direction : int { Decrypt = 0, Encrypt = 1 };

constexpr std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> kZeros{};

using Context = decltype(symmetric_cipher::encryption);

int refuse() {
    errno = EINVAL;
    return 0;
}

std::size_t iv_length(const symmetric_cipher& record) {
    return static_cast<std::size_t>(EVP_CIPHER_get_iv_length(record.cipher));
}

std::size_t block_size(const symmetric_cipher& record) {
    return static_cast<std::size_t>(EVP_CIPHER_get_block_size(record.cipher));
}

std::size_t content_size(const SecretBytes& buffer) {
    return buffer.empty() ? 0 : buffer.size() - 1;
}

/// Copies into an array of the record. Longer input than the array is as wrong as shorter than the cipher needs.
template <std::size_t Capacity>
int store(std::array<unsigned char, Capacity>& target, std::size_t needed, const unsigned char* bytes,
          std::size_t size) {
    if (bytes == nullptr || size < needed || size > Capacity) {
        return refuse();
    }
    std::copy_n(bytes, size, target.begin());
    return 1;
}

/// Replaces a buffer; the former one is wiped as it is freed.
int store(SecretBytes& target, const unsigned char* bytes, std::size_t size, const char* kind) {
    if (bytes == nullptr) {
        return refuse();
    }
    if (size > kMaxCipherData) {
        kavro_log(KAVRO_LOG_WARNING,
                  "Attempt to feed into symmetric cipher more %s data (%zu bytes) than it's designed to handle.", kind,
                  size);
        return refuse();
    }
    try {
        SecretBytes copy;
        copy.reserve(size + 1);
        copy.assign(bytes, bytes + size);
        copy.push_back(0);
        target.swap(copy);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return 0;
    }
    return 1;
}

/// Sets the context up on first use, else gives it the record's IV.
bool prepare(Context& context, const symmetric_cipher& record, Direction direction) {
    if (context != nullptr) {
        return EVP_CipherInit_ex(context.get(), nullptr, nullptr, nullptr, record.iv.data(),
                                 static_cast<int>(direction)) == 1;
    }
    Context created(EVP_CIPHER_CTX_new());
    if (created == nullptr || EVP_CipherInit_ex(created.get(), record.cipher, nullptr, record.key.data(),
                                                record.iv.data(), static_cast<int>(direction)) != 1) {
        return false;
    }
    if ((record.flags & SYMMETRIC_CIPHER_NO_PADDING) != 0) {
        EVP_CIPHER_CTX_set_padding(created.get(), 0);
    }
    context = std::move(created);
    return true;
}

/// Overwrites the block that the library padded or unpadded last: it stands in the clear for as long as the context.
void forget_last_block(Context& context, const symmetric_cipher& record, Direction direction) {
    std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> sink;
    int written = 0;
    if (prepare(context, record, direction)) {
        EVP_CipherUpdate(context.get(), sink.data(), &written, kZeros.data(), static_cast<int>(block_size(record)) - 1);
    }
}

/// One pass through a prepared context: the input, zero bytes behind it, the final block. Empty on failure.
SecretBytes transform(EVP_CIPHER_CTX* context, const SecretBytes& input, std::size_t zeroBytes, std::size_t block) {
    const std::size_t size = content_size(input);
    SecretBytes output(size + zeroBytes + block + 1);
    int total = 0;
    int written = 0;
    if (size > 0) {
        if (EVP_CipherUpdate(context, output.data(), &written, input.data(), static_cast<int>(size)) != 1) {
            return {};
        }
        total = written;
    }
    if (zeroBytes > 0) {
        if (EVP_CipherUpdate(context, output.data() + total, &written, kZeros.data(), static_cast<int>(zeroBytes)) !=
            1) {
            return {};
        }
        total += written;
    }
    if (total > std::numeric_limits<int>::max() - static_cast<int>(block) ||
        EVP_CipherFinal_ex(context, output.data() + total, &written) != 1) {
        return {};
    }
    total += written;
    output.resize(static_cast<std::size_t>(total) + 1);
    output.back() = 0;
    return output;
}

/// Runs one direction from one buffer to the other; the target is left alone on failure.
int run(symmetric_cipher& record, Direction direction, std::size_t zeroBytes) try {
    const bool encrypts = direction == Direction::Encrypt;
    Context& context = encrypts ? record.encryption : record.decryption;
    if (!prepare(context, record, direction)) {
        return 0;
    }
    SecretBytes output =
        transform(context.get(), encrypts ? record.plain : record.encrypted, zeroBytes, block_size(record));
    forget_last_block(context, record, direction);
    if (output.empty()) {
        return 0;
    }
    (encrypts ? record.encrypted : record.plain).swap(output);
    return 1;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return 0;
}

}  // namespace

int symmetric_cipher_init(symmetric_cipher* record) {
    *record = symmetric_cipher();
    record->cipher = EVP_aes_256_cbc();
    record->flags = SYMMETRIC_CIPHER_RANDOM_IV;
    return 1;
}

int symmetric_cipher_cleanup(symmetric_cipher* record) {
    int released = 1;
    for (Context* context : {&record->encryption, &record->decryption}) {
        if (*context != nullptr && EVP_CIPHER_CTX_reset(context->get()) != 1) {
            released = 0;
        }
    }
    ::explicit_bzero(record->key.data(), record->key.size());
    ::explicit_bzero(record->iv.data(), record->iv.size());
    *record = symmetric_cipher();
    return released;
}

int symmetric_cipher_set_key(symmetric_cipher* record, const unsigned char* bytes, std::size_t size) {
    if (store(record->key, static_cast<std::size_t>(EVP_CIPHER_get_key_length(record->cipher)), bytes, size) == 0) {
        return 0;
    }
    record->encryption.reset();
    record->decryption.reset();
    return 1;
}

int symmetric_cipher_set_iv(symmetric_cipher* record, const unsigned char* bytes, std::size_t size) {
    return store(record->iv, iv_length(*record), bytes, size);
}

const unsigned char* symmetric_cipher_get_iv(const symmetric_cipher* record) {
    return record->iv.data();
}

int symmetric_cipher_set_plain(symmetric_cipher* record, const char* text) {
    return store(record->plain, reinterpret_cast<const unsigned char*>(text), text == nullptr ? 0 : std::strlen(text),
                 "plain");
}

const char* symmetric_cipher_get_plain(const symmetric_cipher* record) {
    return content_size(record->plain) == 0 ? nullptr : reinterpret_cast<const char*>(record->plain.data());
}

int symmetric_cipher_set_encrypted(symmetric_cipher* record, const unsigned char* bytes, std::size_t size) {
    return store(record->encrypted, bytes, size, "encrypted");
}

const unsigned char* symmetric_cipher_get_encrypted(const symmetric_cipher* record, std::size_t* size) {
    *size = content_size(record->encrypted);
    return *size == 0 ? nullptr : record->encrypted.data();
}

int encrypt_symmetric(symmetric_cipher* record) {
    const std::size_t size = content_size(record->plain);
    const std::size_t block = block_size(*record);
    std::size_t zeroBytes = 0;
    if ((record->flags & SYMMETRIC_CIPHER_NO_PADDING) != 0 && (size == 0 || size % block != 0)) {
        zeroBytes = block - size % block;
    }
    if ((record->flags & SYMMETRIC_CIPHER_RANDOM_IV) != 0 &&
        RAND_bytes(record->iv.data(), static_cast<int>(iv_length(*record))) < 1) {
        return 0;
    }
    return run(*record, Direction::Encrypt, zeroBytes);
}

int decrypt_symmetric(symmetric_cipher* record) {
    return run(*record, Direction::Decrypt, 0);
}
