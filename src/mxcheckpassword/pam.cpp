// pam_exec(8): the login in the environment, the password on standard input.
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include "mxcheckpassword/account.h"
#include "mxcheckpassword/protocols.h"
#include "mxcheckpassword/secret_input.h"

namespace mxcheckpassword {

namespace {

std::optional<Account> authenticateFromInput(const std::string& login) {
    try {
        SecretInput input(0, kMaxPassword);
        std::string_view text = input.all();
        // Some versions of the module write the terminating NUL, others do not.
        text = text.substr(0, text.ends_with('\0') ? text.size() - 1 : text.size());
        if (text.find('\0') != std::string_view::npos) {
            return std::nullopt;
        }
        kavro::auth::SecretBytes password(text.begin(), text.end());
        password.push_back('\0');
        return authenticate(login, reinterpret_cast<const char*>(password.data()));
    } catch (const std::length_error&) {
        return std::nullopt;
    }
}

}  // namespace

int servePam(bool ownOnly) {
    const char* type = std::getenv("PAM_TYPE");
    const char* login = std::getenv("PAM_USER");
    if (type == nullptr || login == nullptr) {
        std::cerr << "mxcheckpassword: PAM_TYPE and PAM_USER are expected in the environment\n";
        return kExitMisused;
    }
    std::optional<Account> account;
    if (std::string_view(type) == "auth") {
        account = authenticateFromInput(login);
    } else if (std::string_view(type) == "account") {
        account = findLogin(login);
    }
    return account && (!ownOnly || account->login == account->address) ? kExitAccepted : kExitRefused;
}

}  // namespace mxcheckpassword
