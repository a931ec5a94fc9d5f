// The way from an address to a mailbox, and the conditions of a login.
#include "mxcheckpassword/account.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "auth/auth_database.h"
#include "auth/password_cipher.h"
#include "mxcheckpassword/password_check.h"
#include "postfix/database_helper.h"
#include "postfix/tables.h"
#include "util/accounts.h"
#include "util/config.h"
#include "util/log.h"
#include "util/names.h"

namespace mxcheckpassword {

using kavro::mail::postfix::DatabaseHelper;

namespace {

enum class Purpose { Login, Credentials, Delivery };

std::string inLowerCase(std::string text) {
    ascii_lower(text.data());
    return text;
}

/// One "@" between two names, and nothing that a table's key, a protocol line or a log line could be broken with.
bool isAddress(std::string_view login) {
    const std::size_t at = login.find('@');
    return login.size() <= kMaxLogin && at != 0 && at != std::string_view::npos && at + 1 < login.size() &&
           login.find('@', at + 1) == std::string_view::npos &&
           std::none_of(login.begin(), login.end(), [](unsigned char c) { return c <= ' ' || c == 0x7F; });
}

std::optional<std::string> valueIn(const char* table, const std::string& key) {
    auto records = DatabaseHelper::findRecords(table, {key});
    return records.empty() ? std::nullopt : std::optional(std::move(records.front().second));
}

/// Where mail to the address goes: the only element of its alias record; itself when that names it, or without one.
/// Empty when mail goes to several others: none of their mailboxes is its own.
std::string targetOf(const std::string& address) {
    constexpr const char* kSeparators = ", \t";
    const std::string list = valueIn(kavro::mail::postfix::kVirtualTable, address).value_or(address);
    std::vector<std::string> elements;
    for (std::size_t end = 0, begin = 0; (begin = list.find_first_not_of(kSeparators, end)) != std::string::npos;) {
        end = list.find_first_of(kSeparators, begin);
        elements.push_back(inLowerCase(list.substr(begin, end - begin)));
        if (elements.back() == address) {
            return address;
        }
    }
    return elements.size() == 1 ? elements.front() : std::string();
}

/// Fills in home and Maildir from a vmailbox record's value, which is relative to the mail root.
void setPaths(Account& account, const std::string& value) {
    constexpr std::string_view kMaildir = "/Maildir/";
    if (value.size() <= kMaildir.size() || !value.ends_with(kMaildir) || value.front() == '/' ||
        ("/" + value).find("/../") != std::string::npos) {
        throw std::runtime_error("the mailbox of " + account.address + " is not below the mail root");
    }
    account.home =
        std::string(zcpConfGetDefaultByIndex(kMailRootKey)) + '/' + value.substr(0, value.size() - kMaildir.size());
    account.maildir = account.home + "/Maildir";
}

void setMailUser(Account& account) {
    if (kavro_getpw(kMailUser, &account.uid, &account.gid, nullptr) == -1) {
        throw std::runtime_error(std::string("no user ") + kMailUser);
    }
}

/// A row of the authentication database, or none.
class StoredUser {
public:
    explicit StoredUser(const std::string& address) {
        const std::size_t at = address.find('@');
        const std::string name = address.substr(0, at);
        const int found = get_user_data(&data_, name.c_str(), address.substr(at + 1).c_str());
        if (found == -1) {
            throw std::runtime_error("the authentication database cannot be read");
        }
        exists_ = found == 1;
    }
    StoredUser(const StoredUser&) = delete;
    StoredUser& operator=(const StoredUser&) = delete;
    ~StoredUser() { free_user_data(&data_); }

    bool exists() const noexcept { return exists_; }
    bool disabled() const noexcept {
        return (data_.flags & (MAIL_AUTH_USER_DISABLED | MAIL_AUTH_DOMAIN_DISABLED)) != 0;
    }
    const char* value() const noexcept { return data_.value; }

private:
    mail_auth_user_data data_{};
    bool exists_ = false;
};

/// Why the login is refused; null when it is not. Everything is looked up before anything is judged.
const char* judge(Account& account, Purpose purpose, const char* password) {
    account.address = targetOf(account.login);
    const auto mailbox =
        valueIn(kavro::mail::postfix::kVmailboxTable, account.address.empty() ? account.login : account.address);
    const bool hasMailbox = !account.address.empty() && mailbox;
    if (hasMailbox) {
        setPaths(account, *mailbox);
    }
    if (purpose == Purpose::Delivery) {
        return hasMailbox ? nullptr : "no mailbox";
    }
    const StoredUser user(account.login);
    const StoredUser owner(hasMailbox ? account.address : account.login);
    const bool matches = password != nullptr && passwordMatches(user.value(), password);
    if (!hasMailbox) {
        return "no mailbox";
    }
    if (!user.exists()) {
        return "no such user";
    }
    if (user.disabled() || owner.disabled()) {
        return "disabled";
    }
    if (password != nullptr && !matches) {
        return "wrong password";
    }
    if (purpose == Purpose::Credentials) {
        account.password = passwordForServer(user.value());
    }
    return nullptr;
}

std::optional<Account> find(const std::string& login, Purpose purpose, const char* password) {
    Account account;
    account.login = inLowerCase(login);
    const char* refusal = isAddress(login) ? judge(account, purpose, password) : "not an address";
    if (refusal != nullptr) {
        // What is no address may be a password typed into the wrong field.
        kavro_log(KAVRO_LOG_INFO, "login refused: %s: %s", isAddress(login) ? login.c_str() : "?", refusal);
        return std::nullopt;
    }
    setMailUser(account);
    return account;
}

int collect(const char* address, const char* /*password*/, unsigned char flags, void* context) {
    if ((flags & (MAIL_AUTH_USER_DISABLED | MAIL_AUTH_DOMAIN_DISABLED)) == 0 && isAddress(address)) {
        static_cast<std::vector<std::string>*>(context)->push_back(address);
    }
    return 1;
}

}  // namespace

std::optional<Account> authenticate(const std::string& login, const char* password) {
    if (*password == '\0' || std::strlen(password) > kMaxPassword) {
        kavro_log(KAVRO_LOG_INFO, "login refused: no usable password");
        return std::nullopt;
    }
    return find(login, Purpose::Login, password);
}

std::optional<Account> findLogin(const std::string& login) {
    return find(login, Purpose::Login, nullptr);
}

std::optional<Account> findWithPassword(const std::string& login) {
    return find(login, Purpose::Credentials, nullptr);
}

std::optional<Account> findMailbox(const std::string& login) {
    return find(login, Purpose::Delivery, nullptr);
}

void forEachAccount(const std::function<void(const Account&)>& use) {
    std::vector<std::string> addresses;
    if (mailAuthIterateAll(collect, &addresses) == -1) {
        throw std::runtime_error("the authentication database cannot be read");
    }
    Account account;
    setMailUser(account);
    for (const auto& [address, value] : DatabaseHelper::findRecords(kavro::mail::postfix::kVmailboxTable, addresses)) {
        account.login = account.address = address;
        setPaths(account, value);
        use(account);
    }
}

}  // namespace mxcheckpassword
