// The lists come from the session queries, which find a mailname in constant time: no operation is quadratic in the
// mailnames.
#include "session/auth_mass_operations.h"

#include <memory>

#include "auth/auth_database.h"
#include "auth/password_cipher.h"
#include "session/session_queries.h"
#include "util/c_memory.h"
#include "util/log.h"

namespace {

constexpr int kFailed = -1;
constexpr int kNothingToDo = 0;
constexpr int kDone = 1;

/// The answer of a session query, with the result that tells whether there was data to ask.
class Answer {
public:
    template <typename... Names>
    explicit Answer(int (*query)(void*, char***, Names...), Names... names) {
        char** strings = nullptr;
        failed_ = query(nullptr, &strings, names...) == -1;
        strings_.reset(strings);
    }

    bool failed() const { return failed_; }
    /// Null-terminated; null when there is nothing.
    char** strings() const { return strings_.get(); }

    /// Calls `action` with each string. False when an action answers -1, which ends the walk.
    template <typename Action>
    bool forEach(Action action) const {
        for (char** string = strings(); string != nullptr && *string != nullptr; ++string) {
            if (action(static_cast<const char*>(*string)) == -1) {
                return false;
            }
        }
        return true;
    }

private:
    std::unique_ptr<char*, decltype(&free_array)> strings_{nullptr, &free_array};
    bool failed_ = false;
};

/// Keeps the cipher loaded while several passwords are encrypted. Held after the first of them was, so that a key that
/// cannot be used is told of once.
class LoadedCipher {
public:
    LoadedCipher(const char* password, unsigned char flags)
        : loaded_(password != nullptr && *password != '\0' && (flags & MAIL_AUTH_UNENCRYPTED) == 0 &&
                  mailPasswdCipherInit() == 0) {}
    LoadedCipher(const LoadedCipher&) = delete;
    LoadedCipher& operator=(const LoadedCipher&) = delete;
    ~LoadedCipher() {
        if (loaded_) {
            mailPasswdCipherCleanup();
        }
    }

private:
    bool loaded_;
};

/// Logs one line and answers with a failure.
template <typename... Names>
int failed(const char* format, Names... names) {
    kavro_log(KAVRO_LOG_ERROR, format, names...);
    return kFailed;
}

int clone_for_alias(const char* mailname, const char* domain, const char* alias) {
    return mailAuthClone(mailname, domain, mailname, alias) == -1
               ? failed("Unable to clone auth record for %s@%s", mailname, domain)
               : kDone;
}

int remove_mailname(const char* mailname, const char* domain) {
    return mailAuthRemove(mailname, domain) == -1 ? failed("Unable to remove mailname %s@%s", mailname, domain) : kDone;
}

int remove_mailname_everywhere(const char* mailname, const char* domain) {
    return rm_mname_from_domains(mailname, domain) == -1 ? failed("Unable to remove mailname from domain aliases")
                                                         : kDone;
}

}  // namespace

int add_domain_auth_alias(const char* domain, const char* alias) {
    const Answer mailnames(&get_mailnames_by_domain, domain);
    if (mailnames.failed()) {
        return failed("Unable to get mailnames from domain %s", domain);
    }
    if (mailnames.strings() == nullptr) {
        return kNothingToDo;
    }
    const bool done = mailnames.forEach([domain, alias](const char* mailname) {
        const Answer aliases(&get_aliases_by_mailname, mailname, domain);
        if (aliases.failed()) {
            return failed("Unable to get mail aliases for %s@%s", mailname, domain);
        }
        const bool cloned =
            aliases.forEach([domain, alias](const char* name) { return clone_for_alias(name, domain, alias); });
        return cloned ? clone_for_alias(mailname, domain, alias) : kFailed;
    });
    return done ? kDone : kFailed;
}

