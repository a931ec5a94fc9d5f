// The places of each style; a path that is set is copied and kept as long as the process lives.
#include "auth/auth_paths.h"

#include <array>
#include <string>

namespace {

struct Locations {
    const char* database;
    const char* key;
};

/// By style: what the qmail side reads, and what the Postfix side reads.
constexpr std::array<Locations, 2> kLocations{{
    {"/var/lib/kavro/mail/auth/passwd.db", "/var/lib/kavro/mail/auth/passwd_db_key"},
    {"/var/spool/postfix/kavro/passwd.db", "/var/spool/postfix/kavro/passwd_db_key"},
}};

/// Takes a copy before it changes anything: the new path may point into the old one.
void set_path(const char*& current, std::string& storage, const char* path) {
    std::string copy(path);
    storage.swap(copy);
    current = storage.c_str();
}

}  // namespace

const char* mailAuthDB = kLocations[0].database;
const char* mailAuthKey = kLocations[0].key;

void mailAuthDBSelectStyle(int style) {
    if (style != 0 && style != 1) {
        return;
    }
    const Locations& chosen = kLocations[style == 0 ? 0 : 1];
    mailAuthDB = chosen.database;
    mailAuthKey = chosen.key;
}

void mailAuthDBSetPath(const char* path) {
    static std::string storage;
    set_path(mailAuthDB, storage, path);
}

void mailAuthKeySetPath(const char* path) {
    static std::string storage;
    set_path(mailAuthKey, storage, path);
}
