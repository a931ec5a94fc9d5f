// Statements on the authentication database whose failures are logged in the words that belong to them, its domain
// rows, and the handing over of its users.
#pragma once

#include "auth/auth_database.h"
#include "auth/password_cipher.h"
#include "auth/secret.h"
#include "util/log.h"
#include "util/sqlite_connection.h"

namespace kavro::auth {

/// Bind failures of the parameters that several statements share. The statement and SQLite's text follow the arguments.
// Kept: callers match these texts, doubled blanks included.
inline constexpr const char* kBindMailname =
    "Unable to bind parameter mailname '%s' to SQL statement for query '%s': %s";
inline constexpr const char* kBindDomainId =
    "Unable to bind parameter domain ID for mail address '%s@%s' to  SQL statement for query '%s': %s";
inline constexpr const char* kBindDomainName =
    "Unable to bind parameter domain name '%s' to  SQL statement for query '%s': %s";
inline constexpr const char* kBindDomainStatus =
    "Unable to bind parameter status '%d' for domain '%s' to SQL statement for query '%s': %s";

/// Opens the database at mailAuthDB for writing. False, logged, on failure.
bool openForWriting(SqliteConnection& connection);
/// Opens it for reading. False, logged, on failure.
bool openForReading(SqliteConnection& connection);

/// Prepared by its constructor; the first failure makes it unusable and answers false from there on.
class AuthStatement {
public:
    /// `failure` is what a failed preparation or step logs, with the statement and SQLite's text as its arguments.
    /// Both texts must outlive the object.
    AuthStatement(SqliteConnection& connection, const char* sql, const char* failure)
        : connection_(connection),
          statement_(connection),
          sql_(sql),
          failure_(failure),
          usable_(statement_.prepare(sql)) {
        if (!usable_) {
            kavro_log(KAVRO_LOG_ERROR, failure_, sql_, connection_.errorText());
        }
    }

    /// Binds by position, from 1. A failure logs `message` with `names`, the statement and SQLite's text.
    template <typename Value, typename... Names>
    bool bind(int position, Value value, const char* message, Names... names) {
        if (usable_ && !statement_.bind(position, value)) {
            kavro_log(KAVRO_LOG_ERROR, message, names..., sql_, connection_.errorText());
            usable_ = false;
        }
        return usable_;
    }

    /// Runs a statement that answers no rows. 0, or -1, logged unless that was done. `changed` gets whether it changed
    /// a row, unless null.
    int run(bool* changed = nullptr) {
        if (usable_ && statement_.step() != SQLITE_DONE) {
            kavro_log(KAVRO_LOG_ERROR, failure_, sql_, connection_.errorText());
            usable_ = false;
        }
        if (usable_ && changed != nullptr) {
            *changed = sqlite3_changes(connection_.get()) > 0;
        }
        return usable_ ? 0 : -1;
    }

private:
    SqliteConnection& connection_;
    SqliteStatement statement_;
    const char* sql_;
    const char* failure_;
    bool usable_;
};

}  // namespace kavro::auth

/// Flag of getDomainId: look only.
inline constexpr int kOnlyLook = 8;

/// The domain's id on an open connection. A missing row is made, with status 1 when `flags` is not 0, unless flag bit 3
/// is set. -1 for a missing row that is not to be made and, logged, on failure.
sqlite3_int64 getDomainId(const char* domain, kavro::SqliteConnection& connection, int flags);

namespace kavro::auth {

/// Looks for the domain's row. 1 and the id, 0 when there is none, -1, logged, on failure.
int findDomain(const char* domain, SqliteConnection& connection, sqlite3_int64* id);

/// Keeps the cipher loaded from the first password that could be decrypted: before that, each failure is reported with
/// its own address.
class CipherHold {
public:
    CipherHold() = default;
    CipherHold(const CipherHold&) = delete;
    CipherHold& operator=(const CipherHold&) = delete;
    ~CipherHold() {
        if (held_) {
            mailPasswdCipherCleanup();
        }
    }
    SecretCString decrypt(const char* stored, const char* address) {
        SecretCString plain(mailPasswdCipherOp(stored, MAIL_CIPHER_DECRYPT, address, nullptr));
        held_ = held_ || (plain != nullptr && mailPasswdCipherInit() == 0);
        return plain;
    }

private:
    bool held_ = false;
};

/// Logs a failed selection of users; -1.
int report_user_selection(const SqliteConnection& connection);
/// Hands one user to the callback. `first` is the column of the encrypted password, before the unencrypted one and the
/// two states.
int hand_over_user(const char* address, const SqliteStatement& row, int first, mail_auth_callback callback,
                   void* context, CipherHold& cipher);
/// Calls back for every user, or for those that the SQL text `restriction` leaves, in which a mailname that is not null
/// is bound. As mailAuthIterateAll.
int iterate_users(const char* restriction, const char* mailname, mail_auth_callback callback, void* context);

}  // namespace kavro::auth
