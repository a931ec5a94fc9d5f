// Courier's authpipe protocol. One process answers many requests. A failed look-up is answered by ending without a
// word: Courier then tells its client of a temporary error and starts the program anew.
#include <charconv>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include "mxcheckpassword/account.h"
#include "mxcheckpassword/protocols.h"
#include "mxcheckpassword/secret_input.h"

namespace mxcheckpassword {

namespace {

constexpr std::size_t kMaxRequest = 2 * kMaxPassword;

/// Takes the text before the separator from the front, and the separator. Empty when there is none.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    if (end == std::string_view::npos) {
        return {};
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + 1);
    return taken;
}

void answer(const std::optional<Account>& account) {
    if (!account) {
        std::cout << "FAIL\n";
        return;
    }
    // No USERNAME: Courier would look it up among the system's accounts.
    std::cout << "UID=" << account->uid << "\nGID=" << account->gid << "\nADDRESS=" << account->address
              << "\nHOME=" << account->home << "\nMAILDIR=" << account->maildir << "\n.\n";
}

/// "service LF login LF name LF password LF": the only kind of login that needs no stored plain text.
std::optional<Account> authenticateRequest(std::string_view request) {
    takeUntil(request, '\n');
    const std::string_view kind = takeUntil(request, '\n');
    const std::string login(takeUntil(request, '\n'));
    const std::string_view password = takeUntil(request, '\n');
    if (kind != "login" || password.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    kavro::auth::SecretBytes text(password.begin(), password.end());
    text.push_back('\0');
    return authenticate(login, reinterpret_cast<const char*>(text.data()));
}

/// "AUTH LENGTH": so many bytes follow.
std::optional<Account> readAndAuthenticate(SecretInput& input, std::string_view length) {
    std::size_t count = 0;
    const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), count);
    if (error != std::errc() || end != length.data() + length.size()) {
        throw std::length_error("AUTH without a length");
    }
    return authenticateRequest(input.bytes(count));
}

/// "PRE . SERVICE NAME"
std::optional<Account> lookUp(std::string_view arguments) {
    takeUntil(arguments, ' ');
    takeUntil(arguments, ' ');
    return findLogin(std::string(arguments));
}

void enumerate() {
    forEachAccount([](const Account& account) {
        std::cout << account.address << '\t' << account.uid << '\t' << account.gid << '\t' << account.home << '\t'
                  << account.maildir << "\t\n";
    });
    std::cout << ".\n";
}

}  // namespace

int serveAuthpipe() {
    SecretInput input(0, kMaxRequest);
    while (const auto line = input.line()) {
        std::string_view arguments = *line;
        const std::string command(takeUntil(arguments, ' '));
        if (command == "AUTH") {
            answer(readAndAuthenticate(input, arguments));
        } else if (command == "PRE") {
            answer(lookUp(arguments));
        } else if (*line == "ENUMERATE") {
            enumerate();
        } else if (!line->empty()) {
            // PASSWD among them: passwords are changed by mxadmin, for all addresses of a mailname at once.
            std::cout << "FAIL\n";
        }
        if (!std::cout.flush()) {
            return kExitTemporary;
        }
    }
    return kExitAccepted;
}

}  // namespace mxcheckpassword
