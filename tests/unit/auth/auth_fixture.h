// A directory of its own with database and key for each test, plain SQL, and the log lines as "<priority> <text>".
#pragma once

#include <gmock/gmock.h>

#include <numeric>

#include "auth/auth_paths.h"
#include "auth/auth_setup.h"
#include "auth/password_cipher.h"
#include "util/support.h"

inline std::string textOf(const kavro::CString& owned) {
    return owned == nullptr ? "(null)" : owned.get();
}

class AuthTest : public ScratchTest {
protected:
    static inline std::vector<std::string>& logged = LogCapture::messages;

    AuthTest() { useFiles(directory + "/passwd.db", directory + "/passwd_db_key"); }

    static void useFiles(const std::string& database, const std::string& key) {
        mailAuthDBSetPath(database.c_str());
        mailAuthKeySetPath(key.c_str());
    }
    static void writeKey(std::size_t size, char first = 0) {
        std::string key(size, first);
        std::iota(key.begin(), key.end(), first);
        std::ofstream(mailAuthKey, std::ios::binary) << key;
    }
    static std::string sql(const std::string& statement) { return rowsOf(mailAuthDB, statement); }

private:
    LogCapture log_;
};

/// With an empty database and a key.
class AuthDatabaseTest : public AuthTest {
protected:
    AuthDatabaseTest() {
        EXPECT_EQ(mailAuthDBInit(), 0);
        writeKey(40);
    }
    static std::string users() {
        return sql(
            "SELECT u.name || '@' || d.name, userPassword, cmusaslsecretPLAIN, u.status FROM users u, domains d "
            "WHERE u.dom_id = d.id ORDER BY d.name, u.name");
    }
};
