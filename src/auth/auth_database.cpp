// Writing operations of the authentication database. Each is one connection and one statement, a domain look-up apart.
#include "auth/auth_database.h"

#include "auth/auth_statement.h"
#include "auth/password_cipher.h"
#include "util/c_memory.h"
#include "util/log.h"

using kavro::SqliteConnection;
using kavro::auth::AuthStatement;
using kavro::auth::openForWriting;

namespace {

// Both replace the row, which clears the other password column.
constexpr const char* kSetEncrypted =
    "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (LOWER(?), ?, ?, ?)";
constexpr const char* kSetUnencrypted =
    "INSERT OR REPLACE INTO users (name, cmusaslsecretPLAIN, status, dom_id) VALUES (LOWER(?), ?, ?, ?)";
constexpr const char* kRemove = "DELETE FROM users WHERE name=LOWER(?) AND dom_id=?";
constexpr const char* kRename = "UPDATE users SET name=LOWER(?) WHERE name=LOWER(?) AND dom_id=?";
constexpr const char* kRenameDomain = "UPDATE domains SET name=LOWER(?) WHERE name=LOWER(?)";
constexpr const char* kRemoveDomain = "DELETE FROM domains WHERE name=LOWER(?)";
constexpr const char* kSetDomainStatus = "UPDATE domains SET status=? WHERE name=LOWER(?)";

int report_no_domain(const char* domain) {
    kavro_log(KAVRO_LOG_ERROR, "No such domain '%s' in the mail authentication DB", domain);
    return -1;
}

int set_domain_status(const char* domain, int status) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    AuthStatement statement(connection, kSetDomainStatus,
                            "Unable to execute the mail domain authorization status change query: %s: %s");
    statement.bind(1, status, kavro::auth::kBindDomainStatus, status, domain);
    statement.bind(2, domain, kavro::auth::kBindDomainName, domain);
    return statement.run();
}

}  // namespace

int mailAuthSet(const char* mailname, const char* domain, const char* password, unsigned char flags) {
    if (password == nullptr || (flags & MAIL_AUTH_UNENCRYPTED) != 0) {
        return mailAuthSetRaw(mailname, domain, password, flags);
    }
    const kavro::CString encrypted(mailPasswdCipherOp(password, MAIL_CIPHER_ENCRYPT, mailname, domain));
    return encrypted == nullptr ? -1 : mailAuthSetRaw(mailname, domain, encrypted.get(), flags);
}

int mailAuthSetRaw(const char* mailname, const char* domain, const char* value, unsigned char flags) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    // That bit alone is handed on: it decides whether a new domain row is disabled.
    const sqlite3_int64 domainId = getDomainId(domain, connection, flags & MAIL_AUTH_DOMAIN_DISABLED);
    if (domainId == -1) {
        return report_no_domain(domain);
    }
    AuthStatement statement(connection, (flags & MAIL_AUTH_UNENCRYPTED) != 0 ? kSetUnencrypted : kSetEncrypted,
                            "Unable to execute the mail authorization registration query: %s: %s");
    statement.bind(1, mailname, kavro::auth::kBindMailname, mailname);
    statement.bind(2, value,
                   "Unable to bind parameter password for mail address '%s@%s' to SQL statement for query '%s': %s",
                   mailname, domain);
    statement.bind(3, (flags & MAIL_AUTH_USER_DISABLED) != 0 ? 1 : 0,
                   "Unable to bind parameter status for mail address '%s@%s' to  SQL statement for query '%s': %s",
                   mailname, domain);
    statement.bind(4, domainId, kavro::auth::kBindDomainId, mailname, domain);
    return statement.run();
}

int set_postbox_passwd(const char* mailname, const char* domain, const char* password, unsigned char flags) {
    if (password == nullptr || *password == '\0') {
        return mailAuthRemove(mailname, domain);
    }
    return mailAuthSet(mailname, domain, password, flags);
}

int mailAuthClone(const char* src_mailname, const char* src_domain, const char* dst_mailname, const char* dst_domain) {
    mail_auth_user_data source{};
    const int found = get_user_data(&source, src_mailname, src_domain);
    if (found == -1) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to get users list from MTA password database");
        return -1;
    }
    const int result = found == 0 ? 0 : mailAuthSetRaw(dst_mailname, dst_domain, source.value, source.flags);
    free_user_data(&source);
    return result;
}

int mailAuthRemove(const char* mailname, const char* domain) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    sqlite3_int64 domainId = 0;
    const int found = kavro::auth::findDomain(domain, connection, &domainId);
    if (found != 1) {
        return found;
    }
    AuthStatement statement(connection, kRemove, "Unable to execute the mail authorization removal query: %s: %s");
    statement.bind(1, mailname, kavro::auth::kBindMailname, mailname);
    statement.bind(2, domainId, kavro::auth::kBindDomainId, mailname, domain);
    return statement.run();
}

int mailAuthRename(const char* old_mailname, const char* new_mailname, const char* domain) {
    return mailAuthRenameCounted(old_mailname, new_mailname, domain, nullptr);
}

int mailAuthRenameCounted(const char* old_mailname, const char* new_mailname, const char* domain, bool* renamed) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    const sqlite3_int64 domainId = getDomainId(domain, connection, kOnlyLook);
    if (domainId == -1) {
        return report_no_domain(domain);
    }
    AuthStatement statement(connection, kRename, "Unable to execute the mail authorization renaming query: %s: %s");
    statement.bind(1, new_mailname, "Unable to bind parameter new mailname '%s' to SQL statement for query '%s': %s",
                   new_mailname);
    statement.bind(2, old_mailname, "Unable to bind parameter old mailname '%s' to SQL statement for query '%s': %s",
                   old_mailname);
    statement.bind(3, domainId, kavro::auth::kBindDomainId, old_mailname, domain);
    return statement.run(renamed);
}

int mailAuthRenameDomain(const char* old_domain, const char* new_domain) {
    return mailAuthRenameDomainCounted(old_domain, new_domain, nullptr);
}

int mailAuthRenameDomainCounted(const char* old_domain, const char* new_domain, bool* renamed) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    AuthStatement statement(connection, kRenameDomain,
                            "Unable to execute the mail domain authorization name change query: %s: %s");
    statement.bind(1, new_domain, kavro::auth::kBindDomainName, new_domain);
    statement.bind(2, old_domain, kavro::auth::kBindDomainName, old_domain);
    return statement.run(renamed);
}

int mailAuthRemoveDomain(const char* domain) {
    SqliteConnection connection;
    if (!openForWriting(connection)) {
        return -1;
    }
    AuthStatement statement(connection, kRemoveDomain,
                            "Unable to execute the domain mail authorization removal query: %s: %s");
    statement.bind(1, domain, kavro::auth::kBindDomainName, domain);
    return statement.run();
}

int mailAuthDisableDomain(const char* domain) {
    return set_domain_status(domain, 1);
}

int mailAuthEnableDomain(const char* domain) {
    return set_domain_status(domain, 0);
}
