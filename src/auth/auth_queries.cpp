// Reading operations of the authentication database. Columns may hold anything: null, empty texts, damaged values.
#include <cerrno>
#include <cstring>
#include <string>

#include "auth/auth_database.h"
#include "auth/auth_statement.h"
#include "auth/password_cipher.h"
#include "auth/secret.h"
#include "util/log.h"

using kavro::SqliteConnection;
using kavro::SqliteStatement;
using namespace kavro::auth;

namespace {

constexpr const char* kUserDomain = "SELECT id, status FROM domains WHERE name=LOWER(?)";
constexpr const char* kUser =
    "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=LOWER(?)";
constexpr const char* kUsers =
    "SELECT u.name || '@' || d.name as mailAddress, u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, "
    "u.status AS userDisabled, d.status AS domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id";

template <typename... Arguments>
int fail(const char* message, Arguments... arguments) {
    kavro_log(KAVRO_LOG_ERROR, message, arguments...);
    return -1;
}

unsigned char disabled_flags(bool user, bool domain) {
    return static_cast<unsigned char>((user ? MAIL_AUTH_USER_DISABLED : 0) | (domain ? MAIL_AUTH_DOMAIN_DISABLED : 0));
}

/// Copies a text that may be null. False, logged, when there is no memory.
bool duplicate(char** copy, const char* text) {
    *copy = text == nullptr ? nullptr : ::strdup(text);
    if (text != nullptr && *copy == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "System error: %s", std::strerror(errno));
        return false;
    }
    return true;
}

/// Fills the record from the current row of kUser.
int fill_user_data(mail_auth_user_data* record, const SqliteStatement& row, bool domainDisabled) {
    const char* unencrypted = row.text(2);
    if (!duplicate(&record->name, row.text(0)) ||
        !duplicate(&record->value, unencrypted != nullptr ? unencrypted : row.text(1))) {
        free_user_data(record);
        return -1;
    }
    record->flags = disabled_flags(row.number(3) != 0, domainDisabled);
    if (unencrypted != nullptr) {
        record->flags |= MAIL_AUTH_UNENCRYPTED;
    }
    return 1;
}

}  // namespace

namespace kavro::auth {

int report_user_selection(const SqliteConnection& connection) {
    return fail("Unable to execute the user selection query: %s", connection.errorText());
}

int hand_over_user(const char* address, const SqliteStatement& row, int first, mail_auth_callback callback,
                   void* context, CipherHold& cipher) {
    const char* encrypted = row.text(first);
    unsigned char flags = disabled_flags(row.number(first + 2) != 0, row.number(first + 3) != 0);
    if (encrypted != nullptr && *encrypted != '\0') {
        const SecretCString plain = cipher.decrypt(encrypted, address);
        return callback(address, plain.get(), flags, context);
    }
    const char* unencrypted = row.text(first + 1);
    if (unencrypted != nullptr) {
        flags |= MAIL_AUTH_UNENCRYPTED;
    }
    return callback(address, unencrypted, flags, context);
}

int iterate_users(const char* restriction, const char* mailname, mail_auth_callback callback, void* context) {
    SqliteConnection connection;
    if (!openForReading(connection)) {
        return -1;
    }
    SqliteStatement row(connection);
    const std::string sql = std::string(kUsers) + " " + restriction;
    if (!row.prepare(sql.c_str())) {
        return report_user_selection(connection);
    }
    if (mailname != nullptr && !row.bind(1, mailname)) {
        return fail(kBindMailname, mailname, sql.c_str(), connection.errorText());
    }
    CipherHold cipher;
    int stepped = row.step();
    for (; stepped == SQLITE_ROW; stepped = row.step()) {
        const char* address = row.text(0);
        if (address == nullptr || *address == '\0') {
            kavro_log(KAVRO_LOG_WARNING, "NULL or empty mail address stored in the database, skipped");
        } else if (row.text(1) == nullptr && row.text(2) == nullptr) {
            kavro_log(KAVRO_LOG_INFO, "empty password properties (both plain and encrypted) for user %s, skipped",
                      address);
        } else if (const int result = hand_over_user(address, row, 1, callback, context, cipher); result < 1) {
            return result;
        }
    }
    return stepped == SQLITE_DONE ? 0 : report_user_selection(connection);
}

}  // namespace kavro::auth

int get_user_data(mail_auth_user_data* record, const char* mailname, const char* domain) {
    *record = mail_auth_user_data{};
    SqliteConnection connection;
    if (!openForReading(connection)) {
        return -1;
    }
    SqliteStatement domainRow(connection);
    if (!domainRow.prepare(kUserDomain)) {
        fail("Unable to get domain id: %s", connection.errorText());
        return fail("Unable to get mail domain id for: %s", domain);
    }
    if (!domainRow.bind(1, domain)) {
        return fail("Unable to bind parameter domain id for: %s: %s", domain, connection.errorText());
    }
    switch (domainRow.step()) {
        case SQLITE_ROW:
            break;
        case SQLITE_DONE:
            return 0;
        default:
            return fail("Unable to get domain id: %s", connection.errorText());
    }

    SqliteStatement user(connection);
    if (!user.prepare(kUser)) {
        return fail("Unable to get passwd for mailname: %s: %s", mailname, connection.errorText());
    }
    if (!user.bind(1, domainRow.number(0))) {
        return fail("Unable to bind parameter bind domain id for: %s: %s", domain, connection.errorText());
    }
    if (!user.bind(2, mailname)) {
        return fail("Unable to bind parameter bind mailname %s: %s", mailname, connection.errorText());
    }
    switch (user.step()) {
        case SQLITE_ROW:
            return fill_user_data(record, user, domainRow.number(1) != 0);
        case SQLITE_DONE:
            return 0;
        default:
            return fail("Unable to get passwd for mailname: %s: %s", mailname, connection.errorText());
    }
}

void free_user_data(mail_auth_user_data* record) {
    const SecretCString name(record->name);
    const SecretCString value(record->value);
    *record = mail_auth_user_data{};
}

int mailAuthIterateAll(mail_auth_callback callback, void* context) {
    return iterate_users("ORDER BY d.name, u.name", nullptr, callback, context);
}
