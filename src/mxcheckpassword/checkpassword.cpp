// checkpassword for Dovecot. What Dovecot is to know goes to its program, checkpassword-reply, in the environment.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include "mxcheckpassword/account.h"
#include "mxcheckpassword/protocols.h"
#include "mxcheckpassword/secret_input.h"
#include "process/start_state.h"
#include "process/system_error.h"

namespace mxcheckpassword {

namespace {

constexpr int kInput = 3;

/// Takes a text and its NUL from the front; what lacks its NUL is no field.
std::optional<std::string_view> takeField(std::string_view& input) {
    const std::size_t end = input.find('\0');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view field = input.substr(0, end);
    input.remove_prefix(end + 1);
    return field;
}

void set(const char* name, const char* value) {
    if (::setenv(name, value, 1) == -1) {
        throw kavro::SystemError("setenv", errno);
    }
}

void set(const char* name, const std::string& value) {
    set(name, value.c_str());
}

void setAnswer(const Account& account, bool authorized) {
    std::string extra = "userdb_uid userdb_gid userdb_mail";
    set("USER", account.address);
    set("HOME", account.home);
    set("userdb_uid", std::to_string(account.uid));
    set("userdb_gid", std::to_string(account.gid));
    set("userdb_mail", "maildir:" + account.maildir);
    if (account.password) {
        set("password", account.password.get());
        extra += " password";
    }
    set("EXTRA", extra);
    if (authorized) {
        set("AUTHORIZED", "2");
    }
}

bool isSet(const char* name, std::string_view value) {
    const char* found = ::getenv(name);
    return found != nullptr && found == value;
}

std::optional<Account> findWithoutPassword(const std::string& login) {
    if (isSet("CREDENTIALS_LOOKUP", "1")) {
        return findWithPassword(login);
    }
    // Deliveries and the administrator ask for the mailbox. Its owner need not be able to log in.
    for (const char* service : {"lda", "lmtp", "quota-status", "doveadm"}) {
        if (isSet("SERVICE", service)) {
            return findMailbox(login);
        }
    }
    return findLogin(login);
}

}  // namespace

int serveCheckpassword(char** command) {
    if (::fcntl(kInput, F_GETFD) == -1 || *command == nullptr) {
        std::cerr << "mxcheckpassword: a login on descriptor 3 and a program to run are expected\n";
        return kExitMisused;
    }
    const bool authorized = isSet("AUTHORIZED", "1");
    std::optional<Account> account;
    try {
        SecretInput input(kInput, kMaxLogin + kMaxPassword + kMaxLogin);
        std::string_view rest = input.all();
        ::close(kInput);
        const auto login = takeField(rest);
        const auto password = takeField(rest);
        if (!login || (!password && !authorized)) {
            std::cerr << "mxcheckpassword: descriptor 3 holds no login and password\n";
            return kExitMisused;
        }
        // The password ends with a NUL in the input's own, wiped memory.
        account =
            authorized ? findWithoutPassword(std::string(*login)) : authenticate(std::string(*login), password->data());
    } catch (const std::length_error&) {
        return kExitRefused;
    }
    if (!account) {
        return authorized ? kExitUnknown : kExitRefused;
    }
    if (!authorized) {
        ::unsetenv("AUTHORIZED");
    }
    setAnswer(*account, authorized);
    kavro::process::restoreSignalActions();
    ::execvp(command[0], command);
    throw kavro::SystemError(std::string("cannot run ") + command[0], errno);
}

}  // namespace mxcheckpassword
