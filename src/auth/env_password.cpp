// Passwords from the environment. Taking one copies the text out, wipes it where it stood (what /proc/<pid>/environ and
// ps(1) show) and removes the variable.
#include "auth/env_password.h"

#include <crypt.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <string>

#include "auth/secret.h"
#include "util/log.h"

using kavro::auth::SecretCString;

namespace {

constexpr const char* kPlainVariable = "ZCP_PASSWORD";
constexpr const char* kCryptedVariable = "ZCP_CRYPTED_PASSWORD";
constexpr std::size_t kBufferSize = 4096;

/// A process-wide result; one byte more ends a text that fills it.
using PasswordBuffer = std::array<char, kBufferSize + 1>;

/// The variable's text when it is set and not empty, else null.
const char* value_of(const char* name) {
    const char* value = ::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/// Wipes and removes a variable. An environment may hold a name more than once: unsetenv removes all of them.
void forget(const char* name) {
    const std::size_t length = ::strlen(name);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (::strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') {
            char* value = *entry + length + 1;
            ::explicit_bzero(value, ::strlen(value));
        }
    }
    ::unsetenv(name);
}

void copy_to(PasswordBuffer& buffer, const char* text) {
    std::copy_n(text, ::strnlen(text, kBufferSize), buffer.begin());
}

/// MD5-crypt with a fresh salt, as crypt(5) describes it. Leaves the buffer empty when crypt(3) refuses.
void hash_to(PasswordBuffer& buffer, const char* plain) {
    constexpr char kAlphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    constexpr int kSaltLength = 8;
    std::string salt = "$1$";
    ::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < kSaltLength; ++i) {
        // Kept: a salt need not be secret, and this is how the panel has always made it.
        salt += kAlphabet[::rand() % 64];
    }
    // This form works in memory that we can wipe.
    const auto work = std::make_unique<struct crypt_data>();
    const char* hash = ::crypt_rn(plain, salt.c_str(), work.get(), sizeof(*work));
    if (hash != nullptr) {
        copy_to(buffer, hash);
    }
    ::explicit_bzero(work.get(), sizeof(*work));
}

}  // namespace

int get_env_password(const char** password, int* crypted) {
    for (const char* name : {kPlainVariable, kCryptedVariable}) {
        const char* value = value_of(name);
        if (value == nullptr) {
            continue;
        }
        char* copy = ::strdup(value);
        if (copy == nullptr) {
            // A password that is there must not pass for none: none removes a mailbox.
            return messlog2(1, 0, "Cannot allocate memory: %s", ::strerror(errno));
        }
        forget(name);
        *password = copy;
        *crypted = name == kCryptedVariable ? 1 : 0;
        return 0;
    }
    return -1;
}

const char* get_env_crypted_password() {
    static PasswordBuffer buffer{};
    if (buffer.front() == '\0') {
        if (const char* plain = value_of(kPlainVariable); plain != nullptr) {
            hash_to(buffer, plain);
        } else if (const char* hash = value_of(kCryptedVariable); hash != nullptr) {
            copy_to(buffer, hash);
        } else {
            hash_to(buffer, "");
        }
        forget(kPlainVariable);
        forget(kCryptedVariable);
    }
    return buffer.data();
}

const char* get_env_noncrypted_password() {
    static PasswordBuffer buffer{};
    if (buffer.front() == '\0') {
        if (const char* plain = ::getenv(kPlainVariable); plain != nullptr) {
            copy_to(buffer, plain);
            forget(kPlainVariable);
        }
    }
    return buffer.data();
}

PasswordAccessor::PasswordAccessor() {
    int crypted = 0;
    if (get_env_password(&password_, &crypted) == 0) {
        crypted_ = crypted != 0;
    }
    // Whichever was not taken: no child is to inherit either.
    forget(kPlainVariable);
    forget(kCryptedVariable);
}

PasswordAccessor::~PasswordAccessor() {
    // The text came from get_env_password, which leaves it to us.
    const SecretCString wiped(const_cast<char*>(password_));
    password_ = nullptr;
}