int rm_domain_auth_alias(const char* alias) {
    if (mailAuthRemoveDomain(alias) == -1) {
        return failed("Unable to remove domain %s from auth database", alias);
    }
    char* found = nullptr;
    const int result = get_domain_by_domainalias(nullptr, &found, alias);
    const kavro::CString owner(found);
    if (result == -1) {
        return failed("Unable to get domain by domain alias %s", alias);
    }
    if (found == nullptr) {
        return kNothingToDo;
    }
    const char* const domain = found;
    const Answer mailnames(&get_mailnames_by_domain, domain);
    if (mailnames.failed()) {
        return failed("Unable to get mailnames from domain %s", domain);
    }
    const bool done = mailnames.forEach([domain, alias](const char* mailname) {
        const Answer aliases(&get_aliases_by_mailname, mailname, domain);
        if (aliases.failed()) {
            return failed("Unable to get aliases for mailname %s@%s", mailname, domain);
        }
        const bool removed = aliases.forEach([alias](const char* name) {
            return mailAuthRemove(name, alias) == -1 ? failed("Unable to remove mail alias %s@%s", name, alias) : kDone;
        });
        return removed ? kDone : kFailed;
    });
    // Kept: 0, not 1, when everything was done.
    return done ? kNothingToDo : kFailed;
}

int rm_mname_from_domains(const char* mailname, const char* domain) {
    if (remove_mailname(mailname, domain) == kFailed) {
        return kFailed;
    }
    const Answer aliases(&get_domaliases_by_domain, domain);
    if (aliases.failed()) {
        return failed("Unable to get domain aliases for domain %s", domain);
    }
    if (aliases.strings() == nullptr) {
        return kNothingToDo;
    }
    return aliases.forEach([mailname](const char* alias) { return remove_mailname(mailname, alias); }) ? kDone
                                                                                                       : kFailed;
}

int rm_mails_from_domains(const char* mailname, const char* domain) {
    // Kept: the mailname is removed here and once more with its domain aliases.
    if (remove_mailname(mailname, domain) == kFailed || remove_mailname_everywhere(mailname, domain) == kFailed) {
        return kFailed;
    }
    const Answer aliases(&get_aliases_by_mailname, mailname, domain);
    if (aliases.failed()) {
        // Kept: the text has no "@".
        return failed("Unable to get mail aliases for mailname %s%s", mailname, domain);
    }
    if (aliases.strings() == nullptr) {
        return kNothingToDo;
    }
    const bool done =
        aliases.forEach([domain](const char* alias) { return remove_mailname_everywhere(alias, domain); });
    return done ? kDone : kFailed;
}

int set_passwd_for_domains(const char* mailname, const char* domain, const char* password, unsigned char flags) {
    if (set_postbox_passwd(mailname, domain, password, flags) == -1) {
        return failed("Unable to set password for mailname %s@%s", mailname, domain);
    }
    const Answer aliases(&get_domaliases_by_domain, domain);
    if (aliases.failed()) {
        return failed("Unable to get domain aliases for domain %s", domain);
    }
    if (aliases.strings() == nullptr) {
        return kNothingToDo;
    }
    const LoadedCipher cipher(password, flags);
    // A failure here has no line of its own: the database has logged it.
    const bool done =
        aliases.forEach([=](const char* alias) { return set_postbox_passwd(mailname, alias, password, flags); });
    return done ? kDone : kFailed;
}

int set_mass_postbox_passwd(const char* mailname, const char* domain, const char* password, unsigned char flags) {
    if (set_passwd_for_domains(mailname, domain, password, flags) == kFailed) {
        return kFailed;
    }
    const Answer aliases(&get_aliases_by_mailname, mailname, domain);
    if (aliases.failed()) {
        return kFailed;
    }
    if (aliases.strings() == nullptr) {
        return kNothingToDo;
    }
    const LoadedCipher cipher(password, flags);
    const bool done =
        aliases.forEach([=](const char* alias) { return set_passwd_for_domains(alias, domain, password, flags); });
    return done ? kDone : kFailed;
}

int domain_auth_action(const char* domain, int (*action)(const char* domain), const char* actionName) {
    if (action(domain) == -1) {
        return failed("Unable to %s for domain %s", actionName, domain);
    }
    const Answer aliases(&get_domaliases_by_domain, domain);
    if (aliases.failed()) {
        return failed("Unable to get aliases for domain %s", domain);
    }
    if (aliases.strings() == nullptr) {
        return kNothingToDo;
    }
    const bool done = aliases.forEach([action, actionName](const char* alias) {
        return action(alias) == -1 ? failed("Unable to %s for domain alias %s", actionName, alias) : kDone;
    });
    return done ? kDone : kFailed;
}
