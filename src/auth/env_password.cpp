// Passwords from the environment. Taking one copies the text out, wipes it where it stood (what /proc/<pid>/environ and
// ps(1) show) and removes the variable.
#include "auth/env_password.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "auth/secret.h"
#include "util/log.h"

using namespace kavro::auth;

namespace kavro::auth {

const char* env_value(const char* name) {
    const char* value = ::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

void forget_env(const char* name) {
    // An environment may hold a name more than once: unsetenv removes all of them.
    const std::size_t length = ::strlen(name);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (::strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') {
            char* value = *entry + length + 1;
            ::explicit_bzero(value, ::strlen(value));
        }
    }
    ::unsetenv(name);
}

}  // namespace kavro::auth

int get_env_password(const char** password, int* crypted) {
    for (const char* name : {kPlainVariable, kCryptedVariable}) {
        const char* value = env_value(name);
        if (value == nullptr) {
            continue;
        }
        char* copy = ::strdup(value);
        if (copy == nullptr) {
            // A password that is there must not pass for none: none removes a mailbox.
            return messlog2(1, 0, "Cannot allocate memory: %s", ::strerror(errno));
        }
        forget_env(name);
        *password = copy;
        *crypted = name == kCryptedVariable ? 1 : 0;
        return 0;
    }
    return -1;
}

PasswordAccessor::PasswordAccessor() {
    int crypted = 0;
    if (get_env_password(&password_, &crypted) == 0) {
        crypted_ = crypted != 0;
    }
    // Whichever was not taken: no child is to inherit either.
    forget_env(kPlainVariable);
    forget_env(kCryptedVariable);
}

PasswordAccessor::~PasswordAccessor() {
    // The text came from get_env_password, which leaves it to us.
    const SecretCString wiped(const_cast<char*>(password_));
    password_ = nullptr;
}
