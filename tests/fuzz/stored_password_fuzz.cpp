// Any bytes as a stored password: decoding and decryption end; what was encoded or encrypted comes back.
#include <cstring>

#include "auth/base64.h"
#include "auth/password_cipher.h"
#include "fuzz.h"
#include "util/c_memory.h"

void check(std::string& input) {
    static const bool loaded = [] {
        write_file("/tmp/key", std::string(kMailAesKeySize, 'k'));
        return mail_aes_init("/tmp/key") == 1;
    }();
    require(loaded);
    const std::string text = input.c_str();
    std::size_t decoded = 0;
    const kavro::CPtr<unsigned char> bytes(b64_decode(text.c_str(), &decoded));
    require(bytes != nullptr && decoded <= (text.size() + 3) / 4 * 3);
    const kavro::CString encoded(b64_encode(reinterpret_cast<const unsigned char*>(input.data()), input.size()));
    const kavro::CPtr<unsigned char> back(b64_decode(encoded.get(), &decoded));
    require(decoded == input.size() && std::memcmp(back.get(), input.data(), input.size()) == 0);

    const kavro::CString guess(mail_aes_decrypt(("$AES-256-CBC:PKCS$" + text).c_str()));
    const kavro::CString stored(mail_aes_encrypt(text.c_str()));
    const kavro::CString plain(stored != nullptr ? mail_aes_decrypt(stored.get()) : nullptr);
    require(text.empty() || (plain != nullptr && text == plain.get()));
}
