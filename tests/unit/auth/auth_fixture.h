// A directory of its own with database and key for each test, plain SQL, and the log lines as "<priority>: <text>".
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "auth/auth_paths.h"
#include "auth/auth_setup.h"
#include "auth/password_cipher.h"
#include "util/c_memory.h"
#include "util/log.h"

inline std::string textOf(const kavro::CString& owned) {
    return owned == nullptr ? "(null)" : owned.get();
}

class AuthTest : public ::testing::Test {
protected:
    static inline std::vector<std::string> logged;

    AuthTest() {
        useFiles(directory + "/passwd.db", directory + "/passwd_db_key");
        logged.clear();
        kavro_log = keepLine;
    }
    ~AuthTest() override { std::filesystem::remove_all(directory); }

    static void useFiles(const std::string& database, const std::string& key) {
        mailAuthDBSetPath(database.c_str());
        mailAuthKeySetPath(key.c_str());
    }
    static void writeKey(std::size_t size, char first = 0) {
        std::string key(size, first);
        std::iota(key.begin(), key.end(), first);
        std::ofstream(mailAuthKey, std::ios::binary) << key;
    }
    static void keepLine(int priority, const char* format, ...) {
        va_list args;
        va_start(args, format);
        logged.push_back(std::to_string(priority) + ": " + textOf(kavro::CString(vasprintf_safe(format, args))));
        va_end(args);
    }

    /// All rows, columns joined by "|", rows by a blank; the error's text when it fails.
    static std::string sql(const std::string& statement) {
        sqlite3* database = nullptr;
        sqlite3_open(mailAuthDB, &database);
        std::string rows;
        const auto append = [](void* target, int count, char** values, char**) {
            std::string& all = *static_cast<std::string*>(target);
            for (int i = 0; i < count; ++i) {
                all += (i > 0 ? "|" : all.empty() ? "" : " ") + std::string(values[i] != nullptr ? values[i] : "NULL");
            }
            return 0;
        };
        if (sqlite3_exec(database, statement.c_str(), append, &rows, nullptr) != SQLITE_OK) {
            rows = sqlite3_errmsg(database);
        }
        sqlite3_close(database);
        return rows;
    }

    char name_[23] = "/tmp/auth-test-XXXXXX";
    const std::string directory = ::mkdtemp(name_);
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
