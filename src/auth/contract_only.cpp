// The part of this floor's contract that no command of ours calls; other programs of the panel do: which mail server
// the panel says it runs, from its own list of features; the key's path beside a database; checks of one user's
// password; passwords from the environment in buffers that last; Base64 of texts.
#include <crypt.h>
#include <libgen.h>
#include <stdio.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "auth/auth_paths.h"
#include "auth/auth_statement.h"
#include "auth/base64.h"
#include "auth/env_password.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/log.h"

using kavro::SqliteConnection;
using kavro::SqliteStatement;
using namespace kavro::auth;

namespace {

constexpr const char* kCheck =
    "SELECT u.userPassword AS password, u.cmusaslsecretPLAIN AS encPassword, u.status AS userDisabled, d.status AS "
    "domainDisabled FROM users AS u, domains AS d WHERE u.dom_id = d.id AND u.name=LOWER(?) AND d.name=LOWER(?)";
constexpr std::size_t kMaxCommandLength = 4095;
constexpr std::string_view kFeature = "$features['SMTP_Server']";
constexpr const char* kQuotes = "'\"";

struct PipeCloser {
    void operator()(std::FILE* stream) const noexcept { ::pclose(stream); }
};

/// Kept: the last character of the value is not compared, so that a value of one character is Postfix.
bool names(const std::string& value, const char* server) {
    return !value.empty() && ::strncasecmp(value.c_str(), server, value.size() - 1) == 0;
}

/// The style that a line of the feature list tells, or -1, logged when the line is about the mail server at all.
int style_of(std::string_view line) {
    if (!line.starts_with(kFeature)) {
        return -1;
    }
    const std::size_t open = line.find_first_of(kQuotes, kFeature.size());
    const std::size_t close = open == std::string_view::npos ? open : line.find_first_of(kQuotes, open + 1);
    if (close == std::string_view::npos) {
        kavro_log(KAVRO_LOG_INFO, "Unparseable line \"%s\", skipped", std::string(line).c_str());
        return -1;
    }
    const std::string value(line.substr(open + 1, close - open - 1));
    if (names(value, "postfix")) {
        return 1;
    }
    if (names(value, "qmail")) {
        return 0;
    }
    kavro_log(KAVRO_LOG_INFO, "Unknown server style \"%.*s\", skipped", static_cast<int>(value.size()), value.c_str());
    return -1;
}

constexpr std::size_t kBufferSize = 4096;

/// A process-wide result; one byte more ends a text that fills it.
using PasswordBuffer = std::array<char, kBufferSize + 1>;

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

int mailAuthDBDetectStyle() {
    const std::string command = std::string(kProductRoot) + "/admin/sbin/mxadmin-server --features";
    if (command.size() >= kMaxCommandLength) {
        kavro_log(KAVRO_LOG_ERROR, "path to mxadmin is too long, check PRODUCT_ROOT_D (%s)", kProductRoot);
        return -1;
    }
    const std::unique_ptr<std::FILE, PipeCloser> output(::popen(command.c_str(), "re"));
    if (output == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "unable to execute %s: %s", command.c_str(), std::strerror(errno));
        return -1;
    }
    const kavro::CString features(read_stream_contents(output.get(), nullptr));
    std::string_view rest(features == nullptr ? "" : features.get());
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        if (const int style = style_of(rest.substr(0, end)); style != -1) {
            return style;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    kavro_log(KAVRO_LOG_INFO, "Unable to determine mail server type from ``mxadmin-server --features''");
    return -1;
}

char* mailAuthDBToKeyPath(const char* db_path) {
    std::string copy(db_path);
    return asprintf_safe("%s/passwd_db_key", ::dirname(copy.data()));
}

int mailAuthCheck(const char* address, mail_auth_callback callback, void* context) {
    const char* at = address == nullptr ? nullptr : std::strchr(address, '@');
    if (at == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Invalid mail address '%s'", address);
        return -1;
    }
    const std::string mailname(address, at);
    SqliteConnection connection;
    if (!openForReading(connection)) {
        return -1;
    }
    SqliteStatement row(connection);
    if (!row.prepare(kCheck)) {
        return report_user_selection(connection);
    }
    if (!row.bind(1, mailname.c_str())) {
        kavro_log(KAVRO_LOG_ERROR, kBindMailname, mailname.c_str(), kCheck, connection.errorText());
        return -1;
    }
    if (!row.bind(2, at + 1)) {
        kavro_log(KAVRO_LOG_ERROR, kBindDomainName, at + 1, kCheck, connection.errorText());
        return -1;
    }
    switch (row.step()) {
        case SQLITE_ROW:
            break;
        case SQLITE_DONE:
            kavro_log(KAVRO_LOG_INFO, "No such user '%s' in mail authorization database", address);
            return -1;
        default:
            return report_user_selection(connection);
    }
    if (row.text(0) == nullptr && row.text(1) == nullptr) {
        kavro_log(KAVRO_LOG_INFO, "NULL password fields (both plain and encrypted) for user %s, skipped", address);
        return -1;
    }
    CipherHold cipher;
    return hand_over_user(address, row, 0, callback, context, cipher);
}

int mailAuthCheckShort(const char* mailname, mail_auth_callback callback, void* context) {
    return iterate_users("AND u.name=LOWER(?)", mailname, callback, context);
}

const char* get_env_crypted_password() {
    static PasswordBuffer buffer{};
    if (buffer.front() == '\0') {
        if (const char* plain = env_value(kPlainVariable); plain != nullptr) {
            hash_to(buffer, plain);
        } else if (const char* hash = env_value(kCryptedVariable); hash != nullptr) {
            copy_to(buffer, hash);
        } else {
            hash_to(buffer, "");
        }
        forget_env(kPlainVariable);
        forget_env(kCryptedVariable);
    }
    return buffer.data();
}

const char* get_env_noncrypted_password() {
    static PasswordBuffer buffer{};
    if (buffer.front() == '\0') {
        if (const char* plain = ::getenv(kPlainVariable); plain != nullptr) {
            copy_to(buffer, plain);
            forget_env(kPlainVariable);
        }
    }
    return buffer.data();
}

std::size_t base64Decode(unsigned char* out, const char* text) {
    return base64ArrayDecode(out, text, std::strlen(text));
}

char* b64_encode_cstr(const char* text) {
    return b64_encode(text, text == nullptr ? 0 : std::strlen(text));
}

char* b64_decode_cstr(const char* text) {
    return reinterpret_cast<char*>(b64_decode(text, nullptr));
}
